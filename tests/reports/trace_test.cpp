// Trace dumps written by a child program, byte for byte. The expected text
// is computed from the operations the program ran and the call stacks it
// read back from its blocks' footers (frames 0 and 1 are tarvex's own).
#include <gtest/gtest.h>

#include "support.h"

namespace reports {
namespace {

struct trace_case {
    const char* name;
    std::vector<std::string> ops;
    bool no_backtrace;
};

const trace_case k_trace_cases[] = {
    {"empty list", {"start", "stop", "dump"}, false},
    {"alloc and free", {"start", "a:0:24:0", "f:0", "stop", "dump"}, false},
    {"three blocks of one site", {"start", "a:0:16:1:3", "f:0:3", "stop", "dump"}, false},
    {"other thread, before and after the trace",
     {"a:0:10:0", "start", "wa:1:32", "a:2:20:1", "wf:1", "stop", "a:3:30:2", "f:0", "dump"}, false},
    {"release of another thread's older block", {"wa:0:40", "start", "f:0", "stop", "dump"}, false},
    {"realloc", {"a:0:24:0", "start", "r:0:100", "stop", "dump"}, false},
    {"repeated dumps, clear, tracked after a dump",
     {"start", "a:0:8:0", "dump", "dump", "tclear", "dump", "a:1:4096:1", "f:1", "stop", "dump"}, false},
    {"no backtraces", {"start", "a:0:24:0", "a:1:48:3", "f:0", "stop", "dump"}, true},
};

TEST(TraceDump, MatchesTheOperations) {
    for (const trace_case& c : k_trace_cases) {
        SCOPED_TRACE(c.name);
        temp_dir dir;
        std::map<std::string, std::string> env{{"TARVEX_LOG_FILE_NAME", dir / "log"}};
        if (c.no_backtrace) env["TARVEX_NOBACKTRACE"] = "";
        ops_outcome o = run_ops(c.ops, env, dir / "side");
        ASSERT_TRUE(o.child.exited_ok()) << o.child.describe();
        EXPECT_EQ(o.child.out, "");
        EXPECT_TRUE(o.side.errors.empty()) << o.side.errors.front();
        ops_setup setup;
        expect_reports(read_file(dir / "log"), model_ops(c.ops, setup, o.side), setup, o.side.stacks,
                       o.max_elapsed);
    }
}

// Without a usable log file name the dump goes to standard output; a log
// file is appended to, never truncated.
TEST(TraceDump, OutputDestination) {
    const std::vector<std::string> ops{"start", "a:0:24:0", "stop", "dump", "dump"};
    temp_dir dir;
    struct destination {
        const char* name;
        const char* log;  // nullptr: not set
        bool to_stdout;
    } const k_destinations[] = {
        {"no log file name", nullptr, true},
        {"log file in a missing directory", "missing/log", true},
        {"log file", "log", false},
        {"log file, second run", "log", false},
    };
    write_file(dir / "log", "earlier text\n");
    std::string appended = "earlier text\n";
    for (const destination& d : k_destinations) {
        SCOPED_TRACE(d.name);
        std::map<std::string, std::string> env;
        if (d.log) env["TARVEX_LOG_FILE_NAME"] = dir / d.log;
        ops_outcome o = run_ops(ops, env, dir / "side");
        ASSERT_TRUE(o.child.exited_ok()) << o.child.describe();
        ops_setup setup;
        std::vector<expected_report> expected = model_ops(ops, setup, o.side);
        ASSERT_EQ(expected.size(), 2u);
        std::string dumps = expected[0].text + expected[1].text;
        if (d.to_stdout) {
            EXPECT_EQ(o.child.out, dumps);
        } else {
            EXPECT_EQ(o.child.out, "");
            appended += dumps;
            EXPECT_EQ(read_file(dir / "log"), appended);
        }
    }
    EXPECT_FALSE(file_exists(dir / "missing"));
}

}  // namespace
}  // namespace reports
