// The reentrancy guard (thread_map) and the choice of the target process.
#include <signal.h>

#include "child.h"
#include "unit_support.h"

namespace {

using tarvex::thread_map;

// Inside, a second take by the same thread is refused (its nested calls
// pass straight through); leaving frees the slot. Forty threads inside at
// once: 32 in slots, 8 recorded without one, every slot free afterwards.
TEST(ThreadMap, RefusesASecondTakeAndAdmitsMoreThreadsThanSlots) {
    thread_map map;
    const int threads = 40;
    std::atomic<int> inside{0}, failures{0};
    unit::run_threads(threads, [&](int) {
        for (int round = 0; round < 200; ++round) {
            if (!map.check_and_set_current_thread()) ++failures;
            if (round == 0)
                for (++inside; inside.load() < threads;) std::this_thread::yield();
            if (map.check_and_set_current_thread() || !map.is_current_thread_inside()) ++failures;
            map.remove_current_thread();
            if (map.is_current_thread_inside()) ++failures;
        }
    });
    EXPECT_EQ(failures, 0);
    for (int i = 0; i < thread_map::k_slots; ++i) EXPECT_EQ(map.slot(i), pthread_t(0));
}

TEST(ThreadMapDeathTest, RemoveWithoutASlotStopsTheProcess) {
    thread_map map;
    EXPECT_EXIT(map.remove_current_thread(), ::testing::KilledBySignal(SIGABRT),
                "lib/trvx_util:65: void tarvex::thread_map::remove_current_thread\\(\\): "
                "Assertion `b == true' failed\\.");
}

// The name this test binary computes from /proc/self/cmdline (its first
// 511 bytes) when it runs with the given argv[0].
std::string name_seen_by_child(const std::string& argv0) {
    child::options o;
    o.exe = "/proc/self/exe";
    o.env = {{"TARVEX_UNIT_PRINT_PROC_NAME", "1"}};
    return child::run({argv0}, o).out;
}

TEST(ProcInfo, ProcessNameComesFromItsOwnArgv0) {
    const std::pair<std::string, std::string> cases[] = {
        {"/usr/sbin/server", "server"},
        {"server", "server"},
        {"/opt/tools/", ""},
        {"/opt/" + std::string(40, 'n'), std::string(31, 'n')},
        // 600 characters; only the first 511 count: the last '/' before the
        // cut leaves five characters of base name.
        {"/" + std::string(499, 'a') + "/base/" + std::string(94, 'z'), "zzzzz"},
        // 600 characters whose 511th is '/': the cut string ends in '/'.
        {std::string(510, 'd') + "/server" + std::string(83, 's'), ""},
    };
    for (const auto& c : cases) EXPECT_EQ(name_seen_by_child(c.first), c.second) << c.first.substr(0, 40);
}

// This process runs with further arguments (the test filter); only its
// argv[0] names it. The decision is made once.
TEST(ProcInfo, TargetDecisionIsMadeOnceFromTheBaseName) {
    EXPECT_STREQ(tarvex::proc_info::get_current_proc_name(), "tarvex_unit_tests");
    EXPECT_TRUE(tarvex::proc_info::is_target_proc());
    setenv("TARVEX_TARGET_PROC_NAME", "other", 1);
    EXPECT_TRUE(tarvex::proc_info::is_target_proc());
    EXPECT_STREQ(tarvex::proc_info::get_target_proc_name(), "tarvex_unit_tests");
    setenv("TARVEX_TARGET_PROC_NAME", "tarvex_unit_tests", 1);
}

}  // namespace
