// Runs the scenario programs (scenarios.c, scenarios.cpp) as child processes
// with libtarvex.so preloaded, and checks their output, exit status and log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>

#include "child.h"
#include "expected.h"

using namespace child;

namespace {

std::string built(const std::string& name) { return std::string(STRESS_BIN_DIR) + "/" + name; }

result run_scenario(std::vector<std::string> argv, const env_map& env, unsigned timeout_s = 60,
                    const std::string& preload_behind = "") {
    options o;
    o.preload = STRESS_LIBTARVEX + preload_behind;
    o.env = env;
    o.timeout_s = timeout_s;
    argv[0] = built(argv[0]);
    return run(argv, o);
}

struct scenario {
    const char* name;
    std::vector<std::string> argv;  // argv[0]: stress_c or stress_cpp, also the target
    const char* out;
    bool target, log;  // log: a log file, and counting on
    unsigned timeout_s;
    size_t tops, traces;  // in the log: at least, or exactly when exact
    bool exact;
    const char* log_has;  // a pattern the log must contain, or nullptr
};

void PrintTo(const scenario& s, std::ostream* os) { *os << s.name; }

const scenario k_scenarios[] = {
    // 100 forks while threads allocate, report and trace; every child works
    // at once and exits 0, and both reach the log. The spawn family runs too.
    {"fork", {"stress_cpp", "fork", "100"}, "fork: ok\n", true, true, 120, 100, 100, false, nullptr},
    {"threads", {"stress_cpp", "threads", "40000"}, "threads: ok (2560000 operations)\n", true, true, 300, 6, 6,
     false, nullptr},
    {"realtime", {"stress_cpp", "realtime", "5000"}, "realtime: ok\n", true, false, 60, 0, 0, false, nullptr},
    {"signal", {"stress_cpp", "signal"}, "signal: ok\n", true, true, 120, 0, 0, false, nullptr},
    {"dlopen", {"stress_cpp", "dlopen"}, "dlopen: ok\n", true, true, 120, 6, 51, true, nullptr},
    // The trace that main started records the atexit handler's release,
    // and the handler's report is written.
    {"exit", {"stress_cpp", "exit"}, "exit: main returns\n", true, true, 60, 1, 1, true, "free_uid: \\w{8}, size: 60\n"},
    // Target or not, the first free inside dlsym must not resolve itself.
    {"dlsym_target", {"stress_c", "dlsym"}, "dlsym: ok\n", true, false, 60, 0, 0, false, nullptr},
    {"dlsym_no_target", {"stress_c", "dlsym"}, "dlsym: ok\n", false, false, 60, 0, 0, false, nullptr},
    {"atfork", {"stress_c", "atfork"}, "atfork: ok\n", true, false, 60, 0, 0, false, nullptr},
};

class Scenario : public ::testing::TestWithParam<scenario> {};

TEST_P(Scenario, PrintsItsSuccessLineAlone) {
    const scenario& s = GetParam();
    temp_dir dir;
    env_map env = s.target ? tracked_env(s.argv[0], s.log ? dir / "log" : "", s.log) : env_map{};
    result r = run_scenario(s.argv, env, s.timeout_s);
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    if (r.out.rfind("realtime: skipped", 0) == 0) GTEST_SKIP() << r.out;
    EXPECT_EQ(r.out, s.out);
    EXPECT_EQ(r.err, "");
    std::string log = read_file(dir / "log");
    size_t tops = count(log, "----------top by size----------\n"), traces = count(log, "\n----------trace----------\n");
    EXPECT_TRUE(s.exact ? tops == s.tops && traces == s.traces : tops >= s.tops && traces >= s.traces)
        << tops << " top reports, " << traces << " traces";
    EXPECT_TRUE(!s.log_has || std::regex_search(log, std::regex(s.log_has))) << log;
}

INSTANTIATE_TEST_SUITE_P(Stress, Scenario, ::testing::ValuesIn(k_scenarios),
                         [](const ::testing::TestParamInfo<scenario>& info) { return std::string(info.param.name); });

// A double free in an atexit handler stops the process like one in main.
TEST(Lifecycle, DoubleFreeAfterMainReturnsIsReported) {
    result r = run_scenario({"stress_cpp", "exit-double-free"}, tracked_env("stress_cpp"));
    ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
    std::vector<std::string> l = lines(r.out);
    ASSERT_GE(l.size(), 4u) << r.out;
    EXPECT_EQ(l[0], "exit: main returns");
    EXPECT_EQ(l[1].rfind("Failed to find block info for 0x0x", 0), 0u) << r.out;
    EXPECT_EQ(l[2], "*** Double free ***");
    EXPECT_NE(l[3].find(", len: 60"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, assertion("stress_cpp", 113, k_free));
}

// Faults that meet: two threads release one block at once (one release
// succeeds, the other is reported as an unknown pointer or, once the block
// waits in the quarantine, as a double free), or four threads hit four
// faults at once. Exactly one complete report stops the process.
TEST(Races, OneCompleteReportPerProcess) {
    static const std::regex frame("[^\n]*\\[0x[0-9a-f]+\\]");
    for (const char* mode : {"same-block", "four-faults"}) {
        for (int round = 0; round < 10; ++round) {
            SCOPED_TRACE(mode);
            result r = run_scenario({"stress_cpp", mode}, tracked_env("stress_cpp"));
            ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
            std::string pointers = r.err.substr(0, r.err.find('\n') + 1);
            std::vector<std::string> l = lines(r.out);
            ASSERT_FALSE(l.empty());
            bool footer = l[0] == "*** Failed to verify the footer ***";
            EXPECT_EQ(r.err, pointers + assertion("stress_cpp", footer ? 125 : 113, k_free));
            EXPECT_EQ(count(r.out, "Failed to find block info") + count(r.out, "*** Failed to verify"), 1u) << r.out;
            if (mode == std::string("same-block")) {
                std::string a = pointers.substr(2, pointers.size() - 3);
                EXPECT_EQ(l[0], "Failed to find block info for 0x" + a);
                EXPECT_TRUE(l.size() == 1 || l[2].rfind("block: 0x" + a + ",", 0) == 0) << r.out;
            }
            if (l.size() == 1) continue;  // an unknown pointer
            // The block, both stacks, every frame line a symbol line and
            // nothing else mixed in.
            size_t i = footer ? 1 : 2;
            EXPECT_TRUE(footer || l[1] == "*** Double free ***") << r.out;
            EXPECT_EQ(l[i + 1], footer ? "magic1: 0xcafeba41, magic2: 0xcafebabe" : "magic1: 0xcafebabe, magic2: 0xcafebabe");
            EXPECT_EQ(l[i + 2], "alloc call stack:") << r.out;
            size_t frames = 0;
            for (size_t j = i + 3; j < l.size(); ++j) {
                if (l[j] == "free call stack:") continue;
                EXPECT_TRUE(std::regex_match(l[j], frame)) << l[j];
                ++frames;
            }
            EXPECT_EQ(count(r.out, "call stack:\n"), 2u) << r.out;
            EXPECT_GE(frames, 6u) << r.out;
        }
    }
}

// ---------------------------------------------------------------- allocation failure

result run_failing(const std::string& mode, long fail_at, const temp_dir& dir, long fail_run = 1) {
    env_map env = tracked_env("stress_c", dir / "log", true);
    env["STRESS_FAIL_AT"] = std::to_string(fail_at);
    env["STRESS_FAIL_RUN"] = std::to_string(fail_run);
    return run_scenario({"stress_c", mode}, env, 60, " " + built("libfailing.so"));
}

std::string refusal(long n) { return "failing: request " + std::to_string(n) + " refused\n"; }

// libfailing.so refuses the Nth request of allocation, resize, release, the
// aligned family, a trace dump and a top report, for every N, and also the
// Nth and the next (so that the exception that a refused request of the
// library's bookkeeping throws finds no memory either): the program gets
// null with ENOMEM or its request succeeds, nothing crashes or hangs, and
// the registry and counters match what it holds (the scenario checks).
TEST(Oom, EveryRefusedRequestLeavesTheLibraryConsistent) {
    temp_dir dir;
    const std::regex ok("oom: ok \\((\\d+) requests\\)\n");
    std::smatch m;
    result reference = run_failing("oom", 0, dir);
    ASSERT_TRUE(reference.exited_ok()) << reference.describe();
    ASSERT_TRUE(std::regex_match(reference.out, m, ok)) << reference.out;
    long requests = std::stol(m[1]);
    ASSERT_GT(requests, 100);
    for (long run : {1, 2}) {
        for (long n = 1; n <= requests; ++n) {
            SCOPED_TRACE("requests " + std::to_string(n) + " to " + std::to_string(n + run - 1) + " refused");
            result r = run_failing("oom", n, dir, run);
            ASSERT_TRUE(r.exited_ok()) << r.describe();
            // A refused request can change the path taken and the number of
            // requests; a report whose log could not be opened goes to
            // standard output.
            size_t last = r.out.rfind("oom: ok (");
            ASSERT_NE(last, std::string::npos) << r.out;
            std::string tail = r.out.substr(last);
            ASSERT_TRUE(std::regex_match(tail, m, ok)) << r.out;
            EXPECT_TRUE(last == 0 || r.out.rfind("\n----------uid to bt----------\n", 0) == 0) << r.out;
            std::string refusals;
            for (long k = n; k < n + run && k <= std::stol(m[1]); ++k) refusals += refusal(k);
            EXPECT_EQ(r.err, refusals);
        }
    }
}

// A double free whose block report is built while a request is refused
// stops the process as usual; the report keeps its first two lines and is a
// subset of the full one (symbol lines may be missing).
TEST(Oom, FaultReportUnderRefusalStillStopsCleanly) {
    temp_dir dir;
    auto normalised = [](const std::string& text) {
        std::vector<std::string> out;
        for (const std::string& line : lines(text)) out.push_back(std::regex_replace(line, std::regex("(0x)+[0-9a-f]+"), "0x?"));
        return out;
    };
    const std::string stop = assertion("stress_c", 113, k_free);
    result reference = run_failing("oom-fault", 0, dir);
    ASSERT_TRUE(reference.killed_by(SIGABRT)) << reference.describe();
    ASSERT_EQ(reference.err, stop);
    std::vector<std::string> full = normalised(reference.out);
    ASSERT_GE(full.size(), 6u) << reference.out;
    EXPECT_EQ(full[2], "block: 0x?, len: 24");
    long n = 1;
    for (;; ++n) {
        ASSERT_LT(n, 500) << "the report never stops making requests";
        SCOPED_TRACE("request " + std::to_string(n) + " refused");
        result r = run_failing("oom-fault", n, dir);
        ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
        if (r.err == stop) break;  // past the report's last request
        // glibc's assertion message needs memory too; without it glibc
        // writes a fixed text.
        EXPECT_TRUE(r.err == refusal(n) + stop || r.err == refusal(n) + "Unexpected error.\n") << r.err;
        std::vector<std::string> got = normalised(r.out);
        ASSERT_GE(got.size(), 2u) << r.out;
        EXPECT_EQ(got[0], full[0]);
        EXPECT_EQ(got[1], full[1]);
        size_t j = 0;  // got is a subsequence of full
        for (const std::string& line : got) {
            while (j < full.size() && full[j] != line) ++j;
            ASSERT_LT(j++, full.size()) << r.out << "\nreference:\n" << reference.out;
        }
    }
    EXPECT_GT(n, 3);
}

// ---------------------------------------------------------------- hostile input

const std::string k_empty_trace = "\n----------uid to bt----------\n\n----------trace----------\n";

// Every control function, an allocation released later, or free(NULL)
// (which builds the context as any first call does), from the
// executable's pre-initialisers, before the C library has set up environ:
// the empty reports, byte for byte (on standard output if the log file's
// name cannot be read yet); the process is tracked afterwards and the early
// block is released quietly.
TEST(Hostile, CallsBeforeTheEnvironmentIsSetUpLeaveTrackingIntact) {
    temp_dir dir;
    const std::string& empty = expected::k_empty_top_report;
    const std::string reports = k_empty_trace + empty + empty;
    result r = run_scenario({"stress_c", "control-first"}, tracked_env("stress_c", dir / "log", true));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    std::string log = read_file(dir / "log");
    EXPECT_TRUE((r.out == "tracked\nok\n" && log == reports) || (r.out == reports + "tracked\nok\n" && log.empty()))
        << r.describe() << "\n--- log ---\n" << log;
    EXPECT_EQ(r.err, "");
    for (const char* first : {"malloc-first", "free-null-first"}) {
        r = run_scenario({"stress_c", first}, tracked_env("stress_c", dir / "log", true));
        ASSERT_TRUE(r.exited_ok()) << r.describe();
        EXPECT_EQ(r.out, "tracked\nok\n");
        EXPECT_EQ(r.err, "");
    }
}

// Environment values that are empty, very long or not usable paths keep the
// process running: reports that cannot reach their file go to standard
// output, a clear-stats path that cannot be deleted consumes every report.
TEST(Hostile, OddEnvironmentValuesKeepTheHostRunning) {
    const std::string long_value(5000, 'x'), long_path = "/tmp/" + long_value;
    struct env_case {
        const char* variable;
        std::string value;  // "{dir}" stands for the temporary directory; null: unset
        bool tracked, to_stdout;
        size_t reports;  // top reports written (the trace dump always is)
    };
    const env_case cases[] = {
        {"TARVEX_LOG_FILE_NAME", "", true, true, 2},
        {"TARVEX_LOG_FILE_NAME", long_path, true, true, 2},
        {"TARVEX_LOG_FILE_NAME", "{dir}", true, true, 2},
        {"TARVEX_TARGET_PROC_NAME", "", false, false, 2},
        {"TARVEX_TARGET_PROC_NAME", long_value, false, false, 2},
        {"TARVEX_TARGET_PROC_NAME", "\1unset", false, false, 2},
        {"TARVEX_CLEAR_STATS_FILE_NAME", "{dir}/cleardir", true, false, 0},
        {"TARVEX_CLEAR_STATS_FILE_NAME", "", true, false, 2},
        {"TARVEX_CLEAR_STATS_FILE_NAME", long_path, true, false, 2},
    };
    for (const env_case& c : cases) {
        SCOPED_TRACE(std::string(c.variable) + "=" + c.value.substr(0, 20));
        temp_dir dir;
        ASSERT_EQ(mkdir((dir / "cleardir").c_str(), 0755), 0);
        options o;
        o.preload = STRESS_LIBTARVEX;
        o.env = tracked_env("stress_c", dir / "log", true);
        std::string value = c.value.rfind("{dir}", 0) == 0 ? dir.path() + c.value.substr(5) : c.value;
        if (value == "\1unset")
            o.unset = {c.variable};
        else
            o.env[c.variable] = value;
        result r = run({built("stress_c"), "report", c.tracked ? "tracked" : "untracked"}, o);
        ASSERT_TRUE(r.exited_ok()) << r.describe();
        EXPECT_EQ(r.err, "ok\n");
        std::string log = read_file(dir / "log");
        const std::string& text = c.to_stdout ? r.out : log;
        EXPECT_EQ(c.to_stdout ? log : r.out, "");
        EXPECT_EQ(count(text, "\nMem usage: "), c.reports) << text;
        EXPECT_EQ(count(text, "-------------------------------\n"), c.reports) << text;
        EXPECT_EQ(count(text, "\n----------trace----------\n"), 1u) << text;
        EXPECT_TRUE(file_exists(dir / "cleardir"));
        EXPECT_EQ(count(text, "\nMem usage: 0B (0 bytes) (alloc/sec: 0)\n"), c.tracked ? 0 : c.reports) << text;
    }
}

}  // namespace
