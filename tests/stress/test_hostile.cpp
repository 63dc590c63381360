// Hostile input: bad pointers, huge and zero sizes, early and concurrent
// control calls, odd environment values.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "stress.h"

using namespace stress;

namespace {

const std::string k_prog = "stress_hostile";

options target_options(const temp_dir& dir) { return scenario_options(tracked_env(k_prog, dir / "log", true), 60); }

// Frame lines of one stack of a block report: the lines after heading up to
// the next heading or the end.
std::vector<std::string> stack_after(const std::vector<std::string>& report, const std::string& heading) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < report.size() && report[i] != heading) ++i;
    for (++i; i < report.size() && report[i].find(" call stack:") == std::string::npos; ++i) out.push_back(report[i]);
    return out;
}

// A pointer the process never got, or one it released by resizing to 0:
// the exact messages on standard output, the C library's assertion on
// standard error, SIGABRT.
TEST(Hostile, BadPointersStopWithTheExactMessages) {
    // Interior, stack, given-back, freed and overflowing pointers are the
    // e2e group's faults; these are the other kinds of foreign pointer and
    // the release by realloc to 0.
    const char* const modes[] = {"free-misaligned",    "free-static",    "free-mmap",    "free-code",    "free-realloc0-then",
                                 "realloc-misaligned", "realloc-static", "realloc-mmap", "realloc-code", "realloc-realloc0-then"};
    temp_dir dir;
    for (const std::string mode : modes) {
        SCOPED_TRACE(mode);
        result r = run({built(k_prog), mode}, target_options(dir));
        ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
        ASSERT_EQ(r.err.rfind("ptr=0x", 0), 0u) << r.err;
        std::string ptr = r.err.substr(4, r.err.find('\n') - 4);
        bool by_realloc = mode.rfind("realloc-", 0) == 0;
        unsigned line = by_realloc ? 230 : 113;
        const char* function = by_realloc ? k_realloc : k_free;
        EXPECT_EQ(r.err, "ptr=" + ptr + "\n" + assertion(k_prog, line, function));

        std::string unknown = "Failed to find block info for 0x" + ptr + "\n";
        if (mode.find("realloc0") == std::string::npos) {
            EXPECT_EQ(r.out, unknown);
            continue;
        }
        std::string head = unknown + "*** Double free ***\nblock: 0x" + ptr +
                           ", len: 64\nmagic1: 0xcafebabe, magic2: 0xcafebabe\nalloc call stack:\n";
        ASSERT_EQ(r.out.substr(0, head.size()), head);
        std::vector<std::string> report = lines(r.out);
        std::vector<std::string> alloc = stack_after(report, "alloc call stack:");
        std::vector<std::string> release = stack_after(report, "free call stack:");
        ASSERT_GE(alloc.size(), 3u) << r.out;
        ASSERT_GE(release.size(), 3u) << r.out;
        EXPECT_NE(alloc[1].find("libtarvex.so(malloc+"), std::string::npos) << r.out;
        EXPECT_NE(alloc[2].find(k_prog + "("), std::string::npos) << r.out;
        // The free stack is the first release's: realloc to 0.
        EXPECT_NE(release[1].find("libtarvex.so(realloc+"), std::string::npos) << r.out;
        EXPECT_NE(release[2].find(k_prog + "("), std::string::npos) << r.out;
    }
}

const std::string k_empty_trace = "\n----------uid to bt----------\n\n----------trace----------\n";
const std::string k_empty_report =
    "\n----------uid to bt----------\n"
    "uid: 00000000, bt: \n\n"
    "\nMem usage: 0B (0 bytes) (alloc/sec: 0)\n"
    "----------top by count----------\n"
    "uid: 00000000, count: 0, size: 0\n"
    "----------top by size----------\n"
    "uid: 00000000, size: 0, count: 0\n"
    "-------------------------------\n";

// Calls made from the executable's pre-initialisers, before the process has
// allocated anything and before the C library has set up environ: every
// control function (the empty reports, byte for byte; they may go to
// standard output, as the log file's name cannot be read that early), or an
// allocation released later in main. The process is tracked afterwards and
// the early block is released quietly.
TEST(Hostile, CallsBeforeTheEnvironmentIsSetUpLeaveTrackingIntact) {
    temp_dir dir;
    const std::string reports = k_empty_trace + k_empty_report + k_empty_report;
    result r = run({built(k_prog), "control-first"}, target_options(dir));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    std::string log = read_file(dir / "log");
    EXPECT_TRUE((r.out == "tracked\nok\n" && log == reports) || (r.out == reports + "tracked\nok\n" && log.empty()))
        << r.describe() << "\n--- log ---\n" << log;
    EXPECT_EQ(r.err, "");
    r = run({built(k_prog), "malloc-first"}, target_options(dir));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.out, "tracked\nok\n");
    EXPECT_EQ(r.err, "");
}

enum class output_to { log, out };

struct env_case {
    const char* name;
    std::vector<std::pair<std::string, std::string>> set;  // "{dir}" stands for the temporary directory
    std::vector<std::string> unset;
    bool tracked;
    output_to where;
    size_t reports;  // top reports written (the trace dump is always written)
};

std::string expand(std::string value, const temp_dir& dir) {
    size_t at = value.find("{dir}");
    if (at != std::string::npos) value.replace(at, 5, dir.path());
    return value;
}

// Environment values that are empty, very long or not usable paths: the
// process keeps running, reports that cannot reach their file go to
// standard output, a clear-stats path that cannot be deleted consumes every
// report.
TEST(Hostile, OddEnvironmentValuesKeepTheHostRunning) {
    const std::string long_value(5000, 'x');
    const std::string long_path = "/tmp/" + long_value;
    const env_case cases[] = {
        {"plain log file", {}, {}, true, output_to::log, 2},
        {"empty log name", {{"TARVEX_LOG_FILE_NAME", ""}}, {}, true, output_to::out, 2},
        {"very long log name", {{"TARVEX_LOG_FILE_NAME", long_path}}, {}, true, output_to::out, 2},
        {"log under a regular file", {{"TARVEX_LOG_FILE_NAME", "/etc/passwd/x"}}, {}, true, output_to::out, 2},
        {"log in a missing directory", {{"TARVEX_LOG_FILE_NAME", "{dir}/missing/log"}}, {}, true, output_to::out, 2},
        {"log is a directory", {{"TARVEX_LOG_FILE_NAME", "{dir}"}}, {}, true, output_to::out, 2},
        {"empty target", {{"TARVEX_TARGET_PROC_NAME", ""}}, {}, false, output_to::log, 2},
        {"very long target", {{"TARVEX_TARGET_PROC_NAME", long_value}}, {}, false, output_to::log, 2},
        {"no target", {}, {"TARVEX_TARGET_PROC_NAME"}, false, output_to::log, 2},
        {"clear-stats path is a directory", {{"TARVEX_CLEAR_STATS_FILE_NAME", "{dir}/cleardir"}}, {}, true,
         output_to::log, 0},
        {"clear-stats file present", {{"TARVEX_CLEAR_STATS_FILE_NAME", "{dir}/clearfile"}}, {}, true, output_to::log,
         1},
        {"empty clear-stats name", {{"TARVEX_CLEAR_STATS_FILE_NAME", ""}}, {}, true, output_to::log, 2},
        {"very long clear-stats name", {{"TARVEX_CLEAR_STATS_FILE_NAME", long_path}}, {}, true, output_to::log, 2},
        {"clear-stats under a regular file", {{"TARVEX_CLEAR_STATS_FILE_NAME", "/etc/passwd/x"}}, {}, true,
         output_to::log, 2},
        {"empty TOP and NOBACKTRACE", {{"TARVEX_TOP", ""}, {"TARVEX_NOBACKTRACE", ""}}, {}, true, output_to::log, 2},
        {"no TOP", {}, {"TARVEX_TOP"}, true, output_to::log, 2},
    };
    for (const env_case& c : cases) {
        SCOPED_TRACE(c.name);
        temp_dir dir;
        ASSERT_EQ(mkdir((dir / "cleardir").c_str(), 0755), 0);
        write_file(dir / "clearfile", "");
        options o = target_options(dir);
        for (const auto& kv : c.set) o.env[kv.first] = expand(kv.second, dir);
        o.unset = c.unset;
        result r = run({built(k_prog), "report", c.tracked ? "tracked" : "untracked"}, o);
        ASSERT_TRUE(r.exited_ok()) << r.describe();
        EXPECT_EQ(r.err, "ok\n");
        std::string log = read_file(dir / "log");
        const std::string& text = c.where == output_to::log ? log : r.out;
        EXPECT_EQ((c.where == output_to::log ? r.out : log), "");
        EXPECT_EQ(count(text, "\nMem usage: "), c.reports) << text;
        EXPECT_EQ(count(text, "-------------------------------\n"), c.reports) << text;
        EXPECT_EQ(count(text, "\n----------trace----------\n"), 1u) << text;
        EXPECT_TRUE(file_exists(dir / "cleardir"));
        EXPECT_FALSE(file_exists(dir / "missing"));
        if (std::string(c.name) == "clear-stats file present") {
            EXPECT_FALSE(file_exists(dir / "clearfile"));
        }
        if (!c.tracked || std::string(c.name) == "no TOP") {
            EXPECT_EQ(count(text, "\nMem usage: 0B (0 bytes) (alloc/sec: 0)\n"), c.reports) << text;
        }
        if (std::string(c.name) == "empty TOP and NOBACKTRACE") {
            // Every stack is empty: one uid, 0, and it holds the three blocks.
            EXPECT_EQ(count(text, "uid: 00000000, bt: \n\n"), 3u) << text;
            EXPECT_NE(text.find("----------top by count----------\nuid: 00000000, count: "), std::string::npos);
            EXPECT_EQ(text.find("----------top by count----------\nuid: 00000000, count: 0,"), std::string::npos)
                << text;
        }
    }
}

}  // namespace
