// Runtime support: assertions, the process-wide context with its reentrancy
// guard, the choice of the target process, call stacks and their uids, and
// the caches from uid to return addresses and to symbol lines.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "trvx_next.h"
#include "trvx_stack_table.h"

#define TRVX_EXPORT __attribute__((visibility("default")))

namespace tarvex {

// Stops the process through the C library's assertion failure, after
// flushing standard output so that what was printed before is never lost.
// File, line, function and expression are part of the library's interface
// and are passed as constants, so they hold in builds with NDEBUG as well.
[[noreturn]] void fail_assert(const char* expr, const char* file, unsigned line,
                              const char* function);

// False until the C library has set up the environment.
bool environment_ready();

// One-time read of an environment variable. Concurrent first readers all
// call getenv and store the same pointer, so no reader ever sees a value
// half-written and no lock (or allocation) is needed.
class env_value {
public:
    explicit constexpr env_value(const char* name) : m_name(name) {}
    const char* get() {
        // The value is read atomically too: a late first reader may still be
        // storing the same pointer after another reader has set m_loaded.
        if (__atomic_load_n(&m_loaded, __ATOMIC_ACQUIRE))
            return __atomic_load_n(&m_value, __ATOMIC_RELAXED);
        return load();
    }

private:
    const char* load();

    const char* m_name;
    const char* m_value = nullptr;
    bool m_loaded = false;
};

// The reentrancy guard: which threads are inside the library right now.
//
// Besides its 32 slots, each thread keeps two thread-local marks (initial-exec
// TLS, which never allocates): the map it is inside, and "busy" while it runs
// one of the two guard operations. They serve two cases that the slots alone
// cannot:
//  - A 33rd thread that finds every slot taken is recorded in its own
//    thread-local mark instead of waiting. It is then inside the library
//    exactly like a thread in a slot: its nested calls pass through and its
//    block is tracked. It cannot hang, because it waits for nothing; waiting
//    could deadlock when the waiting thread holds a lock (the dynamic
//    loader's, say) that a thread in a slot needs to finish.
//  - A signal handler that interrupts a thread inside the library (or inside
//    a guard operation) sees the marks without taking m_mutex, so it never
//    deadlocks on it and never takes a second slot.
class thread_map;
namespace detail {
// Initial-exec TLS: a preloaded library's thread-locals live in the static
// TLS block, so the first access of a thread never calls malloc.
extern __thread const thread_map* t_inside_map __attribute__((tls_model("initial-exec")));
extern __thread const thread_map* t_busy_map __attribute__((tls_model("initial-exec")));
}  // namespace detail

class thread_map {
public:
    thread_map();
    ~thread_map();
    bool check_and_set_current_thread();
    void remove_current_thread();

    // The allocation paths' form of the guard: the thread-local mark alone,
    // without a slot, so that a tracked call takes no lock and threads never
    // contend on the guard. A thread inside by either form is inside for both.
    bool try_enter() {
        if (detail::t_inside_map == this || detail::t_busy_map == this) return false;
        detail::t_inside_map = this;
        return true;
    }
    void leave() { detail::t_inside_map = nullptr; }
    // True when the calling thread is inside the library (no lock taken).
    bool is_current_thread_inside() const;

    // fork support: m_mutex is held across fork; in the child only the
    // forking thread exists, so every slot but its own is freed.
    void lock_for_fork() { pthread_mutex_lock(&m_mutex); }
    void unlock_after_fork() { pthread_mutex_unlock(&m_mutex); }
    void reset_in_child();

    static constexpr int k_slots = 32;
    pthread_t slot(int i) const { return m_threads[i]; }

private:
    pthread_mutex_t m_mutex;
    pthread_t m_threads[k_slots];
};

// Is this process the one named by TARVEX_TARGET_PROC_NAME?
namespace detail {
extern unsigned char g_target_state;  // 0: not decided, 1: not the target, 2: the target
}

class proc_info {
public:
    // The allocation paths' question: one load once decided.
    static bool is_target() {
        unsigned char s = __atomic_load_n(&detail::g_target_state, __ATOMIC_ACQUIRE);
        return s ? s == 2 : is_target_proc();
    }
    static const char* get_target_proc_name();
    static char* get_current_proc_name();
    static bool is_target_proc();
    // Test seam: computes the base name of an argv[0] into a 32-byte buffer.
    static void base_name_of(const char* argv0, char out[32]);
};

// A call stack of at most 64 return addresses and its 32-bit uid.
class backtrace {
public:
    // Captures the calling thread's stack. Never inlined: entry 0 lies in
    // this constructor and entry 1 in the function that called it.
    __attribute__((noinline)) backtrace();
    explicit backtrace(const std::vector<void*>& frames);
    backtrace(void* const* frames, size_t count);

    unsigned int compute_cookie();
    unsigned int get_cookie() { return m_cookie; }
    int get_bt_len() { return m_bt_len; }
    void** get_bt() { return m_bt; }

    static constexpr int k_capacity = 64;

private:
    int32_t m_bt_len;
    void* m_bt[k_capacity];
    uint32_t m_cookie;
};

// Starts fetching, for writing, the cache lines of the first min(bytes, cap)
// bytes at p: memory that the fills or the allocator will write soon.
inline void prefetch_lines(const void* p, size_t bytes, size_t cap) {
    const char* c = static_cast<const char*>(p);
    const char* end = c + (bytes < cap ? bytes : cap);
    for (; c < end; c += 64) __builtin_prefetch(c, 1, 3);
}

// Uid of a list of return addresses (the hash of backtrace::compute_cookie).
uint32_t stack_uid(void* const* frames, int count);
bool backtraces_disabled();

class TRVX_EXPORT backtrace_symbols_cache {
public:
    backtrace_symbols_cache();
    ~backtrace_symbols_cache();
    backtrace_symbols_cache(const backtrace_symbols_cache&) = delete;
    backtrace_symbols_cache& operator=(const backtrace_symbols_cache&) = delete;

    void update_bt_cache(tarvex::backtrace& bt);
    bool find_bt_sym(std::vector<std::string>& out, unsigned int uid);
    bool find_and_update_bt_sym(std::vector<std::string>& out, unsigned int uid);
    void update_sym_cache(tarvex::backtrace& bt);

    static void extract_symbol(std::string& out, const std::string& line);
    static void extract_address(std::string& out, const std::string& line);
    static void extract_function_name(std::string& out, const std::string& line);
    static void extract_lib(std::string& out, const std::string& line);

    // Test seam: replaces the C library's backtrace_symbols.
    typedef char** (*symbolizer_fn)(void* const*, int);
    static symbolizer_fn s_symbolizer;

    void lock_for_fork() { pthread_mutex_lock(&m_mutex); }
    void unlock_after_fork() { pthread_mutex_unlock(&m_mutex); }
    size_t bt_cache_size();

private:
    pthread_mutex_t m_mutex;
    std::map<unsigned int, std::vector<std::string>> m_sym_cache;
    stack_table m_bt_cache;
};

class mem_stats;

class context {
public:
    context();
    thread_map m_thread_map;
    backtrace_symbols_cache m_symbols;
    mem_stats* m_stats;
};

}  // namespace tarvex

extern TRVX_EXPORT tarvex::context* g_ctx;

class TRVX_EXPORT trvx_backtrace {
public:
    trvx_backtrace();
    ~trvx_backtrace();
    void backtrace_symbols(std::vector<std::string>& out, void** frames, int count);
    static std::string my_demangle(std::string name);
};
