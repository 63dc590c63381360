// The reentrancy guard (thread_map) and the choice of the target process.
#include <signal.h>

#include "child.h"
#include "unit_support.h"

namespace {

using tarvex::thread_map;

// Inside, a second take by the same thread is refused (its nested calls
// pass straight through) and leaves its slot alone; leaving frees it. More
// threads than slots are the concurrency tests' part.
TEST(ThreadMap, SecondTakeByTheSameThreadIsRefused) {
    thread_map map;
    ASSERT_TRUE(map.check_and_set_current_thread());
    EXPECT_TRUE(map.is_current_thread_inside());
    EXPECT_FALSE(map.check_and_set_current_thread());
    EXPECT_TRUE(map.is_current_thread_inside());
    map.remove_current_thread();
    EXPECT_FALSE(map.is_current_thread_inside());
    for (int i = 0; i < thread_map::k_slots; ++i) EXPECT_EQ(map.slot(i), pthread_t(0));
}

TEST(ThreadMapDeathTest, RemoveWithoutASlotStopsTheProcess) {
    thread_map map;
    EXPECT_EXIT(map.remove_current_thread(), ::testing::KilledBySignal(SIGABRT),
                unit::literal("lib/trvx_util:65: void tarvex::thread_map::remove_current_thread(): "
                              "Assertion `b == true' failed."));
}

// Runs this test binary with the given argv[0] in child mode and returns the
// program name it computes from /proc/self/cmdline (its first 511 bytes).
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
    for (const auto& c : cases)
        EXPECT_EQ(name_seen_by_child(c.first), c.second) << c.first.size() << " chars: " << c.first.substr(0, 40);
}

TEST(ProcInfo, TargetDecisionIsMadeOnceFromTheBaseName) {
    // This process runs with further arguments (the test filter); only its
    // argv[0] names it.
    EXPECT_STREQ(tarvex::proc_info::get_current_proc_name(), "tarvex_unit_tests");
    EXPECT_STREQ(tarvex::proc_info::get_target_proc_name(), "tarvex_unit_tests");
    EXPECT_TRUE(tarvex::proc_info::is_target_proc());
    setenv("TARVEX_TARGET_PROC_NAME", "other", 1);
    EXPECT_TRUE(tarvex::proc_info::is_target_proc());
    EXPECT_STREQ(tarvex::proc_info::get_target_proc_name(), "tarvex_unit_tests");
    setenv("TARVEX_TARGET_PROC_NAME", "tarvex_unit_tests", 1);
}

}  // namespace
