// The fast capture against glibc's backtrace(), called from the same frame
// and independent of the verifying library variant: entry 0 differs (two
// call sites), every other entry and the count agree.
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include "trvx_unwind.h"

namespace {

struct captures {
    void *fast[64], *slow[64];
    int fast_count = 0, slow_count = 0, max = 64;
};

__attribute__((noinline)) void capture_both(captures& c) {
    c.fast_count = tarvex::trvx_capture_stack(c.fast, c.max);
    c.slow_count = ::backtrace(c.slow, c.max);
    __asm__ volatile("" ::: "memory");
}

__attribute__((noinline)) void recurse(captures& c, int depth) {
    if (depth == 0)
        capture_both(c);
    else
        recurse(c, depth - 1);
    __asm__ volatile("" ::: "memory");
}

bool agree(const captures& c) {
    if (c.fast_count != c.slow_count || c.fast_count > c.max) return false;
    for (int i = 1; i < c.fast_count; ++i)
        if (c.fast[i] != c.slow[i]) return false;
    return true;
}

// At a thread's exit, after the capture has given back the thread's own
// table of rules (its key was made first, so its destructor ran first).
void capture_at_exit(void* failures) {
    for (int depth : {0, 30}) {
        captures c;
        recurse(c, depth);
        if (!agree(c)) ++*static_cast<int*>(failures);
    }
}
pthread_key_t g_late_key;
pthread_once_t g_late_key_once = PTHREAD_ONCE_INIT;
void make_late_key() { pthread_key_create(&g_late_key, capture_at_exit); }

// Every depth up to beyond the 64 frames kept, every capacity, on four
// threads at once; and again while each thread exits.
void* all_depths(void* failures) {
    for (int max : {1, 2, 10, 64}) {
        for (int depth = 0; depth <= 100; ++depth) {
            captures c;
            c.max = max;
            recurse(c, depth);
            if (!agree(c)) ++*static_cast<int*>(failures);
        }
    }
    pthread_once(&g_late_key_once, make_late_key);
    pthread_setspecific(g_late_key, failures);
    return nullptr;
}

TEST(Capture, AgreesWithGlibcAtEveryDepthAndCapacityOnManyThreadsAndAtTheirExit) {
    pthread_t threads[4];
    int failures[4] = {};
    for (int i = 0; i < 4; ++i) pthread_create(&threads[i], nullptr, all_depths, &failures[i]);
    for (pthread_t t : threads) pthread_join(t, nullptr);
    for (int f : failures) EXPECT_EQ(f, 0);
}

captures g_captures;
void on_signal(int) { recurse(g_captures, 5); }
void from_plugin(void*) { capture_both(g_captures); }

TEST(Capture, AgreesThroughASignalFrameAndCodeLoadedAtRunTime) {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigaction(SIGUSR2, &sa, nullptr);
    raise(SIGUSR2);
    EXPECT_TRUE(agree(g_captures));
    EXPECT_GT(g_captures.fast_count, 8);  // the walk went on through the signal frame
    for (int round = 0; round < 3; ++round) {
        void* plugin = dlopen(TARVEX_UNWIND_PLUGIN, RTLD_NOW);
        ASSERT_NE(plugin, nullptr) << dlerror();
        auto plug_call = reinterpret_cast<void (*)(void (*)(void*), void*, int)>(dlsym(plugin, "plug_call"));
        ASSERT_NE(plug_call, nullptr);
        plug_call(from_plugin, nullptr, 4 + round);
        EXPECT_TRUE(agree(g_captures)) << "round " << round;
        dlclose(plugin);
        tarvex::unwind_cache_invalidate();  // what the interposed dlclose does
    }
}

}  // namespace
