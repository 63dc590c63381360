// Scenarios that check themselves: fork and exec from a busy process, many
// threads sharing blocks, a real-time thread, signal handlers, libraries
// loaded at run time. Each must print exactly its success line, write
// nothing on standard error and exit 0; some also leave a known number of
// reports in the log.
#include "stress.h"

using namespace stress;

namespace {

struct scenario {
    const char* name;
    std::vector<std::string> argv;  // argv[0]: a program built next to the tests
    const char* out;
    const char* target;  // nullptr: TARVEX_TARGET_PROC_NAME unset
    bool log;            // a log file, and counting on
    unsigned timeout_s;
    // Top reports and trace dumps in the log: at least, or exactly when
    // exact; no log file when both are 0.
    size_t tops, traces;
    bool exact;
};

void PrintTo(const scenario& s, std::ostream* os) { *os << s.name; }

const scenario k_scenarios[] = {
    // 100 forks while four threads allocate and two write reports and trace
    // dumps; every child works at once and exits 0, and the spawn family
    // (vfork + exec, posix_spawn, system, fork + exec) runs every 25 forks.
    // The reports of parent and children reach the log.
    {"fork", {"stress_fork", "fork", "100"}, "fork: ok\n", "stress_fork", true, 120, 100, 100, false},
    // 64 threads allocate, resize and release each other's blocks while
    // control threads trace, report and clear; the accounting stays exact.
    {"threads", {"stress_threads", "40000"}, "threads: ok (2560000 operations)\n", "stress_threads", true, 300, 6, 6, false},
    // A SCHED_FIFO thread that preempts a lock's holder on the same core
    // waits for it instead of spinning; a waiter that never slept would keep
    // the holder off the core, and the run would not end in time.
    {"realtime", {"stress_realtime", "2000"}, "realtime: ok\n", "stress_realtime", false, 60, 0, 0, false},
    // Control functions from signal handlers that interrupt threads inside
    // the library (tracked work, a trace dump, a top report): no deadlock,
    // and the guard is intact afterwards.
    {"signal", {"stress_lifecycle", "signal"}, "signal: ok\n", "stress_lifecycle", true, 120, 0, 0, false},
    {"usable", {"stress_lifecycle", "usable"}, "usable: ok\n", "stress_lifecycle", true, 120, 0, 0, false},
    // The same from handlers that run on a thread inside fork, while the
    // library holds its locks for the fork.
    {"fork_signal", {"stress_lifecycle", "fork-signal"}, "fork-signal: ok\n", "stress_lifecycle", true, 60, 0, 0,
     false},
    // The plugin loaded and closed 50 times; blocks cross between program
    // and plugin and outlive it; reports symbolise stacks into the unloaded
    // plugin. With RTLD_DEEPBIND too, which the library drops.
    {"dlopen_now", {"stress_lifecycle", "dlopen", "now"}, "dlopen: ok\n", "stress_lifecycle", true, 120, 6, 51, true},
    {"dlopen_deepbind", {"stress_lifecycle", "dlopen", "deepbind"}, "dlopen: ok\n", "stress_lifecycle", true, 120, 6, 51,
     true},
    // A failed dlsym, then a second dlsym before the process's first free:
    // glibc frees the first message inside the second call, and that free
    // must not resolve itself with dlsym there. Target or not.
    {"dlsym_target", {"stress_dlsym"}, "ok\n", "stress_dlsym", false, 120, 0, 0, false},
    {"dlsym_no_target", {"stress_dlsym"}, "ok\n", nullptr, false, 120, 0, 0, false},
    // A library's fork handlers, registered before tarvex's, allocate and
    // release inside the fork: no deadlock, and their blocks are tracked.
    {"atfork_early", {"stress_atfork"}, "atfork: ok\n", "stress_atfork", false, 60, 0, 0, false},
};

class Scenario : public ::testing::TestWithParam<scenario> {};

TEST_P(Scenario, PrintsItsSuccessLineAlone) {
    const scenario& s = GetParam();
    temp_dir dir;
    env_map env = s.target ? tracked_env(s.target, s.log ? dir / "log" : "") : env_map{};
    if (s.log) env["TARVEX_TOP"] = "1";
    std::vector<std::string> argv = s.argv;
    argv[0] = built(argv[0]);
    result r = run(argv, scenario_options(env, s.timeout_s));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    if (r.out.rfind("realtime: skipped", 0) == 0) GTEST_SKIP() << r.out;
    EXPECT_EQ(r.out, s.out);
    EXPECT_EQ(r.err, "");
    if (s.tops == 0 && s.traces == 0) return;
    std::string log = read_file(dir / "log");
    size_t tops = count(log, "----------top by size----------\n"), traces = count(log, "\n----------trace----------\n");
    if (s.exact) {
        EXPECT_EQ(tops, s.tops);
        EXPECT_EQ(traces, s.traces);
    } else {
        EXPECT_GE(tops, s.tops);
        EXPECT_GE(traces, s.traces);
    }
}

INSTANTIATE_TEST_SUITE_P(Stress, Scenario, ::testing::ValuesIn(k_scenarios),
                         [](const ::testing::TestParamInfo<scenario>& info) { return std::string(info.param.name); });

// Blocks released by atexit handlers, static and thread-local destructors
// and destructor functions are released like any other; a report from an
// atexit handler is written.
TEST(Lifecycle, ReleasesAfterMainReturns) {
    temp_dir dir;
    result r = run({built("stress_lifecycle"), "exit"}, scenario_options(tracked_env("stress_lifecycle", dir / "log", true)));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.out, "exit: main returns\n");
    EXPECT_EQ(r.err, "");
    std::string log = read_file(dir / "log");
    EXPECT_EQ(count(log, "\n----------trace----------\n"), 1u) << log;
    EXPECT_NE(log.find("\n----------trace----------\nalloc_uid: "), std::string::npos) << log;
    EXPECT_NE(log.find(", size: 60\n"), std::string::npos) << log;  // the atexit handler's release
    EXPECT_EQ(count(log, "-------------------------------\n"), 1u) << log;
}

// A double free in an atexit handler stops the process like one in main.
TEST(Lifecycle, DoubleFreeAfterMainReturnsIsReported) {
    temp_dir dir;
    result r = run({built("stress_lifecycle"), "exit-double-free"},
                   scenario_options(tracked_env("stress_lifecycle", dir / "log", true)));
    ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
    std::vector<std::string> l = lines(r.out);
    ASSERT_GE(l.size(), 5u) << r.out;
    EXPECT_EQ(l[0], "exit: main returns");
    EXPECT_EQ(l[1].rfind("Failed to find block info for 0x0x", 0), 0u) << r.out;
    EXPECT_EQ(l[2], "*** Double free ***");
    EXPECT_NE(l[3].find(", len: 60"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, assertion("stress_lifecycle", 113, k_free));
}

}  // namespace
