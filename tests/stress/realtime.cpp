// A real-time thread and an ordinary one on one core, both allocating.
//
//   stress_realtime ITERATIONS   Pins the process to one core. An ordinary
//                                thread allocates and releases without a
//                                pause; a SCHED_FIFO thread wakes every 200
//                                microseconds to allocate and release one
//                                block. When it preempts the ordinary thread
//                                inside one of the library's locks, it must
//                                wait without keeping the holder off the
//                                core, or the run does not end.
//
// Expects TARVEX_TARGET_PROC_NAME=stress_realtime. Prints "realtime: ok" and
// exits 0, or "realtime: skipped" when real-time scheduling is not allowed.
#include <pthread.h>
#include <sched.h>

#include <atomic>

#include "scenario_util.h"

namespace {

std::atomic<bool> g_stop{false};

void* ordinary(void*) {
    unsigned seed = 1;
    while (!g_stop.load(std::memory_order_relaxed)) {
        seed = seed * 1103515245u + 12345u;
        void* p = malloc(16 + (seed >> 16) % 500);
        STRESS_CHECK(p != nullptr, "malloc failed");
        free(p);
    }
    return nullptr;
}

struct rt_args {
    long iterations;
};

void* realtime(void* arg) {
    long n = static_cast<rt_args*>(arg)->iterations;
    timespec pause = {0, 200000};
    for (long i = 0; i < n; ++i) {
        nanosleep(&pause, nullptr);
        void* p = malloc(64);
        STRESS_CHECK(p != nullptr, "malloc failed");
        free(p);
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    STRESS_CHECK(argc == 2, "usage: stress_realtime ITERATIONS");
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu() < 0 ? 0 : sched_getcpu(), &one);
    STRESS_CHECK(sched_setaffinity(0, sizeof one, &one) == 0, "sched_setaffinity failed");

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
    sched_param prio = {};
    prio.sched_priority = 1;
    pthread_attr_setschedparam(&attr, &prio);

    pthread_t worker, rt;
    STRESS_CHECK(pthread_create(&worker, nullptr, ordinary, nullptr) == 0, "pthread_create failed");
    rt_args args = {atol(argv[1])};
    int rc = pthread_create(&rt, &attr, realtime, &args);
    if (rc == EPERM) {
        g_stop = true;
        pthread_join(worker, nullptr);
        printf("realtime: skipped (no permission for SCHED_FIFO)\n");
        return 0;
    }
    STRESS_CHECK(rc == 0, "pthread_create (SCHED_FIFO) failed: %d", rc);
    pthread_join(rt, nullptr);
    g_stop = true;
    pthread_join(worker, nullptr);
    printf("realtime: ok\n");
    return 0;
}
