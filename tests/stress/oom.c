/*
 * Allocation failure inside and around tarvex. Run with
 * LD_PRELOAD="libtarvex.so libfailing.so" and STRESS_FAIL_AT=N: the Nth
 * request that reaches the C library after the scenario arms libfailing
 * fails, whoever made it (the program, or tarvex for its registry, caches,
 * reports and symbols).
 *
 *   stress_oom ops     allocation, resize, release, the aligned family, a
 *                      trace and a top report; every failed program request
 *                      must return null with ENOMEM, at most one may fail,
 *                      and afterwards the registry and the counters must
 *                      agree with what the program holds. Prints "oom: ok".
 *   stress_oom fault   a double free whose block report is built while the
 *                      failure is armed; the process stops as usual.
 *
 * Expects TARVEX_TARGET_PROC_NAME=stress_oom, TARVEX_TOP and
 * TARVEX_LOG_FILE_NAME.
 */
#define _GNU_SOURCE
#include <dlfcn.h>

#include "scenario_util.h"

typedef void (*arm_fn)(void);
typedef long (*disarm_fn)(void);

struct held {
    void* p;
    size_t size;
};
static struct held g_held[256];
static int g_nheld;
static int g_failures;

static void hold(void* p, size_t size) {
    STRESS_CHECK(stress_is_tracked(p, size), "block %p of %zu bytes is not tracked", p, size);
    STRESS_CHECK(g_nheld < 256, "too many blocks");
    g_held[g_nheld].p = p;
    g_held[g_nheld].size = size;
    ++g_nheld;
}

static void drop(int i) { g_held[i] = g_held[--g_nheld]; }

/* A program request that returned null: it must say ENOMEM. */
static void failed(const char* what, int err) {
    STRESS_CHECK(err == ENOMEM, "%s failed with errno %d, not ENOMEM", what, err);
    ++g_failures;
}

static void allocate(const char* what, void* p, size_t size) {
    if (p == NULL)
        failed(what, errno);
    else
        hold(p, size);
}

static void resize(int i, size_t size) {
    if (i >= g_nheld) return;
    errno = 0;
    void* q = realloc(g_held[i].p, size);
    if (q == NULL) {
        failed("realloc", errno);
        /* The old block stays the program's, untouched and registered. */
        STRESS_CHECK(stress_is_tracked(g_held[i].p, g_held[i].size), "realloc failure lost the old block");
        return;
    }
    STRESS_CHECK(q != g_held[i].p, "a tracked realloc returned the old address");
    drop(i);
    hold(q, size);
}

static void round_of_requests(int round) {
    size_t n = 100 + (size_t)round;
    errno = 0;
    allocate("malloc", malloc(n), n);
    errno = 0;
    char* c = calloc(3, 50);
    if (c != NULL)
        for (int i = 0; i < 150; ++i) STRESS_CHECK(c[i] == 0, "calloc byte %d not zero", i);
    allocate("calloc", c, 150);
    errno = 0;
    allocate("realloc(NULL)", realloc(NULL, 40), 40);
    resize(g_nheld - 1, 400);
    resize(g_nheld - 1, 20);

    void* p = (void*)&g_held; /* a sentinel: a failing posix_memalign leaves it alone */
    int saved = errno = 1234;
    int rc = posix_memalign(&p, 64, 200);
    STRESS_CHECK(errno == saved, "posix_memalign changed errno");
    if (rc == 0) {
        hold(p, 200);
    } else {
        STRESS_CHECK(rc == ENOMEM, "posix_memalign returned %d, not ENOMEM", rc);
        STRESS_CHECK(p == (void*)&g_held, "a failing posix_memalign wrote its result");
        ++g_failures;
    }
    errno = 0;
    allocate("aligned_alloc", aligned_alloc(32, 96), 96);
    errno = 0;
    allocate("memalign", memalign(128, 50), 50);
    errno = 0;
    allocate("valloc", valloc(300), 300);
    errno = 0;
    allocate("pvalloc", pvalloc(100), (size_t)sysconf(_SC_PAGESIZE));
    errno = 0;
    allocate("strdup", strdup("hello, tarvex"), 14);

    /* Releases: free, and realloc to 0, which releases and returns null. */
    if (g_nheld > 0) {
        free(g_held[0].p);
        drop(0);
    }
    if (g_nheld > 2) {
        void* q = realloc(g_held[2].p, 0);
        STRESS_CHECK(q == NULL, "realloc(p, 0) returned %p", q);
        drop(2);
    }
}

static void ops(const char* log) {
    long long baseline = stress_report_total(log);
    char baseline_tables[8192];
    stress_report_tables(g_stress_report, baseline_tables, sizeof baseline_tables);

    arm_fn arm = (arm_fn)dlsym(RTLD_DEFAULT, "failing_arm");
    disarm_fn disarm = (disarm_fn)dlsym(RTLD_DEFAULT, "failing_disarm");
    STRESS_CHECK(arm && disarm, "libfailing.so is not preloaded");
    arm();
    for (int round = 0; round < 2; ++round) round_of_requests(round);
    trvx_trace_start();
    errno = 0;
    void* t = malloc(10);
    if (t == NULL) failed("malloc", errno);
    free(t);
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_trace_clear();
    trvx_dump_alloc_stats(5);
    long requests = disarm();

    const char* run = getenv("STRESS_FAIL_RUN");
    int refusals = run ? atoi(run) : 1;
    STRESS_CHECK(g_failures <= refusals, "%d program requests failed; each refusal can fail one at most", g_failures);
    long long held = 0;
    for (int i = 0; i < g_nheld; ++i) {
        STRESS_CHECK(stress_is_tracked(g_held[i].p, g_held[i].size), "held block %p is not registered", g_held[i].p);
        held += (long long)g_held[i].size;
    }
    long long total = stress_report_total(log);
    STRESS_CHECK(total - baseline == held, "live bytes grew by %lld, the program holds %lld", total - baseline, held);

    /* Every held block is still registered: releasing them all is quiet and
     * brings the report back to the baseline, table for table. */
    for (int i = 0; i < g_nheld; ++i) free(g_held[i].p);
    g_nheld = 0;
    total = stress_report_total(log);
    char tables[8192];
    stress_report_tables(g_stress_report, tables, sizeof tables);
    STRESS_CHECK(total == baseline, "after releasing everything live bytes are %lld, not %lld", total, baseline);
    STRESS_CHECK(strcmp(tables, baseline_tables) == 0, "tables differ from the baseline:\n%s\n----- baseline:\n%s",
                 tables, baseline_tables);
    printf("oom: ok (%ld requests)\n", requests);
}

static void fault(void) {
    arm_fn arm = (arm_fn)dlsym(RTLD_DEFAULT, "failing_arm");
    STRESS_CHECK(arm != NULL, "libfailing.so is not preloaded");
    char* p = malloc(24);
    free(p);
    arm();
    free(p);
    stress_fail("the double free did not stop the process");
}

int main(int argc, char** argv) {
    const char* log = getenv("TARVEX_LOG_FILE_NAME");
    STRESS_CHECK(argc == 2 && log != NULL, "usage: stress_oom ops|fault, with TARVEX_LOG_FILE_NAME set");
    /* Warm up: the first stack capture loads the unwinder, the first report
     * opens the log; neither belongs to what is measured. */
    free(malloc(1));
    trvx_dump_alloc_stats(1);
    if (strcmp(argv[1], "ops") == 0)
        ops(log);
    else if (strcmp(argv[1], "fault") == 0)
        fault();
    else
        stress_fail("unknown mode %s", argv[1]);
    return 0;
}
