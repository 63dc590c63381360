// The interposed allocation functions and the exported control functions.
//
// Every allocation call runs three steps: resolve its next definition,
// bootstrap the context, and choose between the tracked path and a plain
// pass-through. The call stack of a tracked call is captured in the body of
// the interposed function itself, so that frame 0 lies in the capture and
// frame 1 in the interposed function, as the reports expect.
#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <new>

#include "trvx_next.h"
#include "trvx_stat.h"
#include "trvx_untracked.h"
#include "trvx_unwind.h"
#include "trvx_util.h"

using tarvex::block_info;
using tarvex::k_footer_size;
using tarvex::mem_stats;
using tarvex::proc_info;
using tarvex::untracked_blocks;

// Bootstrap state: 0 none, 1 constructing the context, 2 ready.
unsigned int g_init_state;
bool g_calloc_resolving;

namespace {

// Set when building the context failed: the state then stays 1 for good and
// every call passes straight through.
bool g_init_failed;

// ---------------------------------------------------------------- resolution

// The aligned family all resolves through memalign.
struct resolving_flags {
    bool malloc_, valloc_, realloc_, free_, memalign_, usable_size_;
} g_resolving;

// Resolves one next definition. A call that arrives while the same function
// is being resolved (dlsym allocating, or another thread) uses the C
// library's own entry point meanwhile (see trvx_next.h); when dlsym finds
// no next definition at all, those entry points stay in use for good.
template <class F>
inline void resolve_one(F& slot, bool& resolving, const char* name) {
    if (__builtin_expect(__atomic_load_n(&slot, __ATOMIC_ACQUIRE) != nullptr, 1)) return;
    if (__atomic_exchange_n(&resolving, true, __ATOMIC_ACQ_REL)) return;
    void* p = dlsym(RTLD_NEXT, name);
    if (p != nullptr) __atomic_store_n(&slot, reinterpret_cast<F>(p), __ATOMIC_RELEASE);
}

// free is resolved before anything else, so that free itself never calls
// dlsym once the process has allocated: glibc's dlsym frees the message of
// an earlier failed dlsym and clears its pointer only after free returns, so
// a free that called dlsym there would release that message twice.
template <class F>
inline void resolve(F& slot, bool& resolving, const char* name) {
    if (__builtin_expect(__atomic_load_n(&slot, __ATOMIC_ACQUIRE) != nullptr, 1)) return;
    resolve_one(g_next_free, g_resolving.free_, "free");
    resolve_one(slot, resolving, name);
}

// calloc while dlsym resolves calloc: served from the program break, never
// given back. Zeroed and 16-byte aligned like any calloc block; a failing
// sbrk gives null with ENOMEM, never (void*)-1.
void* calloc_from_break(size_t count, size_t size) {
    size_t n;
    if (__builtin_mul_overflow(count, size, &n) || n > size_t(INTPTR_MAX) - 16) {
        errno = ENOMEM;
        return nullptr;
    }
    uintptr_t brk_now = reinterpret_cast<uintptr_t>(sbrk(0));
    size_t pad = (16 - (brk_now & 15)) & 15;
    void* p = sbrk(static_cast<intptr_t>(pad + n));
    if (p == reinterpret_cast<void*>(-1)) {
        errno = ENOMEM;
        return nullptr;
    }
    char* block = static_cast<char*>(p) + pad;
    memset(block, 0, n);
    tarvex::record_break_range(block, n ? n : 1);
    return block;
}

// ---------------------------------------------------------------- the unwinder's own calls

// libgcc's FDE lookup allocates and releases while it holds its own
// (non-recursive) mutex, the first time it searches frames that a program
// registered at run time (a JIT). Tracking such a call would capture a stack,
// which looks FDEs up again under the same mutex: the calls that come
// straight from the unwinder library are passed through untracked instead.
// Its address range is known once the first call to be tracked has loaded it.
uintptr_t g_unwinder_begin;
uintptr_t g_unwinder_end;
bool g_unwinder_loaded;

// Called with the guard held, so that the loader's own allocations pass
// through. Threads that meet here first both load; the second dlopen only
// counts a reference.
void ensure_unwinder() {
    if (__atomic_load_n(&g_unwinder_loaded, __ATOMIC_ACQUIRE)) return;
    tarvex::code_range range = tarvex::load_shared_unwinder();
    __atomic_store_n(&g_unwinder_begin, range.begin, __ATOMIC_RELAXED);
    __atomic_store_n(&g_unwinder_end, range.end, __ATOMIC_RELAXED);
    __atomic_store_n(&g_unwinder_loaded, true, __ATOMIC_RELEASE);
}

inline bool from_unwinder(void* return_address) {
    uintptr_t begin = __atomic_load_n(&g_unwinder_begin, __ATOMIC_RELAXED);
    return reinterpret_cast<uintptr_t>(return_address) - begin < __atomic_load_n(&g_unwinder_end, __ATOMIC_RELAXED) - begin;
}

// ---------------------------------------------------------------- bootstrap

void before_fork();
void after_fork_parent();
void after_fork_child();

// Exactly one thread wins the compare-and-swap from 0 to 1 and builds the
// context; every other call passes through while the state is 1. The
// context's pointer is published before the state, with release ordering,
// so that a thread that reads the state 2 (acquire) always finds g_ctx set.
void bootstrap() {
    unsigned int expected = 0;
    if (!__atomic_compare_exchange_n(&g_init_state, &expected, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        return;
    void* mem = tarvex::next_malloc(sizeof(tarvex::context));
    if (mem == nullptr) {
        __atomic_store_n(&g_init_failed, true, __ATOMIC_RELEASE);
        return;
    }
    tarvex::context* ctx;
    try {
        ctx = new (mem) tarvex::context();
    } catch (...) {
        tarvex::next_free(mem);
        __atomic_store_n(&g_init_failed, true, __ATOMIC_RELEASE);
        return;
    }
    pthread_atfork(before_fork, after_fork_parent, after_fork_child);
    __atomic_store_n(&g_ctx, ctx, __ATOMIC_RELEASE);
    __atomic_store_n(&g_init_state, 2, __ATOMIC_RELEASE);
}

inline bool frame_ready() {
    unsigned int state = __atomic_load_n(&g_init_state, __ATOMIC_ACQUIRE);
    if (__builtin_expect(state == 2, 1)) return true;
    if (state == 0) bootstrap();
    return __atomic_load_n(&g_init_state, __ATOMIC_ACQUIRE) == 2;
}

inline void* untracked(void* p) {
    untracked_blocks().insert(p);
    return p;
}

// Before the C library has set up the environment (pre-initialisation
// functions of the program) the process may yet turn out to be the target:
// blocks passed through meanwhile are recorded as untracked, so that their
// release later is quiet.
inline bool decision_pending() { return __atomic_load_n(&tarvex::detail::g_target_state, __ATOMIC_ACQUIRE) == 0; }
inline bool maybe_target() { return proc_info::is_target() || decision_pending(); }
inline void* other_process(void* p) { return decision_pending() ? untracked(p) : p; }

// A block that another thread got while the context was being built is
// valid but untracked; it is recorded so that its release is quiet.
inline void* while_building(void* p) {
    if (p != nullptr && !__atomic_load_n(&g_init_failed, __ATOMIC_ACQUIRE) && maybe_target())
        untracked_blocks().insert(p);
    return p;
}

inline tarvex::thread_map& guard() { return g_ctx->m_thread_map; }

// Takes the guard for a call that is to be tracked: false when the call
// passes through untracked instead (the thread is inside the library, or
// the call comes from the unwinder library itself).
bool enter_tracking(void* caller) {
    if (!guard().try_enter()) return false;
    ensure_unwinder();
    if (!from_unwinder(caller)) return true;
    guard().leave();
    return false;
}

// True once the context exists in a process that is not the target: the
// call then goes straight to the next definition. Tested first, with one
// load each, so that the entry points' fast path needs no stack frame.
inline bool pass_through_process() {
    return __atomic_load_n(&tarvex::detail::g_target_state, __ATOMIC_RELAXED) == 1 &&
           __atomic_load_n(&g_init_state, __ATOMIC_ACQUIRE) == 2;
}
inline mem_stats& stats() { return *g_ctx->m_stats; }

// ---------------------------------------------------------------- fork

// The library's mutexes are held across fork in their lock order and
// released in both processes afterwards, so the child never inherits a mutex
// held by a thread that does not exist there.
//
// Between the two, other fork handlers may run on the forking thread (those
// registered before tarvex's own, by libraries initialised before the first
// allocation) and call the allocator: the thread then owns every lock, and
// the library's scoped holds take nothing (trvx_lock.h), so those calls are
// tracked as usual. While the locks are being taken or released, the
// forking thread counts as inside the library instead: a signal handler that
// runs on it then passes its calls straight through rather than waiting for
// a lock that this thread holds.
__thread const tarvex::thread_map* t_busy_before_fork __attribute__((tls_model("initial-exec")));

void mark_forking() {
    t_busy_before_fork = tarvex::detail::t_busy_map;
    tarvex::detail::t_busy_map = &g_ctx->m_thread_map;
}

void unmark_forking() { tarvex::detail::t_busy_map = t_busy_before_fork; }

// Whether this thread's prepare handler took the locks: a context built by
// another thread meanwhile has nothing to release after the fork.
__thread bool t_took_fork_locks __attribute__((tls_model("initial-exec")));

void before_fork() {
    if (g_ctx == nullptr) return;
    t_took_fork_locks = true;
    mark_forking();
    g_ctx->m_stats->lock_for_fork();
    g_ctx->m_symbols.lock_for_fork();
    g_ctx->m_thread_map.lock_for_fork();
    untracked_blocks().lock();
    tarvex::detail::t_owns_fork_locks = true;
    unmark_forking();
}

void after_fork_parent() {
    if (!t_took_fork_locks) return;
    t_took_fork_locks = false;
    mark_forking();
    tarvex::detail::t_owns_fork_locks = false;
    untracked_blocks().unlock();
    g_ctx->m_thread_map.unlock_after_fork();
    g_ctx->m_symbols.unlock_after_fork();
    g_ctx->m_stats->unlock_after_fork(false);
    unmark_forking();
}

void after_fork_child() {
    if (!t_took_fork_locks) return;
    t_took_fork_locks = false;
    mark_forking();
    tarvex::detail::t_owns_fork_locks = false;
    untracked_blocks().unlock();
    g_ctx->m_thread_map.reset_in_child();
    g_ctx->m_thread_map.unlock_after_fork();
    g_ctx->m_symbols.unlock_after_fork();
    g_ctx->m_stats->unlock_after_fork(true);
    unmark_forking();
}

// ---------------------------------------------------------------- tracked allocation

enum class source { malloc_, valloc_, calloc_, memalign_ };

void* obtain(source from, size_t align, size_t total) {
    switch (from) {
        case source::valloc_:
            return g_next_valloc ? g_next_valloc(total) : tarvex::next_memalign(sysconf(_SC_PAGESIZE), total);
        case source::calloc_:
            return tarvex::next_calloc(1, total);
        case source::memalign_:
            return tarvex::next_memalign(align, total);
        case source::malloc_:
        default:
            return tarvex::next_malloc(total);
    }
}

// Stack cache and registry. False when the library could not get memory for
// its bookkeeping; nothing stays registered then.
bool register_block(tarvex::backtrace& bt, block_info& bi) {
    try {
        g_ctx->m_symbols.update_bt_cache(bt);
        stats().insert_block_info(bi);
    } catch (...) {
        return false;
    }
    return true;
}

// Asks for the cache lines of a fresh block, which usually went cold in the
// quarantine, all at once: they arrive while the block is being registered,
// and the fills behind find them in the cache. A large block's first lines
// only; its fill runs at memory bandwidth anyway.
void prefetch_for_fill(void* p, size_t size) {
    tarvex::prefetch_lines(p, size, 1024);
    tarvex::prefetch_lines(static_cast<char*>(p) + size, k_footer_size, k_footer_size);
}

// A fresh block of size user bytes behind which the footer lies. A size that
// cannot take the footer fails without calling the next allocator. The block
// is registered before it is filled: the registry's lock then waits only for
// the few stores before it, and the fills drain to memory while the program
// goes on. No other thread can know the address before it is returned.
void* allocate_tracked(tarvex::backtrace& bt, source from, size_t align, size_t size) {
    int saved_errno = errno;
    if (size > SIZE_MAX - k_footer_size) {
        errno = ENOMEM;
        return nullptr;
    }
    void* p = obtain(from, align, size + k_footer_size);
    if (p == nullptr) return nullptr;
    prefetch_for_fill(p, size);
    stats().m_block_info_map.prefetch(p);
    block_info bi;
    bi.m_addr = p;
    bi.m_size = size;
    bi.m_alloc_size = size + k_footer_size;
    bi.m_alloc_uid = bt.get_cookie();
    if (!register_block(bt, bi)) {
        tarvex::next_free(p);
        errno = ENOMEM;
        return nullptr;
    }
    if (from != source::calloc_) memset(p, 0xDE, size);
    block_info::update_block_info_footer(bt, bi.create_footer());
    errno = saved_errno;
    return p;
}

// ---------------------------------------------------------------- faults

struct fault_site {
    unsigned unknown_line;
    unsigned footer_line;
    const char* function;
};
const fault_site k_free_site = {113, 125, "void free(void*)"};
const fault_site k_realloc_site = {230, 245, "void* realloc(void*, size_t)"};

// One fault report at a time: a second thread that meets a fault waits here
// until the first one has stopped the process, so reports never interleave.
pthread_mutex_t g_fault_mutex = PTHREAD_MUTEX_INITIALIZER;

void print_block_report(const char* heading, block_info& bi) {
    std::vector<std::string> lines;
    try {
        bi.format_block_info(lines);
    } catch (...) {
    }
    puts(heading);
    for (const std::string& line : lines) puts(line.c_str());
}

[[noreturn]] void stop_unknown(void* ptr, const fault_site& site) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);  // the report is printed whole
    pthread_mutex_lock(&g_fault_mutex);
    printf("Failed to find block info for 0x%p\n", ptr);
    block_info bi;
    if (stats().find_in_freed_list(ptr, bi)) print_block_report("*** Double free ***", bi);
    tarvex::fail_assert("0", "lib/trvx_hook", site.unknown_line, site.function);
}

[[noreturn]] void stop_bad_footer(block_info& bi, const fault_site& site) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_mutex_lock(&g_fault_mutex);
    print_block_report("*** Failed to verify the footer ***", bi);
    tarvex::fail_assert("0", "lib/trvx_hook", site.footer_line, site.function);
}

// ---------------------------------------------------------------- tracked release

void give_back_due_blocks() {
    while (void* p = stats().get_next_to_free()) tarvex::next_free(p);
}

// Verify, poison, quarantine and give back. If the quarantine cannot get
// memory for the record, the block is given back at once rather than lost.
void release_known(tarvex::backtrace& bt, block_info& bi, const fault_site& site) {
    try {
        g_ctx->m_symbols.update_bt_cache(bt);
    } catch (...) {
    }
    bi.m_free_uid = bt.get_cookie();
    if (!bi.verify_footer()) stop_bad_footer(bi, site);
    block_info::update_block_info_footer(bt, bi.footer());
    memset(bi.m_addr, 0xDD, bi.m_size);
    // Quarantine and take what is due under one hold of the store's mutex;
    // the blocks are given back without it.
    constexpr size_t k_batch = 16;
    void* due[k_batch];
    size_t n;
    try {
        n = stats().delayed_free_and_take(bi, due, k_batch);
    } catch (...) {
        tarvex::next_free(bi.m_addr);
        return;
    }
    for (size_t i = 0; i < n; ++i) {
        if (i + 1 < n) __builtin_prefetch(static_cast<char*>(due[i + 1]) - 16, 1);
        tarvex::next_free(due[i]);
    }
    if (n == k_batch)
        while (void* p = stats().get_next_own_to_free()) tarvex::next_free(p);
}

void free_tracked(tarvex::backtrace& bt, void* ptr) {
    int saved_errno = errno;
    block_info bi;
    if (stats().find_and_remove_block_info(ptr, bi)) {
        release_known(bt, bi, k_free_site);
    } else if (untracked_blocks().erase(ptr)) {
        tarvex::next_free(ptr);
    } else {
        stop_unknown(ptr, k_free_site);
    }
    errno = saved_errno;
}

// realloc always moves: the new block is registered before the old one is
// looked up, and one stack serves as the new block's alloc uid and the old
// block's free uid.
void* realloc_tracked(tarvex::backtrace& bt, void* ptr, size_t size) {
    int saved_errno = errno;
    void* fresh = nullptr;
    if (size != 0) {
        fresh = allocate_tracked(bt, source::malloc_, 0, size);
        if (fresh == nullptr) return nullptr;
    }
    if (ptr != nullptr) {
        block_info old;
        if (stats().find_and_remove_block_info(ptr, old)) {
            if (fresh != nullptr) memcpy(fresh, ptr, old.m_size < size ? old.m_size : size);
            release_known(bt, old, k_realloc_site);
        } else if (untracked_blocks().contains(ptr)) {
            size_t usable = tarvex::next_usable_size(ptr);
            if (fresh != nullptr) memcpy(fresh, ptr, usable < size ? usable : size);
            untracked_blocks().erase(ptr);
            tarvex::next_free(ptr);
        } else {
            stop_unknown(ptr, k_realloc_site);
        }
    }
    errno = saved_errno;
    return fresh;
}

bool is_power_of_two(size_t v) { return v != 0 && (v & (v - 1)) == 0; }

}  // namespace

// ---------------------------------------------------------------- interposed functions

#define TRVX_EXPORT_C extern "C" __attribute__((visibility("default")))

// The four hot entry points (malloc, calloc, realloc, free) test in their
// first lines whether the process passes everything through and then jump
// straight to the next definition, without a stack frame: the rest of their
// work sits in the never-inlined helpers below, the arguments pass through a
// stack slot (spilled), and no global is addressed in both parts. GCC
// otherwise builds the whole frame (six pushes and a 600-byte stack for the
// captured stack) before the first test, for every call of every process.
// Only the capture itself stays in the entry point's body, so that frame 1
// of a captured stack lies in the interposed function.
namespace {
template <class T>
inline T spilled(T v) {
    volatile T slot = v;
    return slot;
}

// The untracked cases of malloc. True when the call is to be tracked: the
// guard is then held. Otherwise the result is in *out.
__attribute__((noinline)) bool malloc_enter(size_t size, void* caller, void** out) {
    resolve(g_next_malloc, g_resolving.malloc_, "malloc");
    if (!frame_ready()) {
        *out = while_building(tarvex::next_malloc(size));
    } else if (size == 0) {
        *out = maybe_target() ? untracked(tarvex::next_malloc(0)) : tarvex::next_malloc(0);
    } else if (!proc_info::is_target()) {
        *out = other_process(tarvex::next_malloc(size));
    } else if (!enter_tracking(caller)) {
        *out = untracked(tarvex::next_malloc(size));
    } else {
        return true;
    }
    return false;
}

__attribute__((noinline)) void* malloc_tracked(tarvex::backtrace& bt, size_t size) {
    void* p = allocate_tracked(bt, source::malloc_, 0, size);
    guard().leave();
    return p;
}
}  // namespace

TRVX_EXPORT_C void* malloc(size_t size_arg) {
    trvx_malloc_fn next = __atomic_load_n(&g_next_malloc, __ATOMIC_ACQUIRE);
    if (__builtin_expect(next != nullptr && pass_through_process(), 1)) return next(size_arg);
    size_t size = spilled(size_arg);
    void* p;
    if (!malloc_enter(size, __builtin_return_address(0), &p)) return p;
    tarvex::backtrace bt;
    return malloc_tracked(bt, size);
}

TRVX_EXPORT_C void* valloc(size_t size) {
    resolve(g_next_valloc, g_resolving.valloc_, "valloc");
    if (!frame_ready() || g_next_valloc == nullptr) {
        void* p = tarvex::next_memalign(sysconf(_SC_PAGESIZE), size);
        return frame_ready() ? (maybe_target() ? untracked(p) : p) : while_building(p);
    }
    if (size == 0) return maybe_target() ? untracked(g_next_valloc(0)) : g_next_valloc(0);
    if (!proc_info::is_target()) return other_process(g_next_valloc(size));
    if (!enter_tracking(__builtin_return_address(0))) return untracked(g_next_valloc(size));
    tarvex::backtrace bt;
    void* p = allocate_tracked(bt, source::valloc_, 0, size);
    guard().leave();
    return p;
}

namespace {
__attribute__((noinline)) bool calloc_enter(size_t count, size_t size, void* caller, void** out) {
    if (__atomic_load_n(&g_next_calloc, __ATOMIC_ACQUIRE) == nullptr) {
        void* p = nullptr;
        if (!__atomic_exchange_n(&g_calloc_resolving, true, __ATOMIC_ACQ_REL)) p = dlsym(RTLD_NEXT, "calloc");
        if (p == nullptr) {
            *out = calloc_from_break(count, size);
            return false;
        }
        __atomic_store_n(&g_next_calloc, reinterpret_cast<trvx_calloc_fn>(p), __ATOMIC_RELEASE);
    }
    if (!frame_ready()) {
        *out = while_building(g_next_calloc(count, size));
    } else if (size == 0 || count == 0) {
        *out = maybe_target() ? untracked(g_next_calloc(count, size)) : g_next_calloc(count, size);
    } else if (!proc_info::is_target()) {
        *out = other_process(g_next_calloc(count, size));
    } else if (!enter_tracking(caller)) {
        *out = untracked(g_next_calloc(count, size));
    } else {
        return true;
    }
    return false;
}

__attribute__((noinline)) void* calloc_tracked(tarvex::backtrace& bt, size_t count, size_t size) {
    size_t n;
    void* p;
    if (__builtin_mul_overflow(count, size, &n)) {
        errno = ENOMEM;
        p = nullptr;
    } else {
        p = allocate_tracked(bt, source::calloc_, 0, n);
    }
    guard().leave();
    return p;
}
}  // namespace

TRVX_EXPORT_C void* calloc(size_t count_arg, size_t size_arg) {
    trvx_calloc_fn next = __atomic_load_n(&g_next_calloc, __ATOMIC_ACQUIRE);
    if (__builtin_expect(next != nullptr && pass_through_process(), 1)) return next(count_arg, size_arg);
    size_t count = spilled(count_arg);
    size_t size = spilled(size_arg);
    void* p;
    if (!calloc_enter(count, size, __builtin_return_address(0), &p)) return p;
    tarvex::backtrace bt;
    return calloc_tracked(bt, count, size);
}

namespace {
// The untracked cases of free; true when the release is to be tracked (the
// guard is then held).
__attribute__((noinline)) bool free_enter(void* ptr, void* caller) {
    resolve(g_next_free, g_resolving.free_, "free");
    if (ptr == nullptr) {
        frame_ready();  // like every allocation call, the first free(NULL) builds the context
        tarvex::next_free(ptr);
        return false;
    }
    if (tarvex::in_break_range(ptr, nullptr)) return false;  // from the program break: never given back
    if (!frame_ready()) {
        untracked_blocks().erase(ptr);
        tarvex::next_free(ptr);
        return false;
    }
    if (!proc_info::is_target()) {
        if (decision_pending()) untracked_blocks().erase(ptr);
        tarvex::next_free(ptr);
        return false;
    }
    if (!enter_tracking(caller)) {
        untracked_blocks().erase(ptr);
        tarvex::next_free(ptr);
        return false;
    }
    // The registry's line for ptr is fetched while the stack is captured.
    stats().m_block_info_map.prefetch(ptr);
    stats().m_delayed_free_queue.prefetch_count();
    return true;
}

__attribute__((noinline)) void free_and_leave(tarvex::backtrace& bt, void* ptr) {
    free_tracked(bt, ptr);
    guard().leave();
}
}  // namespace

TRVX_EXPORT_C void free(void* ptr_arg) {
    trvx_free_fn next = __atomic_load_n(&g_next_free, __ATOMIC_ACQUIRE);
    if (__builtin_expect(next != nullptr && pass_through_process() && !tarvex::break_ranges_exist(), 1))
        return next(ptr_arg);
    void* ptr = spilled(ptr_arg);
    if (!free_enter(ptr, __builtin_return_address(0))) return;
    tarvex::backtrace bt;
    free_and_leave(bt, ptr);
}

namespace {
// realloc of memory from the program break: moved onto the heap, never
// given back.
void* realloc_from_break(void* ptr, size_t size, size_t available) {
    if (size == 0) return nullptr;
    void* fresh = malloc(size);
    if (fresh != nullptr) memcpy(fresh, ptr, available < size ? available : size);
    return fresh;
}

// Pass-through realloc of the target process: keeps the record of untracked
// blocks exact.
void* realloc_untracked(void* ptr, size_t size) {
    void* q = tarvex::next_realloc(ptr, size);
    if (q != nullptr || size == 0) {
        if (ptr != nullptr) untracked_blocks().erase(ptr);
        if (q != nullptr) untracked_blocks().insert(q);
    }
    return q;
}
}  // namespace

namespace {
__attribute__((noinline)) bool realloc_enter(void* ptr, size_t size, void* caller, void** out) {
    resolve(g_next_realloc, g_resolving.realloc_, "realloc");
    size_t available;
    if (ptr != nullptr && tarvex::in_break_range(ptr, &available)) {
        *out = realloc_from_break(ptr, size, available);
    } else if (!frame_ready()) {
        *out = while_building(realloc_untracked(ptr, size));
    } else if (!proc_info::is_target()) {
        *out = decision_pending() ? realloc_untracked(ptr, size) : tarvex::next_realloc(ptr, size);
    } else if (!enter_tracking(caller)) {
        *out = realloc_untracked(ptr, size);
    } else {
        // The registry's line for the old block is fetched while the stack
        // is captured and the new block is made.
        if (ptr != nullptr) {
            stats().m_block_info_map.prefetch(ptr);
            stats().m_delayed_free_queue.prefetch_count();
        }
        return true;
    }
    return false;
}

__attribute__((noinline)) void* realloc_and_leave(tarvex::backtrace& bt, void* ptr, size_t size) {
    void* p = realloc_tracked(bt, ptr, size);
    guard().leave();
    return p;
}
}  // namespace

TRVX_EXPORT_C void* realloc(void* ptr_arg, size_t size_arg) {
    trvx_realloc_fn next = __atomic_load_n(&g_next_realloc, __ATOMIC_ACQUIRE);
    if (__builtin_expect(next != nullptr && pass_through_process() && !tarvex::break_ranges_exist(), 1))
        return next(ptr_arg, size_arg);
    void* ptr = spilled(ptr_arg);
    size_t size = spilled(size_arg);
    void* p;
    if (!realloc_enter(ptr, size, __builtin_return_address(0), &p)) return p;
    tarvex::backtrace bt;
    return realloc_and_leave(bt, ptr, size);
}

TRVX_EXPORT_C void* reallocarray(void* ptr, size_t count, size_t size) {
    resolve(g_next_realloc, g_resolving.realloc_, "realloc");
    size_t n;
    if (__builtin_mul_overflow(count, size, &n)) {
        errno = ENOMEM;
        return nullptr;
    }
    // Without an old block this is an allocation, and as in the C library a
    // zero-size one gives a valid block: gnulib's xreallocarray (sed, grep,
    // tar...) takes null from reallocarray(NULL, 0, size) for exhaustion.
    if (ptr == nullptr && n == 0) return malloc(0);
    size_t available;
    if (ptr != nullptr && tarvex::in_break_range(ptr, &available)) return realloc_from_break(ptr, n, available);
    if (!frame_ready()) return while_building(realloc_untracked(ptr, n));
    if (!proc_info::is_target()) return decision_pending() ? realloc_untracked(ptr, n) : tarvex::next_realloc(ptr, n);
    if (!enter_tracking(__builtin_return_address(0))) return realloc_untracked(ptr, n);
    tarvex::backtrace bt;
    void* p = realloc_tracked(bt, ptr, n);
    guard().leave();
    return p;
}

TRVX_EXPORT_C char* __strdup(const char* s) { return strdup(s); }

// The aligned family: blocks are tracked like valloc's, aligned by the next
// allocator with the footer behind the user bytes, so their release is
// clean and their overflows are caught.
namespace {
void* memalign_untracked(size_t align, size_t size) {
    void* p = tarvex::next_memalign(align, size);
    if (!frame_ready()) return while_building(p);
    return maybe_target() ? untracked(p) : p;
}
}  // namespace

TRVX_EXPORT_C void* memalign(size_t align, size_t size) {
    resolve(g_next_memalign, g_resolving.memalign_, "memalign");
    if (!frame_ready() || size == 0) return memalign_untracked(align, size);
    if (!proc_info::is_target()) return other_process(tarvex::next_memalign(align, size));
    if (!enter_tracking(__builtin_return_address(0))) return untracked(tarvex::next_memalign(align, size));
    tarvex::backtrace bt;
    void* p = allocate_tracked(bt, source::memalign_, align, size);
    guard().leave();
    return p;
}

// The alignment is not checked: like the C library's, memalign rounds an
// alignment that is not a power of two up.
TRVX_EXPORT_C void* aligned_alloc(size_t align, size_t size) {
    resolve(g_next_memalign, g_resolving.memalign_, "memalign");
    if (!frame_ready() || size == 0) return memalign_untracked(align, size);
    if (!proc_info::is_target()) return other_process(tarvex::next_memalign(align, size));
    if (!enter_tracking(__builtin_return_address(0))) return untracked(tarvex::next_memalign(align, size));
    tarvex::backtrace bt;
    void* p = allocate_tracked(bt, source::memalign_, align, size);
    guard().leave();
    return p;
}

TRVX_EXPORT_C int posix_memalign(void** out, size_t align, size_t size) {
    resolve(g_next_memalign, g_resolving.memalign_, "memalign");
    if (!is_power_of_two(align) || align % sizeof(void*) != 0) return EINVAL;
    int saved_errno = errno;
    void* p;
    if (!frame_ready() || size == 0) {
        p = memalign_untracked(align, size);
    } else if (!proc_info::is_target()) {
        p = other_process(tarvex::next_memalign(align, size));
    } else if (!enter_tracking(__builtin_return_address(0))) {
        p = untracked(tarvex::next_memalign(align, size));
    } else {
        tarvex::backtrace bt;
        p = allocate_tracked(bt, source::memalign_, align, size);
        guard().leave();
    }
    errno = saved_errno;
    if (p == nullptr) return ENOMEM;
    *out = p;
    return 0;
}

TRVX_EXPORT_C void* pvalloc(size_t size) {
    resolve(g_next_memalign, g_resolving.memalign_, "memalign");
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t rounded;
    if (__builtin_add_overflow(size, page - 1, &rounded)) {
        errno = ENOMEM;
        return nullptr;
    }
    rounded &= ~(page - 1);
    if (!frame_ready() || rounded == 0) return memalign_untracked(page, rounded ? rounded : page);
    if (!proc_info::is_target()) return other_process(tarvex::next_memalign(page, rounded));
    if (!enter_tracking(__builtin_return_address(0))) return untracked(tarvex::next_memalign(page, rounded));
    tarvex::backtrace bt;
    void* p = allocate_tracked(bt, source::memalign_, page, rounded);
    guard().leave();
    return p;
}

// The usable size of a tracked block is the size the program asked for, so
// code that fills a block up to its usable size never writes into the footer.
TRVX_EXPORT_C size_t malloc_usable_size(void* ptr) {
    resolve(g_next_usable_size, g_resolving.usable_size_, "malloc_usable_size");
    if (ptr == nullptr) return 0;
    // From inside the library (a signal handler that interrupted an
    // allocation or a release on this thread, which may hold a registry or
    // quarantine lock) the C library answers alone.
    if (frame_ready() && proc_info::is_target() && guard().try_enter()) {
        block_info bi;
        bool live = stats().find_block_info(ptr, bi);
        // A block that another thread released may be out of the quarantine
        // while its memory still waits for that thread to give it back: what
        // is due goes back first, so that the answer is the allocator's for
        // a block given back.
        if (!live) give_back_due_blocks();
        guard().leave();
        if (live) return bi.m_size;
    }
    return tarvex::next_usable_size(ptr);
}

// A library loaded with RTLD_DEEPBIND looks its symbols up in its own
// dependencies first, so its malloc and free would be the C library's, not
// tarvex's: its blocks would be unknown to tarvex's free and the program's
// blocks released inside it would leave the registry behind. In the target
// process the flag is therefore dropped. The next dlopen must see the
// program's return address (it looks relative names up in the calling
// object's RUNPATH), so dlopen is a small assembly trampoline that adjusts
// the flags and jumps on with the caller's return address on the stack.
extern "C" {
__attribute__((visibility("hidden"))) void* g_trvx_next_dlopen;

__attribute__((visibility("hidden"))) int trvx_dlopen_flags(int flags) {
    if (__atomic_load_n(&g_trvx_next_dlopen, __ATOMIC_ACQUIRE) == nullptr)
        __atomic_store_n(&g_trvx_next_dlopen, dlsym(RTLD_NEXT, "dlopen"), __ATOMIC_RELEASE);
    if ((flags & RTLD_DEEPBIND) && proc_info::is_target()) flags &= ~RTLD_DEEPBIND;
    return flags;
}
}

asm(R"(
    .text
    .globl dlopen
    .type dlopen,@function
dlopen:
    .cfi_startproc
    pushq %rdi
    .cfi_adjust_cfa_offset 8
    pushq %rsi
    .cfi_adjust_cfa_offset 8
    subq $8, %rsp
    .cfi_adjust_cfa_offset 8
    movl %esi, %edi
    call trvx_dlopen_flags
    addq $8, %rsp
    .cfi_adjust_cfa_offset -8
    popq %rsi
    .cfi_adjust_cfa_offset -8
    popq %rdi
    .cfi_adjust_cfa_offset -8
    movl %eax, %esi
    jmp *g_trvx_next_dlopen(%rip)
    .cfi_endproc
    .size dlopen, .-dlopen
)");

// Code of the unloaded object may be replaced by another at the same
// addresses: the cached unwind rules are forgotten.
TRVX_EXPORT_C int dlclose(void* handle) {
    static int (*next_dlclose)(void*);
    if (next_dlclose == nullptr)
        __atomic_store_n(&next_dlclose, reinterpret_cast<int (*)(void*)>(dlsym(RTLD_NEXT, "dlclose")), __ATOMIC_RELEASE);
    int result = next_dlclose ? next_dlclose(handle) : -1;
    tarvex::unwind_cache_invalidate();
    return result;
}

// ---------------------------------------------------------------- control functions

namespace {
// A control function called before the first allocation builds the context
// as the bootstrap would; one that meets the context being built waits for
// it (the building thread waits for nothing).
// The wait is bounded: the context may be being built by this very thread
// (a signal handler that interrupted its first allocation), or by a thread
// that does not exist in this process (a child forked meanwhile). The call
// then does nothing.
bool context_for_control() {
    resolve(g_next_malloc, g_resolving.malloc_, "malloc");
    resolve(g_next_free, g_resolving.free_, "free");
    for (int spins = 0; !frame_ready(); ++spins) {
        if (__atomic_load_n(&g_init_failed, __ATOMIC_ACQUIRE) || spins == 100000) return false;
        sched_yield();
    }
    return true;
}

// A call from a thread that is already inside the library (a signal handler
// that interrupted it) does nothing: running the operation could wait for a
// mutex that the interrupted call holds, and releasing the guard afterwards
// would free the slot that the interrupted call still counts on.
template <class Op>
void run_control(Op op) {
    if (!context_for_control()) return;
    if (!guard().check_and_set_current_thread()) return;
    int saved_errno = errno;
    // The reports write files, and file operations are cancellation points:
    // a cancelled thread leaves the library only after the operation, so
    // that no lock and no guard slot stays behind.
    int cancel_state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    try {
        op(stats());
    } catch (...) {
    }
    guard().remove_current_thread();
    pthread_setcancelstate(cancel_state, nullptr);
    errno = saved_errno;
    // A cancellation that arrived meanwhile acts now, outside the library,
    // as it would have inside the report's file operations.
    if (cancel_state == PTHREAD_CANCEL_ENABLE) pthread_testcancel();
}
}  // namespace

TRVX_EXPORT_C void trvx_trace_start() {
    run_control([](mem_stats& s) { s.trace_start(); });
}
TRVX_EXPORT_C void trvx_trace_stop() {
    run_control([](mem_stats& s) { s.trace_stop(); });
}
TRVX_EXPORT_C void trvx_trace_clear() {
    run_control([](mem_stats& s) { s.trace_clear(); });
}
TRVX_EXPORT_C void trvx_trace_dump() {
    run_control([](mem_stats& s) { s.trace_dump(); });
}
TRVX_EXPORT_C void trvx_dump_alloc_stats(unsigned long n) {
    run_control([n](mem_stats& s) { s.dump_alloc_stats(n); });
}
TRVX_EXPORT_C void trvx_clear_alloc_stats() {
    run_control([](mem_stats& s) { s.clear_alloc_stats(); });
}
