// Benchmark program for the allocation paths. It links nothing of tarvex:
// bench/run.sh runs it plain, with libtarvex.so preloaded in a process that
// is not the target, as the target, and under peer tools, and compares the
// figures of one run.
//
//   tarvex_bench [google-benchmark flags]
//       malloc+free through whatever malloc the process has, against glibc's
//       own entry points called directly in the same process.
//   tarvex_bench work [options]
//       workloads on worker threads started at a chosen call-stack depth:
//         --ops=pair,churn,bt   workloads to run, in this order
//             pair:  malloc(size) then free of the same block
//             churn: free one of --slots slots at random, allocate 16..511
//                    bytes into it
//             bt:    glibc backtrace() alone (64 entries at most)
//         --depths=5,30   frames on the stack at the malloc call, the malloc
//                         frame and the thread's first frames included
//         --threads=N     worker threads (default 1)
//         --live=N        blocks of --size bytes held by the process meanwhile
//         --size=N        request size of pair and of the held blocks (32)
//         --slots=N       churn slots per thread (64)
//         --reps=N        timed repetitions; the median is printed (5)
//         --min-ms=N      length of one repetition (100)
//         --count=N       fixed operations per thread and repetition instead
//         --warmup=N      operations per thread before timing (50000), enough
//                         to fill a 10 MiB quarantine
//   tarvex_bench rss [--blocks=N] [--size=N]
//       resident memory and glibc heap bytes per live block.
//
// Each result is one line "result key=value ...", for the scripts.
#include <errno.h>
#include <execinfo.h>
#include <malloc.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#ifdef TARVEX_HAVE_GBENCH
#include <benchmark/benchmark.h>
#endif

extern "C" {
void* __libc_malloc(size_t);
void __libc_free(void*);
}

namespace {

// Keeps the compiler from dropping a block it can see is unused.
inline void escape(void* p) { asm volatile("" : : "g"(p) : "memory"); }

double clock_ns(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return ts.tv_sec * 1e9 + ts.tv_nsec;
}
double now_ns() { return clock_ns(CLOCK_MONOTONIC); }
// CPU time of the calling thread: unlike wall time, it leaves out the time
// the thread waited for a core that another process held.
double thread_cpu_ns() { return clock_ns(CLOCK_THREAD_CPUTIME_ID); }

double median_of(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

uint64_t xorshift(uint64_t& s) {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return s;
}

// ---------------------------------------------------------------- options

struct options {
    std::vector<std::string> ops{"pair", "churn"};
    std::vector<int> depths{5, 30};
    int threads = 1;
    long live = 0;
    size_t size = 32;
    int slots = 64;
    int reps = 5;
    long min_ms = 100;
    long count = 0;
    long warmup = 50000;
    long blocks = 1000000;
};

std::vector<std::string> split(const std::string& s) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= s.size()) {
        size_t comma = s.find(',', start);
        if (comma == std::string::npos) comma = s.size();
        if (comma > start) out.push_back(s.substr(start, comma - start));
        start = comma + 1;
    }
    return out;
}

long to_long(const std::string& s, const char* what) {
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 10);
    if (errno != 0 || end == s.c_str() || *end != '\0' || v < 0) {
        fprintf(stderr, "tarvex_bench: bad value for %s: %s\n", what, s.c_str());
        exit(2);
    }
    return v;
}

options parse(int argc, char** argv, int first) {
    options o;
    for (int i = first; i < argc; ++i) {
        std::string a = argv[i];
        size_t eq = a.find('=');
        std::string key = a.substr(0, eq);
        std::string val = eq == std::string::npos ? "" : a.substr(eq + 1);
        if (key == "--ops") {
            o.ops = split(val);
        } else if (key == "--depths") {
            o.depths.clear();
            for (const std::string& d : split(val)) o.depths.push_back(static_cast<int>(to_long(d, "--depths")));
        } else if (key == "--threads") {
            o.threads = static_cast<int>(to_long(val, "--threads"));
        } else if (key == "--live") {
            o.live = to_long(val, "--live");
        } else if (key == "--size") {
            o.size = static_cast<size_t>(to_long(val, "--size"));
        } else if (key == "--slots") {
            o.slots = static_cast<int>(to_long(val, "--slots"));
        } else if (key == "--reps") {
            o.reps = static_cast<int>(to_long(val, "--reps"));
        } else if (key == "--min-ms") {
            o.min_ms = to_long(val, "--min-ms");
        } else if (key == "--count") {
            o.count = to_long(val, "--count");
        } else if (key == "--warmup") {
            o.warmup = to_long(val, "--warmup");
        } else if (key == "--blocks") {
            o.blocks = to_long(val, "--blocks");
        } else {
            fprintf(stderr, "tarvex_bench: unknown option %s\n", a.c_str());
            exit(2);
        }
    }
    if (o.threads < 1 || o.slots < 1 || o.reps < 1 || o.size < 1) {
        fprintf(stderr, "tarvex_bench: --threads, --slots, --reps and --size must be at least 1\n");
        exit(2);
    }
    return o;
}

// ---------------------------------------------------------------- workloads

enum class op_kind { pair, churn, bt };

// What the worker threads share for one workload.
struct shared_run {
    op_kind op;
    int depth;
    const options* opt;
    pthread_barrier_t start, end;
    std::atomic<bool> stop{false};
    std::atomic<long> ops_done{0};
    std::atomic<long> cpu_ns{0};
    // First start and last end of the workers' timed sections in one
    // repetition (each worker times itself, so a main thread that is slow
    // to wake up does not shift the interval).
    pthread_mutex_t span_mutex = PTHREAD_MUTEX_INITIALIZER;
    double first_start = 0, last_end = 0;

    void add_span(double start, double end) {
        pthread_mutex_lock(&span_mutex);
        if (first_start == 0 || start < first_start) first_start = start;
        if (end > last_end) last_end = end;
        pthread_mutex_unlock(&span_mutex);
    }
    std::atomic<int> frames_seen{0};
};

// Runs batches of the workload until told to stop (or for a fixed count);
// returns the number of operations done. Kept out of line so that the
// malloc calls sit in this one frame at the bottom of the recursion.
__attribute__((noinline)) long run_ops(op_kind op, const options& o, long fixed, std::atomic<bool>* stop,
                                       std::vector<void*>& slots, uint64_t& rng) {
    constexpr long batch = 32;
    long done = 0;
    size_t size = o.size;
    void* frames[64];
    for (;;) {
        switch (op) {
            case op_kind::pair:
                for (long i = 0; i < batch; ++i) {
                    void* p = malloc(size);
                    escape(p);
                    free(p);
                }
                break;
            case op_kind::churn:
                for (long i = 0; i < batch; ++i) {
                    uint64_t r = xorshift(rng);
                    size_t k = static_cast<size_t>(r % slots.size());
                    free(slots[k]);
                    slots[k] = malloc(16 + (r >> 32) % 496);
                    escape(slots[k]);
                }
                break;
            case op_kind::bt:
                for (long i = 0; i < batch; ++i) {
                    int n = ::backtrace(frames, 64);
                    escape(frames);
                    asm volatile("" : : "r"(n));
                }
                break;
        }
        done += batch;
        if (fixed > 0 ? done >= fixed : stop->load(std::memory_order_relaxed)) return done;
    }
}

// The body of a worker once it is deep enough: warm-up, then one timed
// section per repetition between two barriers. Inlined into descend, so
// that run_ops is called from the deepest frame of the recursion.
__attribute__((always_inline)) inline void worker_body(shared_run& run, int frames_at_malloc) {
    const options& o = *run.opt;
    run.frames_seen.store(frames_at_malloc, std::memory_order_relaxed);
    uint64_t rng = 0x9E3779B97F4A7C15ULL ^ reinterpret_cast<uintptr_t>(&rng);
    std::vector<void*> slots;
    if (run.op == op_kind::churn) {
        slots.resize(static_cast<size_t>(o.slots));
        for (void*& s : slots) s = malloc(16 + xorshift(rng) % 496);
    }
    if (o.warmup > 0) run_ops(run.op, o, o.warmup, nullptr, slots, rng);
    for (int r = 0; r < o.reps; ++r) {
        pthread_barrier_wait(&run.start);
        double w0 = now_ns();
        double c0 = thread_cpu_ns();
        long n = run_ops(run.op, o, o.count, &run.stop, slots, rng);
        double c1 = thread_cpu_ns();
        run.add_span(w0, now_ns());
        run.ops_done.fetch_add(n, std::memory_order_relaxed);
        run.cpu_ns.fetch_add(static_cast<long>(c1 - c0), std::memory_order_relaxed);
        pthread_barrier_wait(&run.end);
    }
    for (void* s : slots) free(s);
}

// The worker threads' start routine. It recurses until a malloc called from
// run_ops (called from here) sees the requested number of frames, its own
// and the thread's first frames included; the work after the recursive call
// keeps it a real call rather than a jump.
__attribute__((noinline)) void* descend(void* arg) {
    shared_run& run = *static_cast<shared_run*>(arg);
    void* frames[64];
    int here = ::backtrace(frames, 64);  // this frame up to the thread's first
    int at_malloc = here + 2;             // run_ops and malloc on top
    if (at_malloc >= run.depth || here >= 60) {
        worker_body(run, at_malloc);
        return nullptr;
    }
    void* r = descend(arg);
    asm volatile("" : "+r"(r));
    return r;
}

const char* op_name(op_kind op) {
    switch (op) {
        case op_kind::pair: return "pair";
        case op_kind::churn: return "churn";
        case op_kind::bt: return "bt";
    }
    return "?";
}

void run_workload(op_kind op, int depth, const options& o) {
    shared_run run;
    run.op = op;
    run.depth = depth;
    run.opt = &o;
    pthread_barrier_init(&run.start, nullptr, static_cast<unsigned>(o.threads + 1));
    pthread_barrier_init(&run.end, nullptr, static_cast<unsigned>(o.threads + 1));
    std::vector<pthread_t> threads(static_cast<size_t>(o.threads));
    for (pthread_t& t : threads) {
        if (pthread_create(&t, nullptr, descend, &run) != 0) {
            fprintf(stderr, "tarvex_bench: pthread_create failed\n");
            exit(1);
        }
    }
    std::vector<double> per_op, cpu_per_op;
    for (int r = 0; r < o.reps; ++r) {
        run.stop.store(false);
        run.ops_done.store(0);
        run.cpu_ns.store(0);
        run.first_start = run.last_end = 0;
        pthread_barrier_wait(&run.start);
        if (o.count == 0) {
            timespec ts{o.min_ms / 1000, (o.min_ms % 1000) * 1000000};
            while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
            }
            run.stop.store(true);
        }
        pthread_barrier_wait(&run.end);
        double ops = static_cast<double>(std::max(run.ops_done.load(), 1L));
        // Time per operation on one thread: wall time over the operations
        // of an average thread; and the CPU time that the workers spent.
        per_op.push_back((run.last_end - run.first_start) * o.threads / ops);
        cpu_per_op.push_back(static_cast<double>(run.cpu_ns.load()) / ops);
    }
    for (pthread_t& t : threads) pthread_join(t, nullptr);
    pthread_barrier_destroy(&run.start);
    pthread_barrier_destroy(&run.end);
    printf("result op=%s depth=%d frames=%d threads=%d live=%ld size=%zu ns_per_op=%.2f cpu_ns_per_op=%.2f "
           "min=%.2f max=%.2f\n",
           op_name(op), depth, run.frames_seen.load(), o.threads, o.live, o.size, median_of(per_op),
           median_of(cpu_per_op), *std::min_element(per_op.begin(), per_op.end()),
           *std::max_element(per_op.begin(), per_op.end()));
    fflush(stdout);
}

// Tells the scripts whether tarvex tracks this process: the usable size of
// a tracked block is the size asked for, glibc's is at least 24 bytes.
void print_tracking() {
    void* p = malloc(1);
    printf("info usable_size_of_1=%zu\n", malloc_usable_size(p));
    free(p);
}

int cmd_work(int argc, char** argv) {
    options o = parse(argc, argv, 2);
    print_tracking();
    // The held blocks: allocated by the main thread before any workload.
    std::vector<void*> held;
    held.reserve(static_cast<size_t>(o.live));
    for (long i = 0; i < o.live; ++i) {
        void* p = malloc(o.size);
        if (p == nullptr) {
            fprintf(stderr, "tarvex_bench: out of memory after %ld held blocks\n", i);
            return 1;
        }
        held.push_back(p);
    }
    for (const std::string& name : o.ops) {
        op_kind op;
        if (name == "pair") {
            op = op_kind::pair;
        } else if (name == "churn") {
            op = op_kind::churn;
        } else if (name == "bt") {
            op = op_kind::bt;
        } else {
            fprintf(stderr, "tarvex_bench: unknown workload %s\n", name.c_str());
            return 2;
        }
        for (int depth : o.depths) run_workload(op, depth, o);
    }
    for (void* p : held) free(p);
    return 0;
}

// ---------------------------------------------------------------- memory

long resident_bytes() {
    FILE* f = fopen("/proc/self/statm", "re");
    if (f == nullptr) return -1;
    long size = 0, resident = 0;
    int n = fscanf(f, "%ld %ld", &size, &resident);
    fclose(f);
    return n == 2 ? resident * sysconf(_SC_PAGESIZE) : -1;
}

int cmd_rss(int argc, char** argv) {
    options o = parse(argc, argv, 2);
    print_tracking();
    size_t n = static_cast<size_t>(o.blocks);
    // The holder is allocated and touched before the first reading.
    std::vector<void*> held(n, nullptr);
    // A first allocation and release settle the allocator (and, preloaded,
    // build tarvex's context and its caches).
    for (int i = 0; i < 1000; ++i) free(malloc(o.size));
    long rss0 = resident_bytes();
    struct mallinfo2 mi0 = mallinfo2();
    for (size_t i = 0; i < n; ++i) {
        held[i] = malloc(o.size);
        if (held[i] == nullptr) {
            fprintf(stderr, "tarvex_bench: out of memory after %zu blocks\n", i);
            return 1;
        }
        escape(held[i]);
    }
    long rss1 = resident_bytes();
    struct mallinfo2 mi1 = mallinfo2();
    double per_rss = static_cast<double>(rss1 - rss0) / static_cast<double>(n ? n : 1);
    double heap0 = static_cast<double>(mi0.uordblks + mi0.hblkhd);
    double heap1 = static_cast<double>(mi1.uordblks + mi1.hblkhd);
    printf("result op=rss blocks=%zu size=%zu rss_bytes_per_block=%.1f heap_bytes_per_block=%.1f\n", n, o.size,
           per_rss, (heap1 - heap0) / static_cast<double>(n ? n : 1));
    fflush(stdout);
    for (void* p : held) free(p);
    return 0;
}

#ifdef TARVEX_HAVE_GBENCH
// ---------------------------------------------------------------- frame cost

void BM_malloc_free(benchmark::State& state) {
    size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = malloc(size);
        escape(p);
        free(p);
    }
}
BENCHMARK(BM_malloc_free)->Arg(32);

void BM_libc_malloc_free(benchmark::State& state) {
    size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* p = __libc_malloc(size);
        escape(p);
        __libc_free(p);
    }
}
BENCHMARK(BM_libc_malloc_free)->Arg(32);
#endif

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[1], "work") == 0) return cmd_work(argc, argv);
    if (argc >= 2 && strcmp(argv[1], "rss") == 0) return cmd_rss(argc, argv);
#ifdef TARVEX_HAVE_GBENCH
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
#else
    fprintf(stderr, "tarvex_bench: built without Google Benchmark; only 'work' and 'rss' are available\n");
    return 2;
#endif
}
