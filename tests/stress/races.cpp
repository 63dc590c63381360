// Faults that meet: threads that release the same block at the same moment,
// and threads that hit different faults at the same moment.
//
//   stress_races same-block   two threads release one block at once
//   stress_races four-faults  four threads at once: two double frees of
//                             different blocks, a block with an overwritten
//                             footer, and a pointer to the stack
//
// Each prints its block pointers on standard error ("a=%p ..."), then must
// stop with exactly one complete fault report.
// Expects TARVEX_TARGET_PROC_NAME=stress_races.
#include <pthread.h>

#include <atomic>

#include "scenario_util.h"

namespace {

std::atomic<int> g_ready{0};
std::atomic<bool> g_go{false};

void* release(void* p) {
    // Every thread spins until main lets them all go at once.
    g_ready.fetch_add(1);
    while (!g_go.load()) {
    }
    char on_stack[16];
    char* volatile q = p != nullptr ? static_cast<char*>(p) : on_stack;  // hidden from the compiler's checks
    free(q);
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    STRESS_CHECK(argc == 2, "usage: stress_races same-block|four-faults");
    char* a = static_cast<char*>(malloc(48));
    void* args[4] = {a, a};
    int n = 2;
    if (strcmp(argv[1], "four-faults") == 0) {
        char* b = static_cast<char*>(malloc(56));
        char* c = static_cast<char*>(malloc(64));
        free(a);
        free(b);
        c[64] = 0x41;
        // Started in an order that changes from run to run; nullptr stands
        // for a pointer to the thread's stack.
        void* kinds[4] = {a, b, c, nullptr};
        for (int k = 0; k < 4; ++k) args[k] = kinds[(getpid() + k) % 4];
        n = 4;
        fprintf(stderr, "a=%p b=%p c=%p\n", static_cast<void*>(a), static_cast<void*>(b), static_cast<void*>(c));
    } else {
        fprintf(stderr, "a=%p\n", static_cast<void*>(a));
    }
    pthread_t threads[4];
    for (int i = 0; i < n; ++i) pthread_create(&threads[i], nullptr, release, args[i]);
    while (g_ready.load() < n) {
    }
    g_go = true;
    for (int i = 0; i < n; ++i) pthread_join(threads[i], nullptr);
    // The report stops the process before this point.
    sleep(30);
    stress_fail("no fault stopped the process");
}
