/*
 * The scenarios that must run without the C++ runtime, whose start-up
 * allocates: linked with libstress_atfork_early.so, whose constructor
 * registers fork handlers before the process's first allocation.
 *
 *   stress_c probe tracked|untracked  exits 0 when tarvex tracks this
 *                              process as said (started through exec)
 *   stress_c dlsym             a failed dlsym, then a second dlsym before
 *                              the process's first free
 *   stress_c atfork            forks while the early fork handlers allocate
 *   stress_c control-first|malloc-first|free-null-first
 *                              every control function, an allocation or
 *                              free(NULL) from a pre-initialiser; then
 *                              whether tracked
 *   stress_c report tracked|untracked
 *                              three blocks, two top reports, a trace dump
 *   stress_c oom|oom-fault     allocation failure (with libfailing.so)
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdbool.h>

#include "scenario_util.h"

void* atfork_early_kept(void);

/* ---------------------------------------------------------------- early calls */

/* Runs from the executable's pre-initialisers, ahead of every library's
 * constructors and before the C library has set up environ. */
static void* g_early_block;
extern void* g_ctx __attribute__((weak));
static void* volatile g_null;
static bool g_early_context; /* free-null-first: the context exists after it */

static void early(int argc, char** argv, char** envp) {
    (void)envp;
    if (argc >= 2 && strcmp(argv[1], "malloc-first") == 0) g_early_block = malloc(32);
    if (argc >= 2 && strcmp(argv[1], "free-null-first") == 0) {
        free(g_null);
        g_early_context = &g_ctx != NULL && g_ctx != NULL;
    }
    if (argc < 2 || strcmp(argv[1], "control-first") != 0) return;
    trvx_trace_dump();
    trvx_dump_alloc_stats(3);
    trvx_trace_start();
    trvx_trace_stop();
    trvx_trace_clear();
    trvx_clear_alloc_stats();
    trvx_dump_alloc_stats(0);
}
__attribute__((section(".preinit_array"), used)) static void (*const g_early)(int, char**, char**) = early;

static int report_under_env(bool tracked) {
    void* blocks[3];
    for (int i = 0; i < 3; ++i) {
        blocks[i] = malloc(100);
        CHECK(is_tracked(blocks[i], 100) == tracked, "malloc(100): tracked is not %d", tracked);
    }
    trvx_dump_alloc_stats(5);
    trvx_trace_start();
    free(malloc(10));
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_dump_alloc_stats(5);
    for (int i = 0; i < 3; ++i) free(blocks[i]);
    fputs("ok\n", stderr);
    return 0;
}

/* ---------------------------------------------------------------- allocation failure */

/* Run with LD_PRELOAD="libtarvex.so libfailing.so" and STRESS_FAIL_AT: the
 * requests that reach the C library after failing_arm() are refused from
 * there on, whoever made them (the program, or tarvex for its registry,
 * caches, reports and symbols). Every failed program request must return
 * null with ENOMEM, at most one per refusal, and afterwards the registry
 * and the counters must agree with what the program holds. */
static struct {
    void* p;
    size_t size;
} g_held[256];
static int g_nheld, g_failures;

static void failed(const char* what, int err) {
    CHECK(err == ENOMEM, "%s failed with errno %d, not ENOMEM", what, err);
    ++g_failures;
}

static void hold(const char* what, void* p, size_t size) {
    if (p == NULL) {
        failed(what, errno);
        return;
    }
    CHECK(is_tracked(p, size), "%s: block %p of %zu bytes is not tracked", what, p, size);
    g_held[g_nheld].p = p;
    g_held[g_nheld++].size = size;
}

#define HOLD(call, size) (errno = 0, hold(#call, call, size))

static void drop(int i) { g_held[i] = g_held[--g_nheld]; }

static void resize(int i, size_t size) {
    errno = 0;
    void* q = realloc(g_held[i].p, size);
    if (q == NULL) {
        failed("realloc", errno);
        CHECK(is_tracked(g_held[i].p, g_held[i].size), "a failed realloc lost the old block");
        return;
    }
    drop(i);
    hold("realloc", q, size);
}

static void round_of_requests(size_t n) {
    HOLD(malloc(n), n);
    HOLD(calloc(3, 50), 150);
    HOLD(realloc(NULL, 40), 40);
    resize(g_nheld - 1, 400);
    resize(g_nheld - 1, 20);
    void* p = &g_held; /* a failing posix_memalign leaves it alone */
    int rc = (errno = 1234, posix_memalign(&p, 64, 200));
    CHECK(errno == 1234, "posix_memalign changed errno");
    if (rc == 0) {
        hold("posix_memalign", p, 200);
    } else {
        CHECK(rc == ENOMEM && p == &g_held, "posix_memalign failed with %d or wrote its result", rc);
        ++g_failures;
    }
    HOLD(aligned_alloc(32, 96), 96);
    HOLD(memalign(128, 50), 50);
    HOLD(valloc(300), 300);
    HOLD(pvalloc(100), (size_t)sysconf(_SC_PAGESIZE));
    HOLD(strdup("hello, tarvex"), 14);
    free(g_held[0].p); /* releases: free, and realloc to 0 */
    drop(0);
    CHECK(realloc(g_held[2].p, 0) == NULL, "realloc(p, 0) did not return null");
    drop(2);
}

static int oom(const char* log) {
    char baseline[8192], tables[8192];
    long long base_total = report_total(log, baseline, sizeof baseline);
    void (*arm)(void) = (void (*)(void))dlsym(RTLD_DEFAULT, "failing_arm");
    long (*disarm)(void) = (long (*)(void))dlsym(RTLD_DEFAULT, "failing_disarm");
    CHECK(arm && disarm, "libfailing.so is not preloaded");
    arm();
    round_of_requests(100);
    round_of_requests(101);
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
    CHECK(g_failures <= atoi(getenv("STRESS_FAIL_RUN")), "%d program requests failed", g_failures);
    long long held = 0;
    for (int i = 0; i < g_nheld; ++i) {
        CHECK(is_tracked(g_held[i].p, g_held[i].size), "held block %p is not registered", g_held[i].p);
        held += (long long)g_held[i].size;
    }
    long long total = report_total(log, NULL, 0);
    CHECK(total - base_total == held, "live bytes grew by %lld, the program holds %lld", total - base_total, held);
    /* Releasing everything is quiet and brings the report back to the
     * baseline, table for table. */
    for (int i = 0; i < g_nheld; ++i) free(g_held[i].p);
    report_total(log, tables, sizeof tables);
    CHECK(strcmp(tables, baseline) == 0, "tables differ from the baseline:\n%s\n----- baseline:\n%s", tables, baseline);
    printf("oom: ok (%ld requests)\n", requests);
    return 0;
}

/* A double free whose block report is built while requests are refused. */
static void oom_fault(void) {
    void (*arm)(void) = (void (*)(void))dlsym(RTLD_DEFAULT, "failing_arm");
    CHECK(arm != NULL, "libfailing.so is not preloaded");
    char* p = malloc(24);
    free(p);
    arm();
    free(p);
    CHECK(false, "the double free did not stop the process");
}

/* ---------------------------------------------------------------- the rest */

int main(int argc, char** argv) {
    const char* mode = argc > 1 ? argv[1] : "";
    const char* arg = argc > 2 ? argv[2] : "";
    const char* log = getenv("TARVEX_LOG_FILE_NAME");
    if (strcmp(mode, "probe") == 0) {
        void* p = malloc(13);
        bool tracked = is_tracked(p, 13);
        CHECK(tracked == (strcmp(arg, "tracked") == 0), "%s: tracked is %d, expected %s", argv[0], tracked, arg);
        free(p);
        return 0;
    }
    if (strcmp(mode, "dlsym") == 0) {
        /* glibc's second dlsym frees the message of the first, and that free
         * must not call dlsym again (which would free it twice). */
        CHECK(dlsym(RTLD_DEFAULT, "stress_no_such_symbol") == NULL, "dlsym found a missing symbol");
        CHECK(dlsym(RTLD_DEFAULT, "printf") != NULL, "dlsym did not find printf");
        puts("dlsym: ok");
        return 0;
    }
    if (strcmp(mode, "atfork") == 0) {
        /* The early prepare handler runs after tarvex's, which holds every
         * lock it keeps across fork: its calls must not wait for them. */
        for (int i = 0; i < 20; ++i) {
            void* p = malloc(100);
            pid_t pid = fork();
            if (pid == 0) {
                free(p);
                free(malloc(10));
                _exit(0);
            }
            wait_ok(pid, "forked child");
            free(p);
        }
        CHECK(is_tracked(atfork_early_kept(), 40), "the prepare handler's block is not tracked");
        puts("atfork: ok");
        return 0;
    }
    if (strcmp(mode, "control-first") == 0 || strcmp(mode, "malloc-first") == 0 ||
        strcmp(mode, "free-null-first") == 0) {
        if (strcmp(mode, "free-null-first") == 0) CHECK(g_early_context, "free(NULL) built no context");
        void* p = malloc(10);
        puts(is_tracked(p, 10) ? "tracked" : "untracked");
        free(p);
        free(g_early_block);
        puts("ok");
        return 0;
    }
    if (strcmp(mode, "report") == 0) return report_under_env(strcmp(arg, "tracked") == 0);
    /* The first stack capture loads the unwinder and the first report opens
     * the log: neither belongs to what the failing allocator counts. */
    free(malloc(1));
    trvx_dump_alloc_stats(1);
    if (strcmp(mode, "oom") == 0 && log != NULL) return oom(log);
    if (strcmp(mode, "oom-fault") == 0) oom_fault();
    CHECK(false, "unknown mode %s, or TARVEX_LOG_FILE_NAME unset", mode);
    return 2;
}
