// 64 threads allocating, resizing and releasing each other's blocks while
// control threads trace, report and clear; the accounting stays exact.
#include <gtest/gtest.h>

#include "runner.h"

using namespace stress;

namespace {

TEST(Threads, SixtyFourThreadsShareBlocksAndTheTotalsStayExact) {
    temp_dir dir;
    run_options o;
    o.env = {{"TARVEX_TARGET_PROC_NAME", "stress_threads"},
             {"TARVEX_TOP", "1"},
             {"TARVEX_LOG_FILE_NAME", dir.file("log")}};
    o.timeout_s = 300;
    result r = run({built("stress_threads"), "40000"}, o);
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.out, "threads: ok (2560000 operations)\n");
    EXPECT_EQ(r.err, "");
    std::string log = read_file(dir.file("log"));
    // The control threads' reports and dumps were written while the workers ran.
    EXPECT_GT(count(log, "----------top by size----------\n"), 5u);
    EXPECT_GT(count(log, "\n----------trace----------\n"), 5u);
}

// A SCHED_FIFO thread that preempts a lock's holder on the same core waits
// for it instead of spinning; a waiter that never slept would keep the
// holder off the core, and this run would not end before the time limit.
TEST(Threads, RealTimeThreadWaitsForAPreemptedLockHolder) {
    run_options o;
    o.env = {{"TARVEX_TARGET_PROC_NAME", "stress_realtime"}};
    o.timeout_s = 60;
    result r = run({built("stress_realtime"), "2000"}, o);
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    if (r.out.rfind("realtime: skipped", 0) == 0) GTEST_SKIP() << r.out;
    EXPECT_EQ(r.out, "realtime: ok\n");
    EXPECT_EQ(r.err, "");
}

}  // namespace
