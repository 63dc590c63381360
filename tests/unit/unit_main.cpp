// Entry point of the unit tests. The library reads each environment setting
// once, on first use, so main fixes the environment before any test runs.
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

#include "unit_support.h"

namespace unit {
namespace {
std::string g_log_path, g_clear_path;
std::mutex g_symbolized_mutex;
std::vector<void*> g_symbolized;
}  // namespace

const std::string& log_path() { return g_log_path; }

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void remove_file(const std::string& path) { unlink(path.c_str()); }

tarvex::block_info make_block(void* addr, size_t size, uint32_t alloc_uid, uint32_t free_uid) {
    tarvex::block_info bi;
    bi.m_addr = addr;
    bi.m_size = size;
    bi.m_alloc_size = size + tarvex::k_footer_size;
    bi.m_alloc_uid = alloc_uid;
    bi.m_free_uid = free_uid;
    return bi;
}

std::vector<void*> fake_frames(int n, uintptr_t seed) {
    std::vector<void*> frames;
    for (int i = 0; i < n; ++i)
        frames.push_back(reinterpret_cast<void*>(0x7f0000000000u + seed * 0x100000u + uintptr_t(i) * 0x40 + 5));
    return frames;
}

std::atomic<int> g_symbolizer_calls;
std::atomic<time_t> g_now;

// One malloc'ed block of pointers and text, as the C library's
// backtrace_symbols returns it, because the cache frees it.
char** fake_symbolizer(void* const* frames, int n) {
    ++g_symbolizer_calls;
    {
        std::lock_guard<std::mutex> lock(g_symbolized_mutex);
        g_symbolized.assign(frames, frames + n);
    }
    char** array = static_cast<char**>(malloc(size_t(n) * (sizeof(char*) + 16)));
    char* text = reinterpret_cast<char*>(array + n);
    for (int i = 0; i < n; ++i, text += 16) snprintf(array[i] = text, 16, "L%d", i);
    return array;
}

char** failing_symbolizer(void* const*, int) {
    ++g_symbolizer_calls;
    return nullptr;
}

std::vector<void*> last_symbolized() {
    std::lock_guard<std::mutex> lock(g_symbolized_mutex);
    return g_symbolized;
}

namespace {
time_t fake_clock(time_t* t) {
    if (t) *t = g_now.load();
    return g_now.load();
}
}  // namespace

seams::seams() {
    g_symbolizer_calls = 0;
    g_now = 1000;
    tarvex::backtrace_symbols_cache::s_symbolizer = fake_symbolizer;
    tarvex::mem_stats::s_clock = fake_clock;
    remove_file(g_log_path);
    remove_file(g_clear_path);
}

seams::~seams() {
    tarvex::backtrace_symbols_cache::s_symbolizer = nullptr;
    tarvex::mem_stats::s_clock = ::time;
    remove_file(g_log_path);
    remove_file(g_clear_path);
}

}  // namespace unit

int main(int argc, char** argv) {
    // Child mode of the target-name test: report the name this process
    // computes from its own command line.
    if (getenv("TARVEX_UNIT_PRINT_PROC_NAME") != nullptr) {
        fputs(tarvex::proc_info::get_current_proc_name(), stdout);
        return 0;
    }
    const char* tmp = getenv("TMPDIR");
    std::string base = std::string(tmp && *tmp ? tmp : "/tmp") + "/tarvex-unit-" + std::to_string(getpid());
    unit::g_log_path = base + ".log";
    unit::g_clear_path = base + ".clear";
    setenv("TARVEX_TOP", "", 1);  // present but empty still turns counting on
    setenv("TARVEX_LOG_FILE_NAME", unit::g_log_path.c_str(), 1);
    setenv("TARVEX_CLEAR_STATS_FILE_NAME", unit::g_clear_path.c_str(), 1);
    setenv("TARVEX_TARGET_PROC_NAME", "tarvex_unit_tests", 1);
    unsetenv("TARVEX_NOBACKTRACE");
    // Reports symbolise uids through the context's cache; the context is
    // never destroyed, as in the library.
    g_ctx = new tarvex::context();
    ::testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    int rc = RUN_ALL_TESTS();
    unit::remove_file(unit::g_log_path);
    unit::remove_file(unit::g_clear_path);
    return rc;
}
