// The scenarios that need threads or the C++ runtime, one mode each:
//
//   stress_cpp fork N          N forks of a busy multithreaded target
//   stress_cpp threads OPS     64 threads share blocks; exact totals after
//   stress_cpp realtime N      a SCHED_FIFO thread and an ordinary one on one core
//   stress_cpp signal          control functions from signal handlers
//   stress_cpp dlopen          the plugin loaded and closed 50 times
//   stress_cpp exit            releases after main returns
//   stress_cpp exit-double-free
//   stress_cpp same-block      two threads release one block at once
//   stress_cpp four-faults     four threads hit four faults at once
//
// Expects TARVEX_TARGET_PROC_NAME=stress_cpp; most modes print "MODE: ok".
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>

#include <atomic>
#include <map>
#include <string>

#include "scenario_util.h"

extern char** environ;

namespace {

std::atomic<bool> g_stop{false};
const char* g_log;

void start(pthread_t* t, void* (*body)(void*), uintptr_t arg) {
    CHECK(pthread_create(t, nullptr, body, reinterpret_cast<void*>(arg)) == 0, "pthread_create failed");
}

// ---------------------------------------------------------------- fork

char g_probe[4096];  // stress_c, next to this program
void* g_marker[3];

void* allocator_thread(void* arg) {
    uint32_t seed = 0x9E3779B9u ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
    void* slots[64] = {};
    while (!g_stop.load(std::memory_order_relaxed)) {
        uint32_t r = next_random(&seed);
        void*& slot = slots[r % 64];
        size_t size = 1 + (r >> 8) % 2048;
        if (slot == nullptr)
            slot = (r >> 20) % 2 ? malloc(size) : calloc(1, size);
        else if ((r >> 20) % 2)
            slot = realloc(slot, size);
        else
            free(slot), slot = nullptr;
    }
    for (void* p : slots) free(p);
    return nullptr;
}

// One writes top reports and trace dumps, the other top reports only, so
// that forks and requests also meet a report in progress.
void* reporter_thread(void* traces) {
    for (unsigned k = 1; !g_stop.load(std::memory_order_relaxed); ++k) {
        trvx_dump_alloc_stats(5);
        if (traces != nullptr) {
            trvx_trace_start();
            free(malloc(32));
            trvx_trace_stop();
            trvx_trace_dump();
            trvx_trace_clear();
            if (k % 8 == 0) trvx_clear_alloc_stats();
        }
        usleep(1000);
    }
    return nullptr;
}

// A child allocates, resizes, releases what the parent allocated, reports
// and traces at once, whatever the parent's threads were doing at the fork.
void child_work(void* inherited) {
    void* p = realloc(malloc(100), 300);
    CHECK(is_tracked(p, 300), "child: realloc to 300 bytes is not tracked");
    free(p);
    CHECK(is_tracked(inherited, 64), "child: the parent's block is not tracked");
    free(inherited);
    // Three blocks of this size outweigh any site of the allocator threads.
    // They stay: releasing them would drain the inherited quarantine, a
    // copy-on-write fault for every page of it.
    for (void*& m : g_marker) m = malloc(300007);
    // A report that the parent was writing at the fork may still land
    // around ours; one of a few attempts sees our rows whole.
    bool seen = false;
    for (int i = 0; i < 3 && !seen; ++i) seen = strstr(report(g_log), "size: 900021, count: 3\n") != nullptr;
    CHECK(seen, "child: its top report was not written");
    trvx_trace_start();
    free(calloc(2, 50));
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_trace_clear();
}

// Each new program image decides afresh, by its own name, whether it is the
// target.
void spawn_checks() {
    char* untracked[] = {g_probe, const_cast<char*>("probe"), const_cast<char*>("untracked"), nullptr};
    char* tracked[] = {g_probe, const_cast<char*>("probe"), const_cast<char*>("tracked"), nullptr};
    pid_t pid = vfork();
    if (pid == 0) {
        execve(g_probe, untracked, environ);
        _exit(127);
    }
    wait_ok(pid, "vfork+exec of stress_c");
    CHECK(posix_spawn(&pid, g_probe, nullptr, nullptr, untracked, environ) == 0, "posix_spawn failed");
    wait_ok(pid, "posix_spawn of stress_c");
    if ((pid = fork()) == 0) {
        setenv("TARVEX_TARGET_PROC_NAME", "stress_c", 1);
        execv(g_probe, tracked);
        _exit(127);
    }
    wait_ok(pid, "fork+exec of stress_c named as the target");
    static char command[4200];
    snprintf(command, sizeof command, "'%s' probe untracked", g_probe);
    CHECK(system(command) == 0, "system() of stress_c failed");
}

int fork_loop(int iterations) {
    ssize_t n = readlink("/proc/self/exe", g_probe, sizeof g_probe - 16);
    CHECK(n > 0, "readlink /proc/self/exe failed");
    strcpy(strrchr(g_probe, '/') + 1, "stress_c");
    pthread_t threads[6];
    for (int i = 0; i < 4; ++i) start(&threads[i], allocator_thread, i + 1);
    start(&threads[4], reporter_thread, 1);
    start(&threads[5], reporter_thread, 0);
    for (int i = 0; i < iterations; ++i) {
        void* inherited = malloc(64);
        pid_t pid = fork();
        if (pid == 0) {
            child_work(inherited);
            if (i % 2) exit(0);
            _exit(0);
        }
        free(inherited);
        wait_ok(pid, "forked child");
        if (i % 25 == 0) spawn_checks();
    }
    g_stop = true;
    for (pthread_t t : threads) pthread_join(t, nullptr);
    void* p = malloc(77);
    CHECK(is_tracked(p, 77), "parent: malloc(77) is not tracked after the forks");
    free(p);
    puts("fork: ok");
    return 0;
}

// ---------------------------------------------------------------- threads

// 64 workers make OPS operations each on a shared table of blocks, so that
// a block one thread allocated is resized or released by another, while
// five control threads trace, report and clear. Afterwards the top report
// must account for exactly what the program holds.
constexpr int k_workers = 64, k_controls = 5;
constexpr size_t k_slots = 8192;
std::atomic<char*> g_slots[k_slots];
std::atomic<long> g_ops_done{0};
long g_ops_per_thread;
pthread_barrier_t g_start, g_parked, g_release;

// Every block carries its size in its first 8 bytes and a check byte in its
// last one, so that any thread can verify and account for it.
void stamp(char* p, size_t size) {
    memcpy(p, &size, sizeof size);
    p[size - 1] = static_cast<char>(size * 31 + 7);
}

size_t verify(char* p) {
    size_t size;
    memcpy(&size, p, sizeof size);
    CHECK(size >= 16 && size <= 70000 && p[size - 1] == static_cast<char>(size * 31 + 7), "block %p is corrupt",
          static_cast<void*>(p));
    return size;
}

size_t random_size(uint32_t r) {
    return (r & 0xF000) == 0 ? 16 + (r >> 16) % 65536 : 16 + (r >> 16) % 512;  // sometimes a few pages
}

char* allocate(uint32_t r, size_t size) {
    void* p = nullptr;
    switch ((r >> 4) % 5) {
        case 0: p = malloc(size); break;
        case 1: p = calloc(size, 1); break;
        case 2: p = realloc(nullptr, size); break;
        case 3: p = posix_memalign(&p, 16u << (r % 3), size) == 0 ? p : nullptr; break;
        default: p = aligned_alloc(64, size); break;
    }
    CHECK(p != nullptr, "allocation of %zu bytes failed", size);
    stamp(static_cast<char*>(p), size);
    return static_cast<char*>(p);
}

// Puts a block into an empty slot, or releases it when another thread was
// quicker.
void publish(std::atomic<char*>& slot, char* p) {
    char* expected = nullptr;
    if (!slot.compare_exchange_strong(expected, p)) free(p);
}

void* worker(void* arg) {
    uint32_t seed = 0x2545F491u * static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg) + 1);
    pthread_barrier_wait(&g_start);
    for (long op = 0; op < g_ops_per_thread; ++op) {
        uint32_t r = next_random(&seed);
        std::atomic<char*>& slot = g_slots[(r >> 3) % k_slots];
        char* p = slot.exchange(nullptr);
        if (p == nullptr) {
            publish(slot, allocate(r, random_size(next_random(&seed))));
            continue;
        }
        size_t size = verify(p);
        CHECK(op % 16 || malloc_usable_size(p) == size, "malloc_usable_size(%p) is not %zu", static_cast<void*>(p), size);
        if (r % 3 == 0) {
            free(p);
            continue;
        }
        size_t new_size = random_size(next_random(&seed));
        char* q = static_cast<char*>(realloc(p, new_size));
        CHECK(q != nullptr && memcmp(q, &size, sizeof size) == 0, "realloc lost the contents of a %zu-byte block", size);
        stamp(q, new_size);
        publish(slot, q);
        if (op % 4096 == 0) trvx_trace_start();
    }
    g_ops_done += g_ops_per_thread;
    pthread_barrier_wait(&g_parked);
    pthread_barrier_wait(&g_release);
    return nullptr;
}

void* control(void* arg) {
    uint32_t role = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg)), seed = 77 + role;
    pthread_barrier_wait(&g_start);
    while (!g_stop.load()) {
        // Roles 0 to 3 repeat one sequence; role 4 runs every control
        // function in random order.
        switch (role < 4 ? role : 4 + next_random(&seed) % 6) {
            case 0: trvx_dump_alloc_stats(10); break;
            case 1: trvx_trace_stop(), trvx_trace_dump(), trvx_trace_clear(); break;
            case 2: trvx_clear_alloc_stats(); break;
            case 3: trvx_trace_start(), trvx_trace_stop(); break;
            case 4: trvx_trace_start(); break;
            case 5: trvx_trace_stop(); break;
            case 6: trvx_trace_clear(); break;
            case 7: trvx_trace_dump(); break;
            case 8: trvx_dump_alloc_stats(next_random(&seed) % 4); break;
            default: trvx_clear_alloc_stats(); break;
        }
        usleep(role == 3 ? 2000 : 20000);
    }
    trvx_trace_stop();
    pthread_barrier_wait(&g_parked);
    pthread_barrier_wait(&g_release);
    return nullptr;
}

int threads(long ops) {
    g_ops_per_thread = ops;
    for (pthread_barrier_t* b : {&g_start, &g_parked, &g_release})
        pthread_barrier_init(b, nullptr, k_workers + k_controls + 1);
    pthread_t threads[k_workers + k_controls];
    for (int i = 0; i < k_workers + k_controls; ++i)
        start(&threads[i], i < k_workers ? worker : control, static_cast<uintptr_t>(i < k_workers ? i : i - k_workers));
    // Every thread exists and waits: what the C library allocated for them
    // is part of the baseline, and nothing exits before the checks.
    long long baseline = report_total(g_log, nullptr, 0);
    pthread_barrier_wait(&g_start);
    while (g_ops_done.load() < k_workers * ops) usleep(10000);
    g_stop = true;
    pthread_barrier_wait(&g_parked);
    long long held = 0;
    for (std::atomic<char*>& slot : g_slots)
        if (char* p = slot.load()) held += static_cast<long long>(verify(p));
    long long after = report_total(g_log, nullptr, 0);
    CHECK(after - baseline == held, "live bytes grew by %lld, the program holds %lld", after - baseline, held);
    for (std::atomic<char*>& slot : g_slots) free(slot.exchange(nullptr));
    after = report_total(g_log, nullptr, 0);
    CHECK(after == baseline, "after releasing everything live bytes are %lld, not %lld", after, baseline);
    pthread_barrier_wait(&g_release);
    for (pthread_t t : threads) pthread_join(t, nullptr);
    printf("threads: ok (%ld operations)\n", k_workers * ops);
    return 0;
}

// ---------------------------------------------------------------- realtime

// An ordinary thread allocates without a pause; a SCHED_FIFO thread on the
// same core wakes every 200 microseconds to allocate. When it preempts the
// ordinary thread inside one of the library's locks it must wait without
// keeping the holder off the core.
void* ordinary(void*) {
    for (uint32_t seed = 1; !g_stop.load(std::memory_order_relaxed);) free(malloc(16 + next_random(&seed) % 500));
    return nullptr;
}

void* realtime_thread(void* n) {
    timespec pause = {0, 200000};
    for (uintptr_t i = 0; i < reinterpret_cast<uintptr_t>(n); ++i) {
        nanosleep(&pause, nullptr);
        free(malloc(64));
    }
    return nullptr;
}

int realtime(uintptr_t iterations) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu() < 0 ? 0 : sched_getcpu(), &one);
    CHECK(sched_setaffinity(0, sizeof one, &one) == 0, "sched_setaffinity failed");
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
    sched_param prio = {};
    prio.sched_priority = 1;
    pthread_attr_setschedparam(&attr, &prio);
    pthread_t worker, rt;
    start(&worker, ordinary, 0);
    time_t begin = time(nullptr);
    int rc = pthread_create(&rt, &attr, realtime_thread, reinterpret_cast<void*>(iterations));
    if (rc == 0) pthread_join(rt, nullptr);
    g_stop = true;
    pthread_join(worker, nullptr);
    CHECK(rc == 0 || rc == EPERM, "pthread_create (SCHED_FIFO) failed: %d", rc);
    // A second or two when waiters sleep; each meeting costs a waiter that
    // keeps the holder off the core up to the kernel's real-time throttling.
    CHECK(time(nullptr) - begin < 15, "%ld s: a waiter kept the lock's holder off the core", time(nullptr) - begin);
    puts(rc == 0 ? "realtime: ok" : "realtime: skipped (no permission for SCHED_FIFO)");
    return 0;
}

// ---------------------------------------------------------------- signals

// Handlers that land anywhere in tracked work. Two busy threads allocate,
// resize, release and write reports of their own; SIGUSR1 interrupts them,
// and its handler runs every control function and malloc_usable_size in
// turn. SIGUSR2 interrupts the main thread, which allocates and forks: its
// handler asks usable sizes and stops the trace, also while the library
// holds its locks for the fork (and nothing that allocates: glibc's fork
// holds malloc's own locks for part of that time). No handler may wait for
// a lock that its own thread holds, nor free the guard slot that the
// interrupted call still counts on.
void* g_live[64];
volatile size_t g_usable_sum;
std::atomic<int> g_handled{0};
pthread_t g_targets[3];

void usable_sizes() {
    for (void* p : g_live) g_usable_sum = g_usable_sum + malloc_usable_size(p);
}

void on_busy_signal(int) {
    int saved = errno;
    switch (g_handled++ % 7) {
        case 0: trvx_dump_alloc_stats(3); break;
        case 1: trvx_trace_start(); break;
        case 2: trvx_trace_dump(); break;
        case 3: trvx_trace_stop(); break;
        case 4: trvx_trace_clear(); break;
        case 5: trvx_clear_alloc_stats(); break;
        default: usable_sizes(); break;
    }
    errno = saved;
}

void on_main_signal(int) {
    usable_sizes();
    if (g_handled++ % 8 == 0) trvx_trace_stop();
}

void* busy_thread(void*) {
    void* slots[32] = {};
    for (unsigned k = 0; !g_stop.load(std::memory_order_relaxed); ++k) {
        void*& slot = slots[k % 32];
        if (slot == nullptr)
            slot = malloc(16 + k % 300);
        else if (k % 3 == 0)
            slot = realloc(slot, 16 + k % 500);
        else
            free(slot), slot = nullptr;
        if (k % 512 == 0) trvx_trace_dump();
        if (k % 512 == 256) trvx_dump_alloc_stats(2);
    }
    for (void* p : slots) free(p);
    return nullptr;
}

void* signaller(void*) {
    for (unsigned i = 0; !g_stop.load(std::memory_order_relaxed); ++i) {
        // The main thread less often: a signal that is pending when fork
        // starts restarts it, and too many of them would keep it from ending.
        if (i % 4 == 3)
            pthread_kill(g_targets[2], SIGUSR2);
        else
            pthread_kill(g_targets[i % 2], SIGUSR1);
        for (volatile int k = 0; k < 2000; k = k + 1) {
        }
    }
    return nullptr;
}

int signals() {
    struct sigaction sa = {};
    sa.sa_flags = SA_RESTART;
    sa.sa_handler = on_busy_signal;
    sigaction(SIGUSR1, &sa, nullptr);
    sa.sa_handler = on_main_signal;
    sigaction(SIGUSR2, &sa, nullptr);
    for (size_t i = 0; i < 64; ++i) g_live[i] = malloc(16 + i);
    g_targets[2] = pthread_self();
    pthread_t signalling;
    start(&g_targets[0], busy_thread, 0);
    start(&g_targets[1], busy_thread, 0);
    start(&signalling, signaller, 0);
    for (int i = 0; i < 300; ++i) {
        for (int k = 0; k < 1000; ++k) free(malloc(64 + k % 64));
        pid_t pid = fork();
        if (pid == 0) _exit(0);
        wait_ok(pid, "forked child");
    }
    g_stop = true;
    for (pthread_t t : {g_targets[0], g_targets[1], signalling}) pthread_join(t, nullptr);
    for (void* p : g_live) free(p);
    // Every guard slot was given back: this thread's blocks are tracked.
    void* p = malloc(10);
    CHECK(is_tracked(p, 10), "malloc(10) is not tracked after the signals");
    free(p);
    CHECK(g_handled > 1000, "only %d signals were handled", g_handled.load());
    puts("signal: ok");
    return 0;
}

// ---------------------------------------------------------------- dlopen

// The plugin, found by its bare name through this program's RUNPATH (so
// tarvex's dlopen must keep the caller's lookup), loaded and closed 50
// times with RTLD_GLOBAL or RTLD_LOCAL, with and without RTLD_DEEPBIND
// (which would bind the plugin's malloc and free to the C library's). Blocks
// cross between program and plugin and outlive it; reports symbolise stacks
// that point into the unloaded plugin.
int dlopen_scenario() {
    void* outliving[50];
    for (int i = 0; i < 50; ++i) {
        void* h = dlopen("libstress_plugin.so",
                         RTLD_NOW | (i % 2 ? RTLD_LOCAL : RTLD_GLOBAL) | (i % 4 > 1 ? RTLD_DEEPBIND : 0));
        CHECK(h != nullptr, "dlopen failed: %s", dlerror());
        auto alloc = reinterpret_cast<void* (*)(size_t)>(dlsym(h, "plugin_alloc"));
        auto resize = reinterpret_cast<void* (*)(void*, size_t)>(dlsym(h, "plugin_realloc"));
        auto release = reinterpret_cast<void (*)(void*)>(dlsym(h, "plugin_free"));
        auto dup = reinterpret_cast<char* (*)(const char*)>(dlsym(h, "plugin_strdup"));
        CHECK(alloc && resize && release && dup, "plugin functions missing");
        trvx_trace_start();
        release(resize(alloc(64), 128));
        char* s = dup("from the plugin");
        CHECK(s != nullptr && strcmp(s, "from the plugin") == 0, "plugin_strdup failed");
        free(s);
        void* a = alloc(48);
        CHECK(is_tracked(a, 48), "the plugin's block is not tracked");
        free(a);
        release(malloc(40));
        outliving[i] = alloc(20 + i);
        trvx_trace_stop();
        trvx_trace_dump();
        CHECK(dlclose(h) == 0, "dlclose failed: %s", dlerror());
        if (i % 10 == 0) trvx_dump_alloc_stats(10);
    }
    for (void* b : outliving) free(b);
    trvx_trace_dump();
    trvx_dump_alloc_stats(10);
    puts("dlopen: ok");
    return 0;
}

// ---------------------------------------------------------------- exit

// Blocks released after main returns: by an atexit handler (which also
// writes a trace dump and a report), static and thread-local destructors
// and a destructor function.
struct holder {
    char* from_ctor = static_cast<char*>(malloc(40));  // before main
    char* from_main = nullptr;
    std::map<int, std::string> table;
    ~holder() { free(from_ctor), free(from_main); }
} g_holder;

struct per_thread {
    char* block = nullptr;
    ~per_thread() { free(block); }
};
thread_local per_thread t_block;
char *g_atexit_block, *g_destructor_block;
bool g_double_free_at_exit;

void at_exit() {
    free(g_atexit_block);
    if (g_double_free_at_exit) free(g_atexit_block);
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_dump_alloc_stats(5);
    free(malloc(64));
}

__attribute__((destructor)) void release_last() { free(g_destructor_block); }

void* thread_with_local(void*) {
    t_block.block = static_cast<char*>(malloc(24));
    return nullptr;
}

int exit_scenario(bool double_free) {
    g_double_free_at_exit = double_free;
    g_holder.from_main = static_cast<char*>(malloc(50));
    for (int i = 0; i < 100; ++i) g_holder.table[i] = std::string(100, 'a');
    g_atexit_block = static_cast<char*>(malloc(60));
    g_destructor_block = static_cast<char*>(malloc(70));
    CHECK(is_tracked(g_holder.from_ctor, 40), "the block allocated before main is not tracked");
    atexit(at_exit);
    pthread_t t;
    start(&t, thread_with_local, 0);
    pthread_join(t, nullptr);
    t_block.block = static_cast<char*>(malloc(24));
    trvx_trace_start();
    puts("exit: main returns");
    return 0;
}

// ---------------------------------------------------------------- races

// Threads released at one moment, each releasing its pointer: the same
// block twice, or two double frees, an overwritten footer and a stack
// address at once. The pointers go to standard error ("a=%p ..."); exactly
// one complete fault report must stop the process.
std::atomic<int> g_ready{0};

void* release_at_once(void* p) {
    ++g_ready;
    while (!g_stop.load()) {
    }
    char on_stack[16];
    char* volatile q = p != nullptr ? static_cast<char*>(p) : on_stack;  // hidden from the compiler's checks
    free(q);
    return nullptr;
}

int races(bool four) {
    char* a = static_cast<char*>(malloc(48));
    void* args[4] = {a, a};
    if (four) {
        char* b = static_cast<char*>(malloc(56));
        char* c = static_cast<char*>(malloc(64));
        free(a);
        free(b);
        c[64] = 0x41;
        // Started in an order that changes from run to run; nullptr stands
        // for the thread's stack.
        void* kinds[4] = {a, b, c, nullptr};
        for (int k = 0; k < 4; ++k) args[k] = kinds[(getpid() + k) % 4];
        fprintf(stderr, "a=%p b=%p c=%p\n", static_cast<void*>(a), static_cast<void*>(b), static_cast<void*>(c));
    } else {
        fprintf(stderr, "a=%p\n", static_cast<void*>(a));
    }
    int n = four ? 4 : 2;
    pthread_t threads[4];
    for (int i = 0; i < n; ++i) start(&threads[i], release_at_once, reinterpret_cast<uintptr_t>(args[i]));
    while (g_ready.load() < n) {
    }
    g_stop = true;
    for (int i = 0; i < n; ++i) pthread_join(threads[i], nullptr);
    sleep(30);  // the report stops the process before this
    CHECK(false, "no fault stopped the process");
}

}  // namespace

int main(int argc, char** argv) {
    g_log = getenv("TARVEX_LOG_FILE_NAME");
    const char* mode = argc > 1 ? argv[1] : "";
    long n = argc > 2 ? atol(argv[2]) : 0;
    auto is = [mode](const char* name) { return strcmp(mode, name) == 0; };
    if (is("fork") && g_log) return fork_loop(static_cast<int>(n));
    if (is("threads") && g_log) return threads(n);
    if (is("realtime")) return realtime(static_cast<uintptr_t>(n));
    if (is("signal")) return signals();
    if (is("dlopen")) return dlopen_scenario();
    if (is("exit") || is("exit-double-free")) return exit_scenario(is("exit-double-free"));
    if (is("same-block") || is("four-faults")) return races(is("four-faults"));
    CHECK(false, "unknown mode %s, or TARVEX_LOG_FILE_NAME unset", mode);
}
