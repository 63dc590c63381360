// Many threads in the library at once, with exact accounting afterwards.
//
//   stress_threads OPS     64 worker threads make OPS operations each on a
//                          shared table of blocks: a block that one thread
//                          allocated is resized or released by another. Five
//                          control threads meanwhile start, stop, dump and
//                          clear traces, write top reports and clear the
//                          counters. Then the top reports must account for
//                          exactly what the program holds. (Per-site counts
//                          are the unit and reports tests' part.)
//
// Expects TARVEX_TARGET_PROC_NAME=stress_threads, TARVEX_TOP and
// TARVEX_LOG_FILE_NAME. Prints "threads: ok" and exits 0 when every check
// holds.
#include <pthread.h>

#include <atomic>

#include "scenario_util.h"

namespace {

constexpr int k_workers = 64;
constexpr int k_controls = 5;
constexpr size_t k_slots = 8192;

std::atomic<char*> g_slots[k_slots];
std::atomic<bool> g_stop{false};
std::atomic<long> g_ops_done{0};
long g_ops_per_thread;
pthread_barrier_t g_start, g_parked, g_release;

uint32_t next_random(uint32_t& s) {
    s ^= s << 13;
    s ^= s >> 17;
    s ^= s << 5;
    return s;
}

// Every block carries its own size in its first 8 bytes and a check byte in
// its last one, so that any thread can verify and account for it.
unsigned char check_byte(size_t size) { return static_cast<unsigned char>(size * 31 + 7); }

void stamp(char* p, size_t size) {
    memcpy(p, &size, sizeof size);
    p[size - 1] = static_cast<char>(check_byte(size));
}

size_t verify(char* p) {
    size_t size;
    memcpy(&size, p, sizeof size);
    STRESS_CHECK(size >= 16 && size <= 70000, "block %p: corrupt size word %zu", static_cast<void*>(p), size);
    STRESS_CHECK(static_cast<unsigned char>(p[size - 1]) == check_byte(size), "block %p of %zu bytes: corrupt end",
                 static_cast<void*>(p), size);
    return size;
}

size_t random_size(uint32_t r) {
    // Mostly small, sometimes a few pages.
    return (r & 0xF000) == 0 ? 16 + (r >> 16) % 65536 : 16 + (r >> 16) % 512;
}

char* allocate(uint32_t r, size_t size) {
    void* p = nullptr;
    switch ((r >> 4) % 6) {
        case 0: p = malloc(size); break;
        case 1:
            p = calloc(size, 1);
            if (p != nullptr)
                for (size_t i = 0; i < size; ++i)
                    STRESS_CHECK(static_cast<char*>(p)[i] == 0, "calloc(%zu, 1): byte %zu not zero", size, i);
            break;
        case 2: p = realloc(nullptr, size); break;
        case 3:
            if (posix_memalign(&p, 16u << (r % 3), size) != 0) p = nullptr;
            break;
        case 4: p = aligned_alloc(64, size); break;
        default: p = memalign(32, size); break;
    }
    STRESS_CHECK(p != nullptr, "allocation of %zu bytes failed", size);
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
        uint32_t r = next_random(seed);
        std::atomic<char*>& slot = g_slots[(r >> 3) % k_slots];
        char* p = slot.exchange(nullptr);
        if (p == nullptr) {
            size_t size = random_size(next_random(seed));
            char* q = allocate(r, size);
            stamp(q, size);
            publish(slot, q);
        } else {
            size_t size = verify(p);
            if (op % 16 == 0)
                STRESS_CHECK(malloc_usable_size(p) == size, "malloc_usable_size(%p) is %zu, not %zu",
                             static_cast<void*>(p), malloc_usable_size(p), size);
            if (r % 3 == 0) {
                free(p);
            } else {
                size_t new_size = random_size(next_random(seed));
                char* q = static_cast<char*>(realloc(p, new_size));
                STRESS_CHECK(q != nullptr, "realloc to %zu bytes failed", new_size);
                size_t kept;
                memcpy(&kept, q, sizeof kept);
                STRESS_CHECK(kept == size, "realloc lost the contents of a %zu-byte block", size);
                stamp(q, new_size);
                publish(slot, q);
            }
        }
        if (op % 4096 == 0) trvx_trace_start();
    }
    g_ops_done.fetch_add(g_ops_per_thread);
    pthread_barrier_wait(&g_parked);
    pthread_barrier_wait(&g_release);
    return nullptr;
}

void* control(void* arg) {
    int role = static_cast<int>(reinterpret_cast<uintptr_t>(arg));
    uint32_t seed = 77u + static_cast<uint32_t>(role);
    pthread_barrier_wait(&g_start);
    while (!g_stop.load()) {
        switch (role) {
            case 0: trvx_dump_alloc_stats(10); break;
            case 1:
                trvx_trace_stop();
                trvx_trace_dump();
                trvx_trace_clear();
                break;
            case 2: trvx_clear_alloc_stats(); break;
            case 3:
                trvx_trace_start();
                trvx_trace_stop();
                break;
            default:
                // Every control function in random order.
                switch (next_random(seed) % 6) {
                    case 0: trvx_trace_start(); break;
                    case 1: trvx_trace_stop(); break;
                    case 2: trvx_trace_clear(); break;
                    case 3: trvx_trace_dump(); break;
                    case 4: trvx_dump_alloc_stats(next_random(seed) % 4); break;
                    default: trvx_clear_alloc_stats(); break;
                }
                break;
        }
        usleep(role == 3 ? 2000 : 20000);
    }
    trvx_trace_stop();
    pthread_barrier_wait(&g_parked);
    pthread_barrier_wait(&g_release);
    return nullptr;
}

int run(long ops) {
    const char* log = getenv("TARVEX_LOG_FILE_NAME");
    STRESS_CHECK(log != nullptr, "TARVEX_LOG_FILE_NAME is not set");
    g_ops_per_thread = ops;
    pthread_barrier_init(&g_start, nullptr, k_workers + k_controls + 1);
    pthread_barrier_init(&g_parked, nullptr, k_workers + k_controls + 1);
    pthread_barrier_init(&g_release, nullptr, k_workers + k_controls + 1);
    pthread_t threads[k_workers + k_controls];
    for (int i = 0; i < k_workers; ++i)
        STRESS_CHECK(pthread_create(&threads[i], nullptr, worker, reinterpret_cast<void*>(static_cast<uintptr_t>(i))) == 0,
                     "pthread_create failed");
    for (int i = 0; i < k_controls; ++i)
        STRESS_CHECK(pthread_create(&threads[k_workers + i], nullptr, control,
                                    reinterpret_cast<void*>(static_cast<uintptr_t>(i))) == 0,
                     "pthread_create failed");

    // Every thread exists and waits: what the C library allocated for them
    // is part of the baseline.
    long long baseline = stress_report_total(log);
    pthread_barrier_wait(&g_start);
    while (g_ops_done.load() < static_cast<long>(k_workers) * ops) usleep(10000);
    g_stop = true;
    pthread_barrier_wait(&g_parked);

    // Everything is parked (no thread exits before the checks, so nothing
    // that the C library keeps per thread is released meanwhile).
    long long held = 0;
    for (std::atomic<char*>& slot : g_slots)
        if (char* p = slot.load()) held += static_cast<long long>(verify(p));
    long long after = stress_report_total(log);
    STRESS_CHECK(after - baseline == held, "live bytes grew by %lld, the program holds %lld", after - baseline, held);

    for (std::atomic<char*>& slot : g_slots) free(slot.exchange(nullptr));
    long long released = stress_report_total(log);
    STRESS_CHECK(released == baseline, "after releasing everything live bytes are %lld, not %lld", released, baseline);

    pthread_barrier_wait(&g_release);
    for (pthread_t t : threads) pthread_join(t, nullptr);
    printf("threads: ok (%ld operations)\n", static_cast<long>(k_workers) * ops);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    STRESS_CHECK(argc == 2, "usage: stress_threads OPS_PER_THREAD");
    return run(atol(argv[1]));
}
