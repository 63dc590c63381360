// Shared helpers of the unit tests: the environment that main chose, files,
// a fake clock and a fake symbolizer behind the library's test seams, and
// small thread utilities.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "trvx_stat.h"
#include "trvx_util.h"

namespace unit {

// main sets TARVEX_TOP="", a log file and a clear-stats path of this process
// and TARVEX_TARGET_PROC_NAME=tarvex_unit_tests.
const std::string& log_path();
const std::string& clear_path();

std::string read_file(const std::string& path);  // "" when missing
void remove_file(const std::string& path);

// Fake block addresses: the store never touches block memory.
inline void* fake_addr(uintptr_t n) { return reinterpret_cast<void*>(0x10000000u + n * 16); }
tarvex::block_info make_block(void* addr, size_t size, uint32_t alloc_uid, uint32_t free_uid = 0);

// A stack of n made-up return addresses, distinct for distinct seeds.
std::vector<void*> fake_frames(int n, uintptr_t seed);

// The symbolizer seam: line i of every stack is "L<i>". The array is one
// malloc'ed block, as the C library's backtrace_symbols returns it, because
// the cache frees it.
char** make_symbol_array(const std::vector<std::string>& lines);
char** fake_symbolizer(void* const* frames, int n);
char** failing_symbolizer(void* const* frames, int n);
extern std::atomic<int> g_symbolizer_calls;
std::vector<void*> last_symbolized();  // frames of the latest call

// The clock seam.
extern std::atomic<time_t> g_now;
time_t fake_clock(time_t*);

// Installs the fake symbolizer and the fake clock (at 1000) for one test,
// before the fixture's members are built, and restores the defaults
// afterwards. Removes the log and clear-stats files on both ends.
class seams : public ::testing::Test {
protected:
    seams();
    ~seams() override;
};

// Regular expression that matches the text literally (death test messages).
std::string literal(const std::string& text);

// Threads wait at the gate until it opens, so that they start together.
class start_gate {
public:
    void wait();
    void open();

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_open = false;
};

}  // namespace unit
