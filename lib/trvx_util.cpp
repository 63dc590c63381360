#include "trvx_util.h"

#include <assert.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "trvx_lock.h"
#include "trvx_stat.h"
#include "trvx_uid.h"
#include "trvx_unwind.h"

tarvex::context* g_ctx;

namespace tarvex {

void fail_assert(const char* expr, const char* file, unsigned line, const char* function) {
    fflush(stdout);
    __assert_fail(expr, file, line, function);
}

// A call made before the C library has set up the environment (from a
// program's pre-initialisation functions) finds nothing, but the variable
// may well be set: such a read is not kept, and the next call reads again.
bool environment_ready() { return __atomic_load_n(&environ, __ATOMIC_ACQUIRE) != nullptr; }

const char* env_value::load() {
    if (!environment_ready()) return nullptr;
    const char* value = getenv(m_name);
    __atomic_store_n(&m_value, value, __ATOMIC_RELAXED);
    __atomic_store_n(&m_loaded, true, __ATOMIC_RELEASE);
    return value;
}

// ---------------------------------------------------------------- guard

#define TRVX_TLS __thread __attribute__((tls_model("initial-exec")))
namespace detail {
TRVX_TLS const thread_map* t_inside_map;  // map the thread is inside
TRVX_TLS const thread_map* t_busy_map;    // map whose guard operation runs
TRVX_TLS bool t_owns_fork_locks;          // see trvx_lock.h
unsigned char g_target_state;
}  // namespace detail
namespace {
using detail::t_busy_map;
using detail::t_inside_map;
TRVX_TLS bool t_overflow;  // recorded without a slot
}  // namespace

// cppcheck-suppress uninitMemberVar ; m_threads is zeroed by the loop below
thread_map::thread_map() {
    pthread_mutex_init(&m_mutex, nullptr);
    for (pthread_t& t : m_threads) t = 0;
}

thread_map::~thread_map() { pthread_mutex_destroy(&m_mutex); }

bool thread_map::is_current_thread_inside() const {
    return t_inside_map == this || t_busy_map == this;
}

bool thread_map::check_and_set_current_thread() {
    if (is_current_thread_inside()) return false;
    t_busy_map = this;
    scoped_lock lock(&m_mutex);
    pthread_t self = pthread_self();
    int free_slot = -1;
    bool present = false;
    for (int i = 0; i < k_slots; ++i) {
        if (m_threads[i] == 0) free_slot = i;  // the highest free slot wins
        if (pthread_equal(m_threads[i], self)) {
            present = true;
            break;
        }
    }
    if (!present) {
        if (free_slot >= 0)
            m_threads[free_slot] = self;
        t_overflow = free_slot < 0;
        t_inside_map = this;
    }
    lock.unlock();
    t_busy_map = nullptr;
    return !present;
}

void thread_map::remove_current_thread() {
    if (t_inside_map == this && t_overflow) {
        t_overflow = false;
        t_inside_map = nullptr;
        return;
    }
    t_busy_map = this;
    scoped_lock lock(&m_mutex);
    pthread_t self = pthread_self();
    bool b = false;
    for (int i = 0; i < k_slots; ++i) {
        if (pthread_equal(m_threads[i], self)) {
            m_threads[i] = 0;
            b = true;
            break;
        }
    }
    lock.unlock();
    if (t_inside_map == this) t_inside_map = nullptr;
    t_busy_map = nullptr;
    if (!b) fail_assert("b == true", "lib/trvx_util", 65, "void tarvex::thread_map::remove_current_thread()");
}

void thread_map::reset_in_child() {
    pthread_t self = pthread_self();
    for (pthread_t& t : m_threads)
        if (!pthread_equal(t, self)) t = 0;
}

// ---------------------------------------------------------------- target process

namespace {
env_value g_target_name("TARVEX_TARGET_PROC_NAME");
char g_current_name[32];
int g_current_name_state;  // 0: unknown, 1: being written, 2: known
bool g_decision;
bool g_decision_made;
}  // namespace

const char* proc_info::get_target_proc_name() { return g_target_name.get(); }

void proc_info::base_name_of(const char* argv0, char out[32]) {
    out[0] = '\0';
    size_t len = strlen(argv0);
    if (len == 0 || argv0[len - 1] == '/') return;
    const char* slash = strrchr(argv0, '/');
    const char* base = slash ? slash + 1 : argv0;
    size_t n = strnlen(base, 31);
    memcpy(out, base, n);
    out[n] = '\0';
}

// The first caller computes the name into a local buffer and publishes it;
// a caller that finds it being written waits for the copy of 32 bytes, so
// no caller ever sees a half-written name.
char* proc_info::get_current_proc_name() {
    if (__atomic_load_n(&g_current_name_state, __ATOMIC_ACQUIRE) == 2) return g_current_name;
    char cmdline[512];
    cmdline[0] = '\0';
    int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t n = read(fd, cmdline, sizeof cmdline);
        if (n <= 0) cmdline[0] = '\0';
        close(fd);
    }
    cmdline[511] = '\0';
    char name[32];
    base_name_of(cmdline, name);
    int expected = 0;
    if (__atomic_compare_exchange_n(&g_current_name_state, &expected, 1, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
        memcpy(g_current_name, name, sizeof name);
        __atomic_store_n(&g_current_name_state, 2, __ATOMIC_RELEASE);
    } else {
        // Bounded: in a child forked while another thread was writing the
        // name, nobody finishes it; the name this call computed is the same
        // one, so it is published instead.
        for (int spins = 0; __atomic_load_n(&g_current_name_state, __ATOMIC_ACQUIRE) != 2; ++spins) {
            if (spins == 100000) {
                memcpy(g_current_name, name, sizeof name);
                __atomic_store_n(&g_current_name_state, 2, __ATOMIC_RELEASE);
                break;
            }
            sched_yield();
        }
    }
    return g_current_name;
}

// Concurrent first callers compute the same answer from the same published
// inputs; the answer is stored before the flag that makes it visible.
bool proc_info::is_target_proc() {
    if (__atomic_load_n(&g_decision_made, __ATOMIC_ACQUIRE))
        return __atomic_load_n(&g_decision, __ATOMIC_RELAXED);
    if (!environment_ready()) return false;  // asked again once the environment is there
    const char* target = get_target_proc_name();
    bool decision = target != nullptr && strcmp(get_current_proc_name(), target) == 0;
    __atomic_store_n(&g_decision, decision, __ATOMIC_RELAXED);
    __atomic_store_n(&g_decision_made, true, __ATOMIC_RELEASE);
    __atomic_store_n(&detail::g_target_state, decision ? 2 : 1, __ATOMIC_RELEASE);
    return decision;
}

// ---------------------------------------------------------------- call stacks

namespace {
env_value g_nobacktrace("TARVEX_NOBACKTRACE");

}  // namespace

bool backtraces_disabled() { return g_nobacktrace.get() != nullptr; }

static_assert(backtrace::k_capacity == k_uid_frames, "a uid covers every captured frame");

uint32_t stack_uid(void* const* frames, int count) {
    if (count <= 0) return 0;
    uint64_t h = reinterpret_cast<uint64_t>(frames[0]);
    for (int i = 0; i < count && i < backtrace::k_capacity; ++i) h = uid_step(h, i, frames[i]);
    return static_cast<uint32_t>(h);
}

backtrace::backtrace() {
    if (backtraces_disabled()) {
        m_bt_len = 0;
        m_cookie = 0;
        return;
    }
    uint32_t uid = 0;
    int n = trvx_capture_stack(m_bt, k_capacity, &uid);
    m_bt_len = n > 0 ? n : 0;
    m_cookie = uid;
}

backtrace::backtrace(const std::vector<void*>& frames) : backtrace(frames.data(), frames.size()) {}

backtrace::backtrace(void* const* frames, size_t count) {
    m_bt_len = static_cast<int32_t>(count < k_capacity ? count : k_capacity);
    for (int i = 0; i < m_bt_len; ++i) m_bt[i] = frames[i];
    m_cookie = compute_cookie();
}

unsigned int backtrace::compute_cookie() { return stack_uid(m_bt, m_bt_len); }

// ---------------------------------------------------------------- symbol caches

backtrace_symbols_cache::symbolizer_fn backtrace_symbols_cache::s_symbolizer;

backtrace_symbols_cache::backtrace_symbols_cache() { pthread_mutex_init(&m_mutex, nullptr); }

backtrace_symbols_cache::~backtrace_symbols_cache() {
    m_bt_cache.clear();
    m_sym_cache.clear();
    pthread_mutex_destroy(&m_mutex);
}

size_t backtrace_symbols_cache::bt_cache_size() {
    scoped_lock lock(&m_mutex);
    return m_bt_cache.size();
}

namespace {
// Uids known to be in the stack cache, by their low bits. Entries of the
// cache are never removed, so a uid seen here needs no lock and no lookup:
// the common case of a tracked call (a known call site) stays lock-free.
// Kept small: each page of it that a forked child writes is a page copied.
constexpr unsigned k_known_slots = 1 << 12;
unsigned int g_known_uids[k_known_slots];

bool known_uid(unsigned int uid) {
    return uid != 0 && __atomic_load_n(&g_known_uids[uid & (k_known_slots - 1)], __ATOMIC_RELAXED) == uid;
}
void remember_uid(unsigned int uid) {
    __atomic_store_n(&g_known_uids[uid & (k_known_slots - 1)], uid, __ATOMIC_RELAXED);
}
}  // namespace

// A failure to get memory leaves no entry at all (the table throws before it
// changes), rather than a short one under the wrong uid.
void backtrace_symbols_cache::update_bt_cache(tarvex::backtrace& bt) {
    int len = bt.get_bt_len();
    unsigned int uid = bt.get_cookie();
    // The table of known uids serves the process's one cache only.
    context* ctx = g_ctx;
    bool process_cache = ctx != nullptr && this == &ctx->m_symbols;
    if (len <= 0 || (process_cache && known_uid(uid))) return;
    scoped_lock lock(&m_mutex);
    m_bt_cache.insert(uid, bt.get_bt(), uint32_t(len));
    if (process_cache) remember_uid(uid);
}

bool backtrace_symbols_cache::find_bt_sym(std::vector<std::string>& out, unsigned int uid) {
    scoped_lock lock(&m_mutex);
    auto it = m_sym_cache.find(uid);
    if (it == m_sym_cache.end()) return false;
    out = it->second;
    return true;
}

bool backtrace_symbols_cache::find_and_update_bt_sym(std::vector<std::string>& out, unsigned int uid) {
    {
        scoped_lock lock(&m_mutex);
        auto it = m_sym_cache.find(uid);
        if (it != m_sym_cache.end()) {
            out = it->second;
            return true;
        }
        const stack_table::frames* recorded = m_bt_cache.find(uid);
        if (recorded == nullptr) return false;
        backtrace bt(recorded->addrs(), recorded->len);
        lock.unlock();
        update_sym_cache(bt);
    }
    return find_bt_sym(out, uid);
}

// The C library's backtrace_symbols runs without the mutex. The lines are
// copied into a list of their own first, so that a failure leaves no
// incomplete entry; the array is released on every path.
void backtrace_symbols_cache::update_sym_cache(tarvex::backtrace& bt) {
    int len = bt.get_bt_len();
    unsigned int uid = bt.get_cookie();
    {
        scoped_lock lock(&m_mutex);
        if (len <= 0 || m_sym_cache.find(uid) != m_sym_cache.end()) return;
    }
    char** symbols = s_symbolizer ? s_symbolizer(bt.get_bt(), len) : ::backtrace_symbols(bt.get_bt(), len);
    scoped_lock lock(&m_mutex);
    if (symbols == nullptr) return;
    struct array_release {
        char** p;
        ~array_release() { free(p); }
    } release{symbols};
    if (m_sym_cache.find(uid) != m_sym_cache.end()) return;  // the first writer wins
    std::vector<std::string> lines;
    lines.reserve(len);
    for (int i = 0; i < len; ++i) lines.emplace_back(symbols[i]);
    m_sym_cache.emplace(uid, std::move(lines));
}

// ---------------------------------------------------------------- symbol line parsing

namespace {
void cut(std::string& out, const std::string& line, size_t s, size_t e) {
    out = line.substr(s + 1, e - s - 1);
}
}  // namespace

void backtrace_symbols_cache::extract_symbol(std::string& out, const std::string& line) {
    try {
        size_t s = line.rfind('(');
        size_t e = line.rfind(')');
        if (s == std::string::npos || e == std::string::npos) {
            out.clear();
            return;
        }
        cut(out, line, s, e);
    } catch (const std::exception&) {
        out.clear();
    }
}

void backtrace_symbols_cache::extract_address(std::string& out, const std::string& line) {
    try {
        size_t s = line.rfind('[');
        size_t e = line.rfind(']');
        if (s == std::string::npos || e == std::string::npos) {
            out.clear();
            return;
        }
        cut(out, line, s, e);
    } catch (const std::exception&) {
        out.clear();
    }
}

void backtrace_symbols_cache::extract_function_name(std::string& out, const std::string& line) {
    bool fall_back = false;
    try {
        size_t s = line.rfind('(');
        size_t e = line.rfind('+');
        if (s == std::string::npos || e == std::string::npos)
            fall_back = true;
        else
            cut(out, line, s, e);
    } catch (const std::exception&) {
        fall_back = true;
    }
    if (fall_back) extract_address(out, line);
}

void backtrace_symbols_cache::extract_lib(std::string& out, const std::string& line) {
    try {
        size_t s = line.rfind('/');
        size_t e = line.find(' ');
        if (e == std::string::npos) e = line.find('(');
        if (s == std::string::npos || e == std::string::npos) {
            out.clear();
            return;
        }
        cut(out, line, s, e);
    } catch (const std::exception&) {
        out.clear();
    }
}

// ---------------------------------------------------------------- context

context::context() : m_stats(nullptr) {
    // The store has 64-byte aligned members (the registry's shards), more
    // than malloc guarantees.
    void* mem = next_memalign(alignof(mem_stats), sizeof(mem_stats));
    if (mem == nullptr) throw std::bad_alloc();
    try {
        m_stats = new (mem) mem_stats();
    } catch (...) {
        next_free(mem);
        throw;
    }
}

}  // namespace tarvex

// ---------------------------------------------------------------- demangler

trvx_backtrace::trvx_backtrace() {}
trvx_backtrace::~trvx_backtrace() {}
void trvx_backtrace::backtrace_symbols(std::vector<std::string>&, void**, int) {}

namespace {
// The value of a run of decimal digits as sscanf("%d") reads it. A run too
// long for a signed 32-bit value is taken as the largest one, which runs
// past the end of any text and ends the walk. Leading zeros do not count
// towards that: 0000000007 is the length 7.
int32_t length_of(const std::string& digits) {
    size_t first = digits.find_first_not_of('0');
    if (first != std::string::npos && digits.size() - first > 9) return INT32_MAX;
    int n = 0;
    // At most nine significant digits: the value always fits, so the missing
    // overflow report of sscanf cannot matter.
    if (sscanf(digits.c_str(), "%d", &n) != 1) return 0;  // NOLINT(cert-err34-c)
    return n;
}
}  // namespace

std::string trvx_backtrace::my_demangle(std::string name) {
    std::string result;
    try {
        if (name.find("_ZN") != 0) return name;
        name.erase(0, 3);
        std::string digits;
        int32_t n = 0;
        size_t i = 0;
        while (i < name.size()) {
            unsigned char c = static_cast<unsigned char>(name[i]);
            if (c >= '0' && c <= '9') {
                digits.push_back(static_cast<char>(c));
                ++i;
                continue;
            }
            if (!digits.empty()) {
                n = length_of(digits);
                digits.clear();
            }
            if (n <= 0) break;
            if (!result.empty()) result += "::";
            result += name.substr(i, static_cast<size_t>(n));
            if (static_cast<size_t>(n) >= name.size() - i) break;
            i += static_cast<size_t>(n);
            n = 0;
        }
    } catch (...) {
        return name;
    }
    return result;
}
