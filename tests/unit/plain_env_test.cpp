// Behaviour without any setting: no counting, reports on standard output,
// no call stacks, no target process. These tests run only in a process
// started with TARVEX_UNIT_ENV=plain (a ctest entry of its own).
#include <cstdio>

#include "unit_support.h"

namespace {

using tarvex::mem_stats;

class PlainEnv : public unit::seams {
protected:
    void SetUp() override {
        if (!unit::plain_env()) GTEST_SKIP() << "needs TARVEX_UNIT_ENV=plain";
    }
};

TEST_F(PlainEnv, EmptyNoBacktraceSettingSwitchesCaptureOff) {
    EXPECT_FALSE(tarvex::proc_info::is_target_proc());
    tarvex::backtrace bt;
    EXPECT_EQ(bt.get_bt_len(), 0);
    EXPECT_EQ(bt.get_cookie(), 0u);
    tarvex::backtrace_symbols_cache cache;
    cache.update_bt_cache(bt);
    EXPECT_EQ(cache.bt_cache_size(), 0u);
}

TEST_F(PlainEnv, RegistryWorksWithoutCountingOrPeriodicReports) {
    mem_stats stats;
    ::testing::internal::CaptureStdout();
    unit::g_now = 1011;
    tarvex::block_info bi = unit::make_block(unit::fake_addr(1), 100, 7);
    stats.insert_block_info(bi);
    unit::g_now = 5000;
    bi.m_addr = unit::fake_addr(2);
    stats.insert_block_info(bi);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(stats.live_block_count(), 2u);
    EXPECT_TRUE(stats.m_uid_stats.empty());
    EXPECT_EQ(stats.total_size(), 0u);
    EXPECT_EQ(stats.total_count(), 0u);
    EXPECT_TRUE(stats.find_and_remove_block_info(unit::fake_addr(1), bi));
    EXPECT_EQ(stats.total_size(), 0u);
    EXPECT_EQ(stats.m_last_dump_time, 1000);
}

TEST_F(PlainEnv, ReportsGoToStandardOutputWhichStaysOpen) {
    mem_stats stats;
    tarvex::backtrace no_stack;
    stats.trace_start();
    tarvex::block_info bi = unit::make_block(unit::fake_addr(1), 40, no_stack.get_cookie());
    stats.insert_block_info(bi);
    bi.m_free_uid = no_stack.get_cookie();
    stats.delayed_free(bi);

    ::testing::internal::CaptureStdout();
    stats.trace_dump();
    stats.dump_alloc_stats(20);
    EXPECT_GT(printf("still open\n"), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "\n----------uid to bt----------\n"
              "uid: 00000000, bt: \n\n"
              "\n----------trace----------\n"
              "alloc_uid: 00000000, free_uid: 00000000, size: 40\n"
              "alloc_uid: 00000000, free_uid: 00000000, size: 40\n"
              "\n----------uid to bt----------\n"
              "uid: 00000000, bt: \n\n"
              "\nMem usage: 0B (0 bytes) (alloc/sec: 0)\n"
              "----------top by count----------\n"
              "uid: 00000000, count: 0, size: 0\n"
              "----------top by size----------\n"
              "uid: 00000000, size: 0, count: 0\n"
              "-------------------------------\n"
              "still open\n");
}

}  // namespace
