// Entry point of the unit tests. The library reads each environment setting
// once, on first use, so main fixes the environment before any test runs.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "unit_support.h"

namespace unit {
namespace {
std::string g_log_path;
std::string g_clear_path;
std::mutex g_symbolized_mutex;
std::vector<void*> g_symbolized;

void configure_environment() {
    const char* tmp = getenv("TMPDIR");
    std::string base = std::string(tmp && *tmp ? tmp : "/tmp") + "/tarvex-unit-" + std::to_string(getpid());
    g_log_path = base + ".log";
    g_clear_path = base + ".clear";
    setenv("TARVEX_TOP", "", 1);  // present but empty still turns counting on
    setenv("TARVEX_LOG_FILE_NAME", g_log_path.c_str(), 1);
    setenv("TARVEX_CLEAR_STATS_FILE_NAME", g_clear_path.c_str(), 1);
    setenv("TARVEX_TARGET_PROC_NAME", "tarvex_unit_tests", 1);
    unsetenv("TARVEX_NOBACKTRACE");
}
}  // namespace

const std::string& log_path() { return g_log_path; }
const std::string& clear_path() { return g_clear_path; }

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void remove_file(const std::string& path) {
    if (!path.empty()) unlink(path.c_str());
}

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

char** make_symbol_array(const std::vector<std::string>& lines) {
    size_t bytes = lines.size() * sizeof(char*);
    for (const std::string& l : lines) bytes += l.size() + 1;
    char** array = static_cast<char**>(malloc(bytes));
    char* text = reinterpret_cast<char*>(array + lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        array[i] = text;
        memcpy(text, lines[i].c_str(), lines[i].size() + 1);
        text += lines[i].size() + 1;
    }
    return array;
}

char** fake_symbolizer(void* const* frames, int n) {
    ++g_symbolizer_calls;
    {
        std::lock_guard<std::mutex> lock(g_symbolized_mutex);
        g_symbolized.assign(frames, frames + n);
    }
    std::vector<std::string> lines;
    for (int i = 0; i < n; ++i) lines.push_back("L" + std::to_string(i));
    return make_symbol_array(lines);
}

char** failing_symbolizer(void* const*, int) {
    ++g_symbolizer_calls;
    return nullptr;
}

std::vector<void*> last_symbolized() {
    std::lock_guard<std::mutex> lock(g_symbolized_mutex);
    return g_symbolized;
}

time_t fake_clock(time_t* t) {
    time_t now = g_now.load();
    if (t) *t = now;
    return now;
}

seams::seams() {
    g_symbolizer_calls = 0;
    g_now = 1000;
    tarvex::backtrace_symbols_cache::s_symbolizer = fake_symbolizer;
    tarvex::mem_stats::s_clock = fake_clock;
    remove_file(log_path());
    remove_file(clear_path());
}

seams::~seams() {
    tarvex::backtrace_symbols_cache::s_symbolizer = nullptr;
    tarvex::mem_stats::s_clock = ::time;
    remove_file(log_path());
    remove_file(clear_path());
}

std::string literal(const std::string& text) {
    std::string re;
    for (char c : text) {
        if (strchr("\\^$.|?*+()[]{}", c)) re += '\\';
        re += c;
    }
    return re;
}

void start_gate::wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [this] { return m_open; });
}

void start_gate::open() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
    }
    m_cv.notify_all();
}

}  // namespace unit

int main(int argc, char** argv) {
    // Child mode of the target-name test: report the name this process
    // computes from its own command line.
    if (getenv("TARVEX_UNIT_PRINT_PROC_NAME") != nullptr) {
        fputs(tarvex::proc_info::get_current_proc_name(), stdout);
        return 0;
    }
    unit::configure_environment();
    // Reports symbolise uids through the context's cache; the context is
    // never destroyed, as in the library.
    g_ctx = new tarvex::context();
    ::testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    int rc = RUN_ALL_TESTS();
    unit::remove_file(unit::log_path());
    unit::remove_file(unit::clear_path());
    return rc;
}
