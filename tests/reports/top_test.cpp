// Top reports written on demand by a child program, byte for byte: rows,
// their order and cut, the usage line and the clear-stats file.
#include <gtest/gtest.h>

#include "support.h"

namespace reports {
namespace {

// Sites are call stacks of different depths; "a:SLOT:SIZE:DEPTH:COUNT".
std::vector<std::string> sites_with(int sites) {
    std::vector<std::string> ops{"sclear"};
    for (int d = 0; d < sites; ++d)
        ops.push_back("a:" + std::to_string(d * 2) + ":" + std::to_string(8 + d) + ":" + std::to_string(d) + ":" +
                      std::to_string(1 + d % 2));
    return ops;
}

std::vector<std::string> concat(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct top_case {
    const char* name;
    std::vector<std::string> ops;
    bool counting;
    bool no_backtrace;
};

// A counting run starts with "sclear", which drops the sites of the blocks
// the runtime allocated before main; their bytes stay in the total.
const top_case k_top_cases[] = {
    {"counting off", {"a:0:100:0:3", "report:20", "report:0"}, false, false},
    {"order by count and size, ties by uid, released sites gone",
     {"sclear", "report:0", "a:0:100:0:3", "a:3:20:1:5", "a:8:300:2:3", "a:11:50:3", "a:12:150:4:2", "f:11",
      "report:20"},
     true, false},
    {"row limits",
     {"sclear", "a:0:100:0:3", "a:3:20:1:5", "a:8:300:2:3", "a:12:150:4:2", "report:0", "report:1", "report:2",
      "report:5", "f:0:3", "f:3:5", "f:8:3", "f:12:2", "report:0", "report:3"},
     true, false},
    {"zero row below n sites", concat(sites_with(19), {"report:20", "a:100:4:19", "report:20", "report:19"}), true,
     false},
    {"alloc/sec reset by each written report", {"sclear", "report:0", "a:0:10:0:7", "report:5", "report:5"}, true,
     false},
    {"trace dump not counted",
     {"sclear", "report:0", "start", "a:0:24:0:2", "f:0", "a:2:4096:1", "stop", "dump", "report:5"}, true, false},
    {"no backtraces: every block at uid 0", {"sclear", "report:0", "a:0:24:0:2", "a:2:8:1", "report:5"}, true, true},
};

TEST(TopReport, MatchesTheOperations) {
    for (const top_case& c : k_top_cases) {
        SCOPED_TRACE(c.name);
        temp_dir dir;
        std::map<std::string, std::string> env{{"TARVEX_LOG_FILE_NAME", dir / "log"}};
        if (c.counting) env["TARVEX_TOP"] = "";
        if (c.no_backtrace) env["TARVEX_NOBACKTRACE"] = "";
        ops_outcome o = run_ops(c.ops, env, dir / "side");
        ASSERT_TRUE(o.child.exited_ok()) << o.child.describe();
        EXPECT_TRUE(o.side.errors.empty()) << o.side.errors.front();
        ops_setup setup;
        setup.counting = c.counting;
        expect_reports(read_file(dir / "log"), model_ops(c.ops, setup, o.side), setup, o.side.stacks,
                       o.max_elapsed);
    }
}

// A report that finds the clear-stats file deletes it, empties the per-site
// counters and writes nothing; the totals and the count of registrations
// for alloc/sec stay.
TEST(TopReport, ClearStatsFile) {
    temp_dir dir;
    const std::vector<std::string> ops{"sclear", "report:0", "a:0:10:0:4", "touch", "report:5", "a:4:20:1:2",
                                       "report:5", "touch", "report:5", "report:5"};
    ops_outcome o = run_ops(ops,
                            {{"TARVEX_LOG_FILE_NAME", dir / "log"},
                             {"TARVEX_TOP", "1"},
                             {"TARVEX_CLEAR_STATS_FILE_NAME", dir / "clear"}},
                            dir / "side");
    ASSERT_TRUE(o.child.exited_ok()) << o.child.describe();
    ops_setup setup;
    setup.counting = true;
    expect_reports(read_file(dir / "log"), model_ops(ops, setup, o.side), setup, o.side.stacks, o.max_elapsed);
    EXPECT_FALSE(file_exists(dir / "clear"));
}

// A C program's heap at main already holds the emergency pool for
// exception objects that the C++ runtime takes from malloc while it is
// loaded (72704 bytes with GCC 12 on x86-64), one block, the same as when
// that runtime is the shared library. (The program's only other block at
// that point is its thread's TLS.)
TEST(TopReport, CProgramStartsWithTheRuntimesPool) {
    temp_dir dir;
    ops_outcome o = run_ops({"report:5"}, {{"TARVEX_LOG_FILE_NAME", dir / "log"}, {"TARVEX_TOP", "1"}}, dir / "side");
    ASSERT_TRUE(o.child.exited_ok()) << o.child.describe();
    std::vector<parsed_report> reports;
    std::string error;
    std::string log = read_file(dir / "log");
    ASSERT_TRUE(parse_log(log, reports, error)) << error;
    ASSERT_EQ(reports.size(), 1u);
    ASSERT_FALSE(reports[0].by_size.empty()) << log;
    EXPECT_EQ(reports[0].by_size[0].count, 1u) << log;
    EXPECT_GE(reports[0].by_size[0].size, 64u * 1024) << log;
    EXPECT_LT(reports[0].bytes - reports[0].by_size[0].size, 4096u) << log;
}

}  // namespace
}  // namespace reports
