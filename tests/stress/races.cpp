// Faults that meet: threads that release the same block at the same moment,
// and threads that hit different faults at the same moment.
//
//   stress_races same-block   two threads release one block at once
//   stress_races four-faults  four threads at once: two double frees of
//                             different blocks, a block with an overwritten
//                             footer, and a pointer to the stack
//
// Each prints the block pointers on standard error ("a=%p" or
// "a=%p b=%p c=%p"), then must stop with exactly one complete fault report.
// Expects TARVEX_TARGET_PROC_NAME=stress_races.
#include <pthread.h>

#include <atomic>

#include "scenario_util.h"

namespace {

std::atomic<int> g_ready{0};
std::atomic<bool> g_go{false};

// Every thread spins until main lets them all go at once.
void start_together() {
    g_ready.fetch_add(1);
    while (!g_go.load()) {
    }
}

void go(int threads) {
    while (g_ready.load() < threads) {
    }
    g_go = true;
}

void* release(void* p) {
    start_together();
    free(p);
    return nullptr;
}

void* release_stack_pointer(void*) {
    char on_stack[16];
    char* volatile p = on_stack;  // hidden from the compiler's free checks
    start_together();
    free(p);
    return nullptr;
}

void finish(pthread_t* threads, int n) {
    for (int i = 0; i < n; ++i) pthread_join(threads[i], nullptr);
    // The winner's report stops the process before this point.
    sleep(30);
    stress_fail("no fault stopped the process");
}

int same_block() {
    char* p = static_cast<char*>(malloc(48));
    fprintf(stderr, "a=%p\n", static_cast<void*>(p));
    pthread_t threads[2];
    for (pthread_t& t : threads) pthread_create(&t, nullptr, release, p);
    go(2);
    finish(threads, 2);
    return 1;
}

int four_faults() {
    char* a = static_cast<char*>(malloc(48));
    char* b = static_cast<char*>(malloc(56));
    char* c = static_cast<char*>(malloc(64));
    free(a);
    free(b);
    c[64] = 0x41;
    // The fourth pointer lies on a thread's stack; the test reads it from
    // the report.
    fprintf(stderr, "a=%p b=%p c=%p\n", static_cast<void*>(a), static_cast<void*>(b), static_cast<void*>(c));
    // Created in an order that changes from run to run.
    pthread_t threads[4];
    int first = getpid() % 4;
    for (int k = 0; k < 4; ++k) {
        int i = (first + k) % 4;
        void* arg = i == 0 ? a : i == 1 ? b : c;
        pthread_create(&threads[k], nullptr, i == 3 ? release_stack_pointer : release, arg);
    }
    go(4);
    finish(threads, 4);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    STRESS_CHECK(argc == 2, "usage: stress_races same-block|four-faults");
    if (strcmp(argv[1], "same-block") == 0) return same_block();
    if (strcmp(argv[1], "four-faults") == 0) return four_faults();
    stress_fail("unknown mode %s", argv[1]);
}
