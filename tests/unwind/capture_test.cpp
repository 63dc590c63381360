// The fast capture against glibc's backtrace(), called from the same frame
// and independent of the verifying library variant: entry 0 differs (two
// call sites), every other entry and the count agree.
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include "trvx_unwind.h"
#include "trvx_util.h"

namespace {

struct captures {
    void *fast[64], *slow[64];
    int fast_count = 0, slow_count = 0, max = 64;
    uint32_t uid = 0;
};

__attribute__((noinline)) void capture_both(captures& c) {
    c.fast_count = tarvex::trvx_capture_stack(c.fast, c.max, &c.uid);
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
    return c.uid == tarvex::stack_uid(c.fast, c.fast_count);
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

// Callers of one shape reached from one call site: the captures start at the
// same return address and stack pointer and differ only further out, so a
// capture that took a thread's earlier stack for this one would show here.
// Seven stacks, taken in turns, are more than a thread keeps at once.
#define SAME_SHAPE_CALLER(k)                         \
    __attribute__((noinline)) void caller_##k(captures& c) { \
        recurse(c, 2);                               \
        __asm__ volatile("" ::: "memory");           \
    }
SAME_SHAPE_CALLER(0)
SAME_SHAPE_CALLER(1)
SAME_SHAPE_CALLER(2)
SAME_SHAPE_CALLER(3)
SAME_SHAPE_CALLER(4)
SAME_SHAPE_CALLER(5)
SAME_SHAPE_CALLER(6)
void (*const g_callers[])(captures&) = {caller_0, caller_1, caller_2, caller_3, caller_4, caller_5, caller_6};

TEST(Capture, RepeatedStartsWithDifferentCallersGiveEachCallersStack) {
    void* seen[7] = {};
    for (int round = 0; round < 50; ++round) {
        for (int i : {0, 1, 0, 2, 0, 1, 3, 4, 5, 6, 2}) {
            captures c;
            g_callers[i](c);
            ASSERT_TRUE(agree(c)) << "round " << round << " caller " << i;
            ASSERT_GT(c.fast_count, 5);
            if (seen[i] == nullptr) seen[i] = c.fast[4];
            EXPECT_EQ(c.fast[4], seen[i]);
        }
    }
    for (int i = 1; i < 7; ++i) EXPECT_NE(seen[i], seen[0]);
}

// Frames whose bases come from the frame pointer: each mover makes room on
// the stack and moved() takes the same amount back, so every capture starts
// at the same stack pointer while moved()'s frame sits elsewhere, found
// through the frame pointer register itself (direct) or through the one that
// fixed_frame() saved. The words of the other mover's earlier frame stay
// behind on the stack.
volatile int g_pad = 16;
__attribute__((noinline)) void fixed_frame(captures& c) {
    char* p = static_cast<char*>(__builtin_alloca(g_pad));
    __asm__ volatile("" ::"r"(p) : "memory");
    recurse(c, 1);
    __asm__ volatile("" ::: "memory");
}
__attribute__((noinline)) void moved(captures& c, int room, bool direct) {
    char* p = static_cast<char*>(__builtin_alloca(room));
    __asm__ volatile("" ::"r"(p) : "memory");
    if (direct)
        recurse(c, 1);
    else
        fixed_frame(c);
    __asm__ volatile("" ::: "memory");
}
#define MOVER(k)                                                       \
    __attribute__((noinline)) void mover_##k(captures& c, int room, bool direct) { \
        char* p = static_cast<char*>(__builtin_alloca(512 - room));    \
        __asm__ volatile("" ::"r"(p) : "memory");                     \
        moved(c, room, direct);                                        \
        __asm__ volatile("" ::: "memory");                            \
    }
MOVER(0)
MOVER(1)
void (*const g_movers[])(captures&, int, bool) = {mover_0, mover_1};

TEST(Capture, RepeatedStartsWithFramesFoundThroughTheFramePointer) {
    for (bool direct : {true, false}) {
        for (int round = 0; round < 20; ++round) {
            for (int i : {0, 1}) {
                captures c;
                g_movers[i](c, i * 256, direct);
                ASSERT_TRUE(agree(c)) << "direct " << direct << " round " << round << " mover " << i;
            }
        }
    }
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
