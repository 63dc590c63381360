// Hostile input: calls before the environment exists, odd environment
// values. (Bad pointers and edge sizes are the e2e group's.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "expected.h"
#include "stress.h"

using namespace stress;

namespace {

const std::string k_prog = "stress_hostile";

options target_options(const temp_dir& dir) { return scenario_options(tracked_env(k_prog, dir / "log", true), 60); }

const std::string k_empty_trace = "\n----------uid to bt----------\n\n----------trace----------\n";
const std::string& k_empty_report = expected::k_empty_top_report;

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
        {"empty log name", {{"TARVEX_LOG_FILE_NAME", ""}}, {}, true, output_to::out, 2},
        {"very long log name", {{"TARVEX_LOG_FILE_NAME", long_path}}, {}, true, output_to::out, 2},
        {"log is a directory", {{"TARVEX_LOG_FILE_NAME", "{dir}"}}, {}, true, output_to::out, 2},
        {"empty target", {{"TARVEX_TARGET_PROC_NAME", ""}}, {}, false, output_to::log, 2},
        {"very long target", {{"TARVEX_TARGET_PROC_NAME", long_value}}, {}, false, output_to::log, 2},
        {"no target", {}, {"TARVEX_TARGET_PROC_NAME"}, false, output_to::log, 2},
        {"clear-stats path is a directory", {{"TARVEX_CLEAR_STATS_FILE_NAME", "{dir}/cleardir"}}, {}, true,
         output_to::log, 0},
        {"empty clear-stats name", {{"TARVEX_CLEAR_STATS_FILE_NAME", ""}}, {}, true, output_to::log, 2},
        {"very long clear-stats name", {{"TARVEX_CLEAR_STATS_FILE_NAME", long_path}}, {}, true, output_to::log, 2},
    };
    for (const env_case& c : cases) {
        SCOPED_TRACE(c.name);
        temp_dir dir;
        ASSERT_EQ(mkdir((dir / "cleardir").c_str(), 0755), 0);
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
        if (!c.tracked) {
            EXPECT_EQ(count(text, "\nMem usage: 0B (0 bytes) (alloc/sec: 0)\n"), c.reports) << text;
        }
    }
}

}  // namespace
