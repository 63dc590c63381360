/*
 * Hostile input for the interposed and the control functions.
 *
 *   stress_hostile FAULT        releases or resizes a pointer that the
 *                               process never got (or released by realloc
 *                               to 0); prints "ptr=%p" on standard error
 *                               first, then must stop
 *   stress_hostile edge-sizes   huge sizes, overflowing products, zero
 *                               sizes, bad alignments, realloc to 0: each
 *                               gives its defined result, prints "ok"
 *   stress_hostile control-first
 *                               calls every control function before the
 *                               process has allocated anything, then prints
 *                               whether its blocks are tracked
 *   stress_hostile malloc-first allocates before anything else, releases
 *                               in main, prints whether it is tracked
 *   stress_hostile control-threads
 *                               40 threads call the control functions at
 *                               the same moment, over and over
 *   stress_hostile report tracked|untracked
 *                               three blocks, two top reports and a trace
 *                               dump, under whatever environment the test
 *                               gives; prints "ok" on standard error
 *
 * Expects TARVEX_TARGET_PROC_NAME=stress_hostile unless a test says
 * otherwise.
 */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdbool.h>

#include "scenario_util.h"

/* Pointers that no allocator ever handed out, but that point into mapped
 * memory. */
static char g_static_bytes[64];

/* Hides the sizes from the compiler, which would reject the huge ones. */
static volatile size_t g_size_max = SIZE_MAX;
static void* volatile g_sink;

static void announce(const void* p) { fprintf(stderr, "ptr=%p\n", p); }

static int fault(const char* mode) {
    char* p = malloc(64);
    void* target = NULL;
    bool use_realloc = strncmp(mode, "realloc-", 8) == 0;
    const char* what = mode + (use_realloc ? 8 : 5);
    if (strcmp(what, "misaligned") == 0) {
        target = p + 1;
    } else if (strcmp(what, "static") == 0) {
        target = g_static_bytes;
    } else if (strcmp(what, "mmap") == 0) {
        char* page = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        target = page + 16;
    } else if (strcmp(what, "code") == 0) {
        target = (void*)(uintptr_t)&fault;
    } else if (strcmp(what, "realloc0-then") == 0) {
        STRESS_CHECK(realloc(p, 0) == NULL, "realloc(p, 0) did not return null");
        target = p;
    } else {
        stress_fail("unknown fault %s", mode);
    }
    announce(target);
    if (use_realloc)
        g_sink = realloc(target, 32);
    else
        free(target);
    stress_fail("%s did not stop the process", mode);
}

#define EXPECT_NULL_ENOMEM(call)                                                       \
    do {                                                                               \
        errno = 0;                                                                     \
        void* r_ = (call);                                                             \
        STRESS_CHECK(r_ == NULL, #call " returned %p", r_);                            \
        STRESS_CHECK(errno == ENOMEM, #call " set errno %d, not ENOMEM", errno);       \
    } while (0)

/* A block that must be released quietly. */
static void release(void* p, const char* what) {
    STRESS_CHECK(p != NULL, "%s returned null", what);
    free(p);
}

static int edge_sizes(void) {
    const size_t max = g_size_max;
    EXPECT_NULL_ENOMEM(malloc(max));
    EXPECT_NULL_ENOMEM(malloc(max - 279)); /* the footer does not fit */
    EXPECT_NULL_ENOMEM(malloc(max - 280)); /* the footer fits, the memory does not */
    EXPECT_NULL_ENOMEM(malloc((size_t)1 << 62));
    EXPECT_NULL_ENOMEM(calloc(max / 2 + 1, 2)); /* the product overflows */
    EXPECT_NULL_ENOMEM(calloc((max >> 32) + 1, (max >> 32) + 1)); /* 2^32 x 2^32 */
    EXPECT_NULL_ENOMEM(calloc(1, max - 100));
    EXPECT_NULL_ENOMEM(valloc(max));
    EXPECT_NULL_ENOMEM(pvalloc(max));
    EXPECT_NULL_ENOMEM(memalign(64, max));
    EXPECT_NULL_ENOMEM(aligned_alloc(64, max));
    EXPECT_NULL_ENOMEM(realloc(NULL, max));

    /* posix_memalign reports through its result, leaves errno and the
     * output alone. */
    void* sentinel = &sentinel;
    void* out = sentinel;
    errno = 4321;
    STRESS_CHECK(posix_memalign(&out, 64, max) == ENOMEM, "posix_memalign(64, SIZE_MAX) did not give ENOMEM");
    STRESS_CHECK(posix_memalign(&out, 3, 10) == EINVAL, "posix_memalign with alignment 3 did not give EINVAL");
    STRESS_CHECK(posix_memalign(&out, 0, 10) == EINVAL, "posix_memalign with alignment 0 did not give EINVAL");
    STRESS_CHECK(posix_memalign(&out, 4, 10) == EINVAL, "posix_memalign with alignment 4 did not give EINVAL");
    STRESS_CHECK(out == sentinel, "a failing posix_memalign wrote its result");
    STRESS_CHECK(errno == 4321, "posix_memalign changed errno to %d", errno);

    /* A failed resize keeps the old block, contents and registration. */
    char* p = malloc(16);
    memcpy(p, "0123456789abcde", 16);
    EXPECT_NULL_ENOMEM(realloc(p, max));
    EXPECT_NULL_ENOMEM(realloc(p, max - 279));
    EXPECT_NULL_ENOMEM(reallocarray(p, max / 2 + 1, 2));
    STRESS_CHECK(stress_is_tracked(p, 16) && memcmp(p, "0123456789abcde", 16) == 0,
                 "a failed realloc changed the old block");

    /* Resizing to 0 releases: the block waits in the quarantine, poisoned. */
    STRESS_CHECK(realloc(p, 0) == NULL, "realloc(p, 0) did not return null");
    STRESS_CHECK((unsigned char)p[0] == 0xDD && (unsigned char)p[15] == 0xDD, "realloc(p, 0) did not release p");
    STRESS_CHECK(realloc(NULL, 0) == NULL, "realloc(NULL, 0) did not return null");

    /* Zero sizes: valid, distinct, untracked blocks, released quietly. */
    void* z1 = malloc(0);
    void* z2 = malloc(0);
    STRESS_CHECK(z1 != NULL && z2 != NULL && z1 != z2, "malloc(0) gave %p and %p", z1, z2);
    free(z1);
    free(z2);
    release(calloc(0, 5), "calloc(0, 5)");
    release(calloc(5, 0), "calloc(5, 0)");
    release(valloc(0), "valloc(0)");
    release(memalign(16, 0), "memalign(16, 0)");
    release(aligned_alloc(16, 0), "aligned_alloc(16, 0)");
    release(reallocarray(NULL, 0, 8), "reallocarray(NULL, 0, 8)");
    out = NULL;
    STRESS_CHECK(posix_memalign(&out, 16, 0) == 0, "posix_memalign(16, 0) failed");
    release(out, "posix_memalign(16, 0)");
    char* page = pvalloc(0);
    STRESS_CHECK(page != NULL && ((uintptr_t)page & 4095) == 0, "pvalloc(0) gave %p", (void*)page);
    page[4095] = 1; /* one whole page */
    free(page);
    free(NULL);
    STRESS_CHECK(malloc_usable_size(NULL) == 0, "malloc_usable_size(NULL) is not 0");

    /* Alignments that are not powers of two: memalign rounds them up as the
     * C library does; aligned_alloc either refuses with EINVAL or gives a
     * block that is released quietly. */
    char* m = memalign(24, 10);
    STRESS_CHECK(m != NULL && ((uintptr_t)m & 31) == 0, "memalign(24, 10) gave %p", (void*)m);
    free(m);
    errno = 0;
    void* a = aligned_alloc(3, 10);
    STRESS_CHECK(a != NULL || errno == EINVAL, "aligned_alloc(3, 10) failed with errno %d", errno);
    free(a);
    errno = 0;
    STRESS_CHECK(memalign((size_t)1 << 62, 10) == NULL, "memalign with alignment 2^62 succeeded");

    /* Large but possible: tracked, usable, released. */
    char* big = malloc(64 << 20);
    STRESS_CHECK(big != NULL && stress_is_tracked(big, 64 << 20), "malloc(64 MiB) is not tracked");
    free(big);
    puts("ok");
    return 0;
}

/* Calls made before the process has allocated anything: this runs from the
 * executable's pre-initialisers, ahead of every library's constructors (and
 * before the C library has set up environ). */
static void* g_early_block;

static void control_first(int argc, char** argv, char** envp) {
    (void)envp;
    if (argc >= 2 && strcmp(argv[1], "malloc-first") == 0) g_early_block = malloc(32);
    if (argc < 2 || strcmp(argv[1], "control-first") != 0) return;
    trvx_trace_dump();
    trvx_dump_alloc_stats(3);
    trvx_trace_start();
    trvx_trace_stop();
    trvx_trace_clear();
    trvx_clear_alloc_stats();
    trvx_dump_alloc_stats(0);
}
__attribute__((section(".preinit_array"), used)) static void (*const g_early)(int, char**, char**) = control_first;

static pthread_barrier_t g_barrier;

static void* control_thread(void* arg) {
    unsigned k = (unsigned)(uintptr_t)arg;
    pthread_barrier_wait(&g_barrier);
    for (int i = 0; i < 60; ++i) {
        switch ((k + (unsigned)i) % 6) {
            case 0: trvx_trace_start(); break;
            case 1: trvx_trace_stop(); break;
            case 2: trvx_trace_clear(); break;
            case 3: trvx_trace_dump(); break;
            case 4: trvx_dump_alloc_stats(k % 3); break;
            default: trvx_clear_alloc_stats(); break;
        }
    }
    return NULL;
}

static int control_threads(void) {
    enum { n = 40 };
    pthread_t threads[n];
    pthread_barrier_init(&g_barrier, NULL, n);
    for (int i = 0; i < n; ++i) pthread_create(&threads[i], NULL, control_thread, (void*)(uintptr_t)i);
    for (int i = 0; i < n; ++i) pthread_join(threads[i], NULL);
    /* Every guard slot is free again: this thread's blocks are tracked. */
    void* p = malloc(10);
    STRESS_CHECK(stress_is_tracked(p, 10), "malloc(10) is not tracked after the control storm");
    free(p);
    puts("ok");
    return 0;
}

static int report(bool tracked) {
    void* blocks[3];
    for (int i = 0; i < 3; ++i) {
        blocks[i] = malloc(100);
        STRESS_CHECK(blocks[i] != NULL && stress_is_tracked(blocks[i], 100) == tracked, "malloc(100): tracked is not %d",
                     tracked);
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

int main(int argc, char** argv) {
    STRESS_CHECK(argc >= 2, "usage: stress_hostile MODE");
    const char* mode = argv[1];
    if (strncmp(mode, "free-", 5) == 0 || strncmp(mode, "realloc-", 8) == 0) return fault(mode);
    if (strcmp(mode, "edge-sizes") == 0) return edge_sizes();
    if (strcmp(mode, "control-first") == 0 || strcmp(mode, "malloc-first") == 0) {
        /* Whether the process is tracked after the early calls, and the
         * early block (if any) is released like any other. */
        void* p = malloc(10);
        puts(stress_is_tracked(p, 10) ? "tracked" : "untracked");
        free(p);
        free(g_early_block);
        puts("ok");
        return 0;
    }
    if (strcmp(mode, "control-threads") == 0) return control_threads();
    if (strcmp(mode, "report") == 0 && argc == 3) return report(strcmp(argv[2], "tracked") == 0);
    stress_fail("unknown mode %s", mode);
}
