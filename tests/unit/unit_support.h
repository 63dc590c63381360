// Shared helpers of the unit tests: the environment main chose, a fake clock
// and a fake symbolizer behind the library's test seams, fake blocks.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "trvx_stat.h"
#include "trvx_util.h"

namespace unit {

// main sets TARVEX_TOP="", a log file and a clear-stats path of this process
// and TARVEX_TARGET_PROC_NAME=tarvex_unit_tests.
const std::string& log_path();
std::string read_file(const std::string& path);  // "" when missing
void remove_file(const std::string& path);

// Fake block addresses: the store never touches block memory.
inline void* fake_addr(uintptr_t n) { return reinterpret_cast<void*>(0x10000000u + n * 16); }
tarvex::block_info make_block(void* addr, size_t size, uint32_t alloc_uid, uint32_t free_uid = 0);
// A stack of n made-up return addresses, distinct for distinct seeds.
std::vector<void*> fake_frames(int n, uintptr_t seed);

// The symbolizer seam: line i of every stack is "L<i>"; failing_symbolizer
// returns null as backtrace_symbols does when it runs out of memory.
char** fake_symbolizer(void* const* frames, int n);
char** failing_symbolizer(void* const* frames, int n);
extern std::atomic<int> g_symbolizer_calls;
std::vector<void*> last_symbolized();  // frames of the latest call

extern std::atomic<time_t> g_now;  // the clock seam's time

// Installs the fake symbolizer and the fake clock (at 1000) for one test,
// before the fixture's members are built, and restores the defaults
// afterwards. Removes the log and clear-stats files on both ends.
class seams : public ::testing::Test {
protected:
    seams();
    ~seams() override;
};

// Runs body(i) on n threads that start together.
template <class F>
void run_threads(int n, F body) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back([&, i] {
            for (++ready; ready.load() < n;) std::this_thread::yield();
            body(i);
        });
    for (std::thread& t : threads) t.join();
}

}  // namespace unit
