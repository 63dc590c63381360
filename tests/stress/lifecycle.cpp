// Signals, the end of the process and libraries loaded at run time.
//
//   stress_lifecycle signal            control functions from signal handlers
//                                      that interrupt threads inside the
//                                      library; prints "signal: ok"
//   stress_lifecycle usable            malloc_usable_size from signal handlers
//                                      that interrupt tracked work; prints
//                                      "usable: ok"
//   stress_lifecycle fork-signal       forks while handlers of signals sent
//                                      to the forking thread ask usable
//                                      sizes and call a control function;
//                                      prints "fork-signal: ok"
//   stress_lifecycle exit              blocks released after main returns
//                                      (atexit, static and thread-local
//                                      destructors, a destructor function),
//                                      and a report from an atexit handler
//   stress_lifecycle exit-double-free  an atexit handler releases a block
//                                      twice: stopped like any other
//   stress_lifecycle dlopen FLAGS      libstress_plugin.so loaded and closed
//                                      50 times (FLAGS: now, deepbind);
//                                      blocks cross between program and
//                                      plugin, some outlive the plugin
//
// Expects TARVEX_TARGET_PROC_NAME=stress_lifecycle and TARVEX_LOG_FILE_NAME.
#include <dlfcn.h>
#include <pthread.h>
#include <malloc.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <map>
#include <string>

#include "scenario_util.h"

namespace {

// ---------------------------------------------------------------- signals

std::atomic<bool> g_stop{false};
volatile sig_atomic_t g_handled;

void* g_live[64];
volatile size_t g_usable_sum;

void install_handler(int sig, void (*handler)(int)) {
    struct sigaction sa = {};
    sa.sa_handler = handler;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, nullptr);
}

// Runs one control function per signal, in turn, or asks the size of live
// blocks. The interrupted thread may be anywhere in the library, holding its
// guard or a lock.
void on_signal(int) {
    int saved = errno;
    switch (g_handled % 7) {
        case 0: trvx_dump_alloc_stats(3); break;
        case 1: trvx_trace_start(); break;
        case 2: trvx_trace_dump(); break;
        case 3: trvx_trace_stop(); break;
        case 4: trvx_trace_clear(); break;
        case 5:
            for (void* p : g_live) g_usable_sum = g_usable_sum + malloc_usable_size(p);
            break;
        default: trvx_clear_alloc_stats(); break;
    }
    g_handled = g_handled + 1;
    errno = saved;
}

// Spends its time inside the library: tracked allocations, resizes and
// releases, and now and then a trace dump or a top report of its own.
void* busy_thread(void*) {
    void* slots[32] = {};
    unsigned k = 0;
    while (!g_stop.load(std::memory_order_relaxed)) {
        void*& slot = slots[k % 32];
        if (slot == nullptr)
            slot = malloc(16 + k % 300);
        else if (k % 3 == 0)
            slot = realloc(slot, 16 + k % 500);
        else {
            free(slot);
            slot = nullptr;
        }
        if (k % 512 == 0) trvx_trace_dump();
        if (k % 512 == 256) trvx_dump_alloc_stats(2);
        ++k;
    }
    for (void* p : slots) free(p);
    return nullptr;
}

int signals() {
    install_handler(SIGUSR1, on_signal);
    for (size_t i = 0; i < 64; ++i) g_live[i] = malloc(16 + i);
    pthread_t threads[2];
    for (pthread_t& t : threads) pthread_create(&t, nullptr, busy_thread, nullptr);
    // Pending signals merge, so a loaded machine handles fewer of them:
    // signalling goes on until enough were handled (or 20 s have passed).
    const time_t give_up = time(nullptr) + 20;
    for (int i = 0; i < 3000 || (g_handled <= 100 && time(nullptr) < give_up); ++i) {
        pthread_kill(threads[i % 2], SIGUSR1);
        if (i % 8 == 0) usleep(100);
    }
    usleep(10000);
    g_stop = true;
    for (pthread_t t : threads) pthread_join(t, nullptr);
    for (void* p : g_live) free(p);
    // Every guard slot was given back: this thread's blocks are tracked.
    void* p = malloc(10);
    STRESS_CHECK(stress_is_tracked(p, 10), "malloc(10) is not tracked after the signals");
    free(p);
    STRESS_CHECK(g_handled > 100, "only %d signals were handled", static_cast<int>(g_handled));
    puts("signal: ok");
    return 0;
}

// malloc_usable_size from a handler that interrupts a thread that keeps
// allocating and releasing (inside the registry's and the quarantine's
// locks half of its time): the handler must never wait for its own thread.
volatile sig_atomic_t g_usable_calls;

void on_usable_signal(int) {
    size_t sum = 0;
    for (void* p : g_live) sum += malloc_usable_size(p);
    g_usable_sum = g_usable_sum + sum;
    g_usable_calls = g_usable_calls + 1;
}

void* signal_continually(void* target) {
    while (!g_stop.load(std::memory_order_relaxed)) {
        pthread_kill(*static_cast<pthread_t*>(target), SIGUSR2);
        for (volatile int i = 0; i < 2000; i = i + 1) {
        }
    }
    return nullptr;
}

int usable_sizes() {
    for (size_t i = 0; i < 64; ++i) g_live[i] = malloc(16 + i);
    install_handler(SIGUSR2, on_usable_signal);
    pthread_t self = pthread_self(), signaller;
    pthread_create(&signaller, nullptr, signal_continually, &self);
    // At least 300 thousand operations and, unless the machine starves the
    // signalling thread, two thousand handled signals.
    for (int i = 0; i < 300000 || (g_usable_calls < 2000 && i < 3000000); ++i) free(malloc(64 + i % 64));
    g_stop = true;
    pthread_join(signaller, nullptr);
    for (void* p : g_live) free(p);
    STRESS_CHECK(g_usable_calls > 100, "only %d signals were handled", static_cast<int>(g_usable_calls));
    puts("usable: ok");
    return 0;
}

// The same handlers on a thread that forks while another releases: a signal
// that arrives inside fork runs while the library holds its locks for the
// fork, and must not wait for them.
void on_fork_signal(int) {
    size_t sum = 0;
    for (void* p : g_live) sum += malloc_usable_size(p);
    g_usable_sum = g_usable_sum + sum;
    if (g_usable_calls % 8 == 0) trvx_trace_stop();
    g_usable_calls = g_usable_calls + 1;
}

void* release_continually(void*) {
    while (!g_stop.load(std::memory_order_relaxed)) free(malloc(100));
    return nullptr;
}

int fork_signals() {
    for (size_t i = 0; i < 64; ++i) g_live[i] = malloc(16 + i);
    install_handler(SIGUSR2, on_fork_signal);
    pthread_t self = pthread_self(), signaller, releaser;
    pthread_create(&releaser, nullptr, release_continually, nullptr);
    pthread_create(&signaller, nullptr, signal_continually, &self);
    for (int i = 0; i < 300; ++i) {
        pid_t pid = fork();
        if (pid == 0) _exit(0);
        STRESS_CHECK(pid > 0, "fork failed");
        STRESS_CHECK(stress_wait(pid, 60) >= 0, "child %d hung", i);
    }
    g_stop = true;
    pthread_join(signaller, nullptr);
    pthread_join(releaser, nullptr);
    for (void* p : g_live) free(p);
    puts("fork-signal: ok");
    return 0;
}

// ---------------------------------------------------------------- exit

// A static object whose destructor releases what its constructor (before
// main) and main allocated.
struct holder {
    char* from_ctor;
    char* from_main = nullptr;
    std::map<int, std::string> table;  // node and string storage released after main too
    holder() : from_ctor(static_cast<char*>(malloc(40))) {}
    ~holder() {
        free(from_ctor);
        free(from_main);
    }
};
holder g_holder;

struct per_thread {
    char* block = nullptr;
    ~per_thread() { free(block); }
};
thread_local per_thread t_block;

char* g_atexit_block;
char* g_destructor_block;
bool g_double_free_at_exit;

void at_exit() {
    free(g_atexit_block);
    if (g_double_free_at_exit) free(g_atexit_block);
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_dump_alloc_stats(5);
    // Allocation and release still work here.
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
    for (int i = 0; i < 100; ++i) g_holder.table[i] = std::string(100, static_cast<char>('a' + i % 26));
    g_atexit_block = static_cast<char*>(malloc(60));
    g_destructor_block = static_cast<char*>(malloc(70));
    STRESS_CHECK(stress_is_tracked(g_holder.from_ctor, 40), "the block allocated before main is not tracked");
    atexit(at_exit);
    pthread_t t;
    pthread_create(&t, nullptr, thread_with_local, nullptr);
    pthread_join(t, nullptr);
    t_block.block = static_cast<char*>(malloc(24));
    trvx_trace_start();
    puts("exit: main returns");
    return 0;
}

// ---------------------------------------------------------------- dlopen

typedef void* (*alloc_fn)(size_t);
typedef void* (*realloc_fn)(void*, size_t);
typedef void (*free_fn)(void*);
typedef char* (*strdup_fn)(const char*);

struct plugin {
    void* handle;
    alloc_fn alloc;
    realloc_fn resize;
    free_fn release;
    strdup_fn dup;
};

plugin open_plugin(const char* path, int flags) {
    plugin p;
    p.handle = dlopen(path, flags);
    STRESS_CHECK(p.handle != nullptr, "dlopen failed: %s", dlerror());
    p.alloc = reinterpret_cast<alloc_fn>(dlsym(p.handle, "plugin_alloc"));
    p.resize = reinterpret_cast<realloc_fn>(dlsym(p.handle, "plugin_realloc"));
    p.release = reinterpret_cast<free_fn>(dlsym(p.handle, "plugin_free"));
    p.dup = reinterpret_cast<strdup_fn>(dlsym(p.handle, "plugin_strdup"));
    STRESS_CHECK(p.alloc && p.resize && p.release && p.dup, "plugin functions missing");
    return p;
}

void plugin_path(char* out, size_t cap) {
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    STRESS_CHECK(n > 0, "readlink failed");
    self[n] = '\0';
    *strrchr(self, '/') = '\0';
    snprintf(out, cap, "%s/libstress_plugin.so", self);
}

// With RTLD_DEEPBIND the plugin looks up its own dependencies first; the
// C library still binds its malloc and free to the preloaded definitions,
// so blocks cross between plugin and program as with the other flags.
int dlopen_scenario(const char* flags_name) {
    int flags = RTLD_NOW;
    if (strcmp(flags_name, "deepbind") == 0) flags = RTLD_NOW | RTLD_DEEPBIND;
    char path[4200];
    plugin_path(path, sizeof path);
    void* outliving[50];
    for (int i = 0; i < 50; ++i) {
        plugin p = open_plugin(path, flags | (i % 2 ? RTLD_LOCAL : RTLD_GLOBAL));
        trvx_trace_start();
        // Blocks that stay on one side.
        p.release(p.resize(p.alloc(64), 128));
        free(realloc(malloc(32), 16));
        // The C library's strdup allocates through the process's malloc,
        // whatever the binding: the program releases what it returns.
        char* s = p.dup("from the plugin");
        STRESS_CHECK(s != nullptr && strcmp(s, "from the plugin") == 0, "plugin_strdup failed");
        free(s);
        // Blocks that cross: allocated on one side, released on the other.
        void* a = p.alloc(48);
        STRESS_CHECK(stress_is_tracked(a, 48), "the plugin's block is not tracked");
        free(a);
        p.release(malloc(40));
        outliving[i] = p.alloc(20 + i);
        trvx_trace_stop();
        trvx_trace_dump();
        STRESS_CHECK(dlclose(p.handle) == 0, "dlclose failed: %s", dlerror());
        // Reports symbolise stacks that point into the unloaded plugin.
        if (i % 10 == 0) trvx_dump_alloc_stats(10);
    }
    for (void* b : outliving) free(b);
    trvx_trace_dump();
    trvx_dump_alloc_stats(10);
    puts("dlopen: ok");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    STRESS_CHECK(argc >= 2, "usage: stress_lifecycle MODE");
    const char* mode = argv[1];
    if (strcmp(mode, "signal") == 0) return signals();
    if (strcmp(mode, "usable") == 0) return usable_sizes();
    if (strcmp(mode, "fork-signal") == 0) return fork_signals();
    if (strcmp(mode, "exit") == 0) return exit_scenario(false);
    if (strcmp(mode, "exit-double-free") == 0) return exit_scenario(true);
    if (strcmp(mode, "dlopen") == 0 && argc == 3) return dlopen_scenario(argv[2]);
    stress_fail("unknown mode %s", mode);
}
