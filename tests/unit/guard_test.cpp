// The reentrancy guard (thread_map) and the choice of the target process.
#include <signal.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <thread>

#include "child.h"
#include "unit_support.h"

namespace {

using tarvex::thread_map;

std::array<pthread_t, thread_map::k_slots> snapshot(const thread_map& map) {
    std::array<pthread_t, thread_map::k_slots> s;
    for (int i = 0; i < thread_map::k_slots; ++i) s[i] = map.slot(i);
    return s;
}

int slot_of(const thread_map& map, pthread_t id) {
    for (int i = 0; i < thread_map::k_slots; ++i)
        if (map.slot(i) != 0 && pthread_equal(map.slot(i), id)) return i;
    return -1;
}

// A thread that enters the guard, stays inside until told to leave, then
// releases it. The constructor returns once the thread is inside.
class holder {
public:
    explicit holder(thread_map& map) : m_map(map), m_thread([this] { run(); }) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait(lock, [this] { return m_inside; });
    }
    ~holder() { leave(); }
    void leave() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_leave = true;
        }
        m_cv.notify_all();
        if (m_thread.joinable()) m_thread.join();
    }
    pthread_t id() const { return m_id; }
    bool took = false;          // first check_and_set_current_thread()
    bool nested_took = true;    // second one, made while inside
    bool marked_inside = false;

private:
    void run() {
        m_id = pthread_self();
        took = m_map.check_and_set_current_thread();
        nested_took = m_map.check_and_set_current_thread();
        marked_inside = m_map.is_current_thread_inside();
        std::unique_lock<std::mutex> lock(m_mutex);
        m_inside = true;
        m_cv.notify_all();
        m_cv.wait(lock, [this] { return m_leave; });
        lock.unlock();
        if (took) m_map.remove_current_thread();
    }

    thread_map& m_map;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_inside = false;
    bool m_leave = false;
    pthread_t m_id{};
    std::thread m_thread;
};

std::vector<std::unique_ptr<holder>> fill(thread_map& map, int n) {
    std::vector<std::unique_ptr<holder>> holders;
    for (int i = 0; i < n; ++i) holders.push_back(std::make_unique<holder>(map));
    return holders;
}

TEST(ThreadMap, SecondTakeByTheSameThreadIsRefusedAndKeepsItsSlot) {
    thread_map map;
    ASSERT_TRUE(map.check_and_set_current_thread());
    auto before = snapshot(map);
    EXPECT_EQ(slot_of(map, pthread_self()), thread_map::k_slots - 1);  // highest free slot
    EXPECT_FALSE(map.check_and_set_current_thread());
    EXPECT_EQ(snapshot(map), before);
    map.remove_current_thread();
    EXPECT_EQ(slot_of(map, pthread_self()), -1);
    EXPECT_FALSE(map.is_current_thread_inside());
}

TEST(ThreadMap, HighestFreeSlotWinsAndRemoveClearsOnlyTheCallersSlot) {
    thread_map map;
    auto holders = fill(map, thread_map::k_slots);
    for (auto& h : holders) EXPECT_TRUE(h->took);
    for (int i = 0; i < thread_map::k_slots; ++i) EXPECT_NE(map.slot(i), pthread_t(0));

    for (int freed : {3, 17}) {
        auto before = snapshot(map);
        for (auto& h : holders)
            if (slot_of(map, h->id()) == freed) h->leave();
        before[freed] = 0;
        EXPECT_EQ(snapshot(map), before) << "slot " << freed;
    }
    holder first(map);
    EXPECT_EQ(slot_of(map, first.id()), 17);
    holder second(map);
    EXPECT_EQ(slot_of(map, second.id()), 3);
}

TEST(ThreadMap, AThirtyThirdThreadIsAdmittedWithoutASlot) {
    thread_map map;
    auto holders = fill(map, thread_map::k_slots);
    auto full = snapshot(map);
    for (auto& h : holders) {
        EXPECT_TRUE(h->took);
        EXPECT_FALSE(h->nested_took);
    }
    {
        holder extra(map);
        EXPECT_TRUE(extra.took);
        EXPECT_FALSE(extra.nested_took);  // its nested calls pass straight through
        EXPECT_TRUE(extra.marked_inside);
        EXPECT_EQ(slot_of(map, extra.id()), -1);
        EXPECT_EQ(snapshot(map), full);
        extra.leave();  // releasing without a slot does not fail
        EXPECT_EQ(snapshot(map), full);
    }
    holders.clear();
    for (int i = 0; i < thread_map::k_slots; ++i) EXPECT_EQ(map.slot(i), pthread_t(0));
}

TEST(ThreadMapDeathTest, RemoveWithoutASlotStopsTheProcess) {
    thread_map map;
    EXPECT_EXIT(map.remove_current_thread(), ::testing::KilledBySignal(SIGABRT),
                unit::literal("lib/trvx_util:65: void tarvex::thread_map::remove_current_thread(): "
                              "Assertion `b == true' failed."));
}

// Runs this test binary with the given argv[0] in child mode and returns the
// program name it computes from /proc/self/cmdline.
std::string name_seen_by_child(const std::string& argv0) {
    child::options o;
    o.exe = "/proc/self/exe";
    o.env = {{"TARVEX_UNIT_PRINT_PROC_NAME", "1"}};
    return child::run({argv0}, o).out;
}

struct name_case {
    std::string argv0;
    std::string name;
};

const std::vector<name_case>& name_cases() {
    static const std::vector<name_case> cases = {
        {"/usr/sbin/server", "server"},
        {"./server", "server"},
        {"server", "server"},
        {"/opt/tools/", ""},
        {"/opt/" + std::string(40, 'n'), std::string(31, 'n')},
        // 600 characters; only the first 511 count: the last '/' before the
        // cut leaves five characters of base name.
        {"/" + std::string(499, 'a') + "/base/" + std::string(94, 'z'), "zzzzz"},
        // 600 characters whose 511th is '/': the cut string ends in '/'.
        {std::string(510, 'd') + "/server" + std::string(83, 's'), ""},
    };
    return cases;
}

TEST(ProcInfo, BaseNameOfTheCutArgv0) {
    for (const name_case& c : name_cases()) {
        char out[32];
        memset(out, 'x', sizeof out);
        tarvex::proc_info::base_name_of(c.argv0.substr(0, 511).c_str(), out);
        EXPECT_EQ(std::string(out), c.name) << c.argv0.size() << " chars: " << c.argv0.substr(0, 40);
    }
}

TEST(ProcInfo, ProcessNameComesFromItsOwnArgv0) {
    for (const name_case& c : name_cases())
        EXPECT_EQ(name_seen_by_child(c.argv0), c.name) << c.argv0.size() << " chars: " << c.argv0.substr(0, 40);
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
