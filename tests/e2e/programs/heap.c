/*
 * C test program for the end-to-end tests: one scenario per run, named by
 * the first argument. Each scenario prints facts about the blocks it gets
 * (standard output) or, before it provokes a fault, the material for the
 * expected fault report (descriptor 3). See probe.h.
 */
#include "probe.h" /* first: it sets the feature macros */

#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <tarvex.h>

extern char* __strdup(const char*);

/* Sizes the compiler cannot see, so that no call is folded or warned about. */
static volatile size_t v_huge = SIZE_MAX;
static volatile int v_two = 2;

static const char* errno_name(int e) {
    switch (e) {
        case 0: return "0";
        case ENOMEM: return "ENOMEM";
        case EINVAL: return "EINVAL";
        case EDOM: return "EDOM";
        default: return "other";
    }
}

static size_t count_bytes(const void* p, size_t n, unsigned char value) {
    size_t k = 0;
    for (size_t i = 0; i < n; ++i) k += ((const unsigned char*)p)[i] == value;
    return k;
}

/* ------------------------------------------------------------ allocation */

static void scenario_malloc(void) {
    unsigned char* b[2];
    for (int i = 0; i < v_two; ++i) b[i] = launder(malloc(1));
    emit(OUT_FD, "byte0=%02x usable=%zu usable(NULL)=%zu\n", b[0][0], malloc_usable_size(b[0]),
         malloc_usable_size(NULL));
    emit_footer("malloc(1)", b[0], 1);
    footer_view f0 = read_footer(b[0], 1), f1 = read_footer(b[1], 1);
    emit(OUT_FD, "same call site, same uid: %d\n", f0.alloc_uid == f1.alloc_uid);
    free(b[0]);
    free(b[1]);
}

static void scenario_calloc(void) {
    unsigned char* p = launder(calloc(3, 5));
    emit(OUT_FD, "zeros=%zu usable=%zu\n", count_bytes(p, 15, 0), malloc_usable_size(p));
    emit_footer("calloc(3,5)", p, 15);
    free(p);
}

static void scenario_valloc(void) {
    unsigned char* p = launder(valloc(100));
    emit(OUT_FD, "page aligned=%d fresh=%zu usable=%zu\n", (uintptr_t)p % (uintptr_t)sysconf(_SC_PAGESIZE) == 0,
         count_bytes(p, 100, 0xDE), malloc_usable_size(p));
    emit_footer("valloc(100)", p, 100);
    free(p);
}

static void scenario_strdup(void) {
    char* s = launder(__strdup("tarvex"));
    emit(OUT_FD, "copy=%s usable=%zu\n", s, malloc_usable_size(s));
    emit_footer("__strdup", s, 7);
    free(s);
}

static void report_aligned(const char* label, void* p, size_t align, size_t size) {
    emit(OUT_FD, "%s: aligned=%d usable=%zu fresh=%zu\n", label, (uintptr_t)p % align == 0, malloc_usable_size(p),
         count_bytes(p, size, 0xDE));
    emit_footer(label, p, size);
}

static void scenario_aligned(void) {
    void* p = NULL;
    int rc = posix_memalign(&p, 64, 40);
    emit(OUT_FD, "posix_memalign rc=%d\n", rc);
    report_aligned("posix_memalign(64,40)", p, 64, 40);
    void* q = launder(memalign(128, 40));
    report_aligned("memalign(128,40)", q, 128, 40);
    void* r = launder(aligned_alloc(256, 512));
    report_aligned("aligned_alloc(256,512)", r, 256, 512);
    size_t page = (size_t)sysconf(_SC_PAGESIZE);
    void* s = launder(pvalloc(100));
    emit(OUT_FD, "pvalloc rounds to a page: %d\n", malloc_usable_size(s) == page);
    report_aligned("pvalloc(100)", s, page, page);
    free(p);
    free(q);
    free(r);
    free(s);

    /* Errors: posix_memalign returns the code and leaves *memptr alone. */
    static const size_t bad_align[] = {0, 4, 24, 48};
    for (size_t i = 0; i < sizeof bad_align / sizeof bad_align[0]; ++i) {
        void* untouched = (void*)0x1234;
        errno = EDOM;
        rc = posix_memalign(&untouched, bad_align[i], 16);
        emit(OUT_FD, "posix_memalign(%zu,16): rc=%s memptr untouched=%d errno=%s\n", bad_align[i], errno_name(rc),
             untouched == (void*)0x1234, errno_name(errno));
    }
    void* untouched = (void*)0x1234;
    rc = posix_memalign(&untouched, 64, v_huge);
    emit(OUT_FD, "posix_memalign(64,SIZE_MAX): rc=%s memptr untouched=%d\n", errno_name(rc),
         untouched == (void*)0x1234);
    void* m = memalign(24, 10);
    emit(OUT_FD, "memalign(24,10): aligned to 32=%d\n", (uintptr_t)m % 32 == 0);
    free(m);
    errno = 0;
    void* a = aligned_alloc(3, 16);
    emit(OUT_FD, "aligned_alloc(3,16): %s errno=%s\n", a ? "block" : "null", errno_name(errno));
    errno = 0;
    a = memalign(64, v_huge);
    emit(OUT_FD, "memalign(64,SIZE_MAX): %s errno=%s\n", a ? "block" : "null", errno_name(errno));
    errno = 0;
    a = pvalloc(v_huge);
    emit(OUT_FD, "pvalloc(SIZE_MAX): %s errno=%s\n", a ? "block" : "null", errno_name(errno));
}

static void scenario_enomem(void) {
    struct {
        const char* label;
        size_t count, size;
        int how;
    } cases[] = {
        {"malloc(SIZE_MAX)", 1, SIZE_MAX, 0},
        {"malloc(SIZE_MAX-279)", 1, SIZE_MAX - 279, 0}, /* the footer does not fit */
        {"malloc(SIZE_MAX-280)", 1, SIZE_MAX - 280, 0}, /* the footer fits, the memory does not */
        {"calloc(2^63,2)", (SIZE_MAX >> 1) + 1, 2, 1},
        {"calloc(1,SIZE_MAX-279)", 1, SIZE_MAX - 279, 1},
        {"valloc(SIZE_MAX)", 1, SIZE_MAX, 2},
        {"realloc(NULL,SIZE_MAX)", 1, SIZE_MAX, 3},
        {"reallocarray(NULL,2^63,2)", (SIZE_MAX >> 1) + 1, 2, 4},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        size_t count = cases[i].count + (v_huge - SIZE_MAX), size = cases[i].size + (v_huge - SIZE_MAX);
        void* p = NULL;
        errno = 0;
        switch (cases[i].how) {
            case 0: p = malloc(size); break;
            case 1: p = calloc(count, size); break;
            case 2: p = valloc(size); break;
            case 3: p = realloc(launder(NULL), size); break;
            case 4: p = reallocarray(launder(NULL), count, size); break;
        }
        emit(OUT_FD, "%s: %s errno=%s\n", cases[i].label, p ? "block" : "null", errno_name(errno));
    }
    /* A failed resize leaves the old block as it was. */
    unsigned char* p = launder(malloc(8));
    memcpy(p, "keepthis", 8);
    errno = 0;
    void* q = realloc(launder(p), v_huge);
    emit(OUT_FD, "realloc(p,SIZE_MAX): %s errno=%s old kept=%d usable=%zu\n", q ? "block" : "null", errno_name(errno),
         memcmp(p, "keepthis", 8) == 0, malloc_usable_size(p));
    errno = 0;
    q = reallocarray(launder(p), (SIZE_MAX >> 1) + 1 + (v_huge - SIZE_MAX), 2);
    emit(OUT_FD, "reallocarray(p,2^63,2): %s errno=%s old kept=%d\n", q ? "block" : "null", errno_name(errno),
         memcmp(p, "keepthis", 8) == 0 && has_footer(p, 8));
    free(p);
}

/* Every successful call leaves errno as it found it. */
static void scenario_errno(void) {
    char changed[512] = "";
    void* p[12];
    void* m = NULL;
#define KEEP(label, expr)                              \
    do {                                               \
        errno = EDOM;                                  \
        expr;                                          \
        if (errno != EDOM) strcat(changed, " " label); \
    } while (0)
    KEEP("malloc", p[0] = launder(malloc(10)));
    KEEP("calloc", p[1] = launder(calloc(2, 8)));
    KEEP("valloc", p[2] = launder(valloc(64)));
    KEEP("realloc", p[0] = launder(realloc(p[0], 20)));
    KEEP("realloc(NULL)", p[3] = launder(realloc(launder(NULL), 5)));
    KEEP("reallocarray", p[3] = launder(reallocarray(p[3], 2, 4)));
    int rc = 0;
    KEEP("posix_memalign", rc = posix_memalign(&m, 32, 10));
    KEEP("memalign", p[4] = launder(memalign(32, 10)));
    KEEP("aligned_alloc", p[5] = launder(aligned_alloc(32, 64)));
    KEEP("pvalloc", p[6] = launder(pvalloc(10)));
    KEEP("__strdup", p[7] = launder(__strdup("x")));
    KEEP("malloc(0)", p[8] = launder(malloc(0)));
    KEEP("malloc_usable_size", malloc_usable_size(p[0]));
    KEEP("realloc(p,0)", p[9] = realloc(p[1], 0));
    KEEP("free(NULL)", free(NULL));
    KEEP("free", free(p[0]));
    KEEP("free", free(p[2]));
    KEEP("free", free(p[3]));
    KEEP("free", free(m));
    KEEP("free", free(p[4]));
    KEEP("free", free(p[5]));
    KEEP("free", free(p[6]));
    KEEP("free", free(p[7]));
    KEEP("free(untracked)", free(p[8]));
#undef KEEP
    emit(OUT_FD, "errno changed by:%s (posix_memalign rc=%d, realloc(p,0) %s)\n", changed[0] ? changed : " none", rc,
         p[9] ? "block" : "null");
}

/* ------------------------------------------------------------ release and resize */

static void scenario_release(void) {
    unsigned char* p = launder(malloc(10));
    memset(p, 'x', 10);
    footer_view before = read_footer(p, 10);
    free(launder(p));
    footer_view after = read_footer(p, 10);
    emit(OUT_FD, "released bytes 0xdd: %zu of 10\n", count_bytes(p, 10, 0xDD));
    emit_footer("after free", p, 10);
    emit(OUT_FD, "alloc uid kept=%d free uid differs=%d\n", after.alloc_uid == before.alloc_uid,
         after.free_uid != after.alloc_uid);
}

static void scenario_realloc(void) {
    unsigned char* p = launder(malloc(4));
    memcpy(p, "abcd", 4);
    footer_view old_alloc = read_footer(p, 4);
    unsigned char* q = launder(realloc(launder(p), 8));
    emit(OUT_FD, "grow 4->8: moved=%d head=%.4s tail=%02x%02x%02x%02x usable=%zu old 0xdd=%zu\n", q != p, q, q[4], q[5],
         q[6], q[7], malloc_usable_size(q), count_bytes(p, 4, 0xDD));
    emit_footer("grown", q, 8);
    footer_view old_free = read_footer(p, 4), fresh = read_footer(q, 8);
    emit(OUT_FD, "one stack: new alloc uid = old free uid: %d, same frames: %d, old alloc uid kept: %d\n",
         fresh.alloc_uid == old_free.free_uid,
         fresh.nframes == old_free.nframes &&
             memcmp(fresh.frames, old_free.frames, sizeof(void*) * (size_t)fresh.nframes) == 0,
         old_free.alloc_uid == old_alloc.alloc_uid);

    unsigned char* r = launder(realloc(launder(q), 2));
    emit(OUT_FD, "shrink 8->2: moved=%d head=%.2s usable=%zu footer=%d\n", r != q, r, malloc_usable_size(r),
         has_footer(r, 2));

    unsigned char* s = launder(realloc(launder(NULL), 32)); /* not folded into malloc */
    emit(OUT_FD, "realloc(NULL,32): fresh=%zu usable=%zu\n", count_bytes(s, 32, 0xDE), malloc_usable_size(s));
    emit_footer("realloc(NULL,32)", s, 32);

    void* t = realloc(launder(NULL), 0);
    emit(OUT_FD, "realloc(NULL,0): %s\n", t ? "block" : "null");

    void* u = realloc(launder(r), 0);
    footer_view rel = read_footer(r, 2);
    emit(OUT_FD, "realloc(p,0): %s, released bytes 0xdd=%zu, free uid=%s\n", u ? "block" : "null",
         count_bytes(r, 2, 0xDD), uid_state(rel.free_uid));

    memcpy(s, "0123456789abcdefghijklmnopqrstuv", 32);
    unsigned char* v = launder(reallocarray(launder(s), 4, 5));
    emit(OUT_FD, "reallocarray(s,4,5): moved=%d head=%.20s usable=%zu\n", v != s, v, malloc_usable_size(v));
    emit_footer("reallocarray", v, 20);
    free(v);
}

/* ------------------------------------------------------------ quarantine */

/* Tracked or not: a tracked block has the footer behind its usable size and
 * is not handed out again right after its release. */
static void scenario_tracking(void) {
    unsigned char* p = launder(malloc(16));
    int tracked = malloc_usable_size(p) == 16 && has_footer(p, 16);
    free(p);
    unsigned char* q = launder(malloc(16));
    emit(OUT_FD, "tracked=%d same address after release=%d\n", tracked, q == p);
    free(q);
}

/* Released blocks of 1000 bytes (1280 with the footer) stay allocated until
 * their sum passes 10 MiB: 8192 of them sum to exactly 10 MiB and stay, the
 * 8193rd release gives back the oldest. A block given back to the C library
 * reads as usable size 0 (its chunk is free; it is too large for the
 * thread cache), a quarantined one as its chunk size. No allocation comes
 * between a release and the look that follows it. */
static unsigned char* g_blocks[8194];

static void* release_first_8192(void* arg) {
    (void)arg;
    for (int i = 0; i < 8192; ++i) free(g_blocks[i]);
    return NULL;
}

/* on_thread: the first 8192 releases happen on a thread that is gone before
 * the main thread's releases push them out. */
static void quarantine_released_here_or_on_thread(int on_thread) {
    void* big = launder(malloc(10485481)); /* alone over the limit: empties the quarantine */
    free(big);
    for (int i = 0; i < 8194; ++i) g_blocks[i] = launder(malloc(1000));
    if (on_thread) {
        pthread_t t;
        pthread_create(&t, NULL, release_first_8192, NULL);
        pthread_join(t, NULL);
    } else {
        release_first_8192(NULL);
    }
    int kept = 0;
    for (int i = 0; i < 8192; ++i) kept += malloc_usable_size(g_blocks[i]) != 0;
    emit(OUT_FD, "after 8192 releases: %d still allocated\n", kept);
    free(g_blocks[8192]);
    size_t first = malloc_usable_size(g_blocks[0]), second = malloc_usable_size(g_blocks[1]);
    emit(OUT_FD, "after 8193: oldest given back=%d, next kept=%d\n", first == 0, second != 0);
    free(g_blocks[8193]);
    second = malloc_usable_size(g_blocks[1]);
    size_t third = malloc_usable_size(g_blocks[2]);
    emit(OUT_FD, "after 8194: next given back=%d, third kept=%d\n", second == 0, third != 0);
}

static void scenario_quarantine(void) { quarantine_released_here_or_on_thread(0); }
static void scenario_quarantine_thread(void) { quarantine_released_here_or_on_thread(1); }

/* ------------------------------------------------------------ no false alarm */

static void scenario_zero(void) {
    void* p[11];
    int n = 0;
    p[n++] = launder(reallocarray(launder(NULL), 0, 8)); /* a block, as the C library gives */
    int reallocarray_block = p[0] != NULL;
    p[n++] = launder(malloc(0));
    p[n++] = launder(calloc(0, 5));
    p[n++] = launder(calloc(5, 0));
    p[n++] = launder(valloc(0));
    p[n++] = launder(memalign(64, 0));
    p[n++] = launder(aligned_alloc(64, 0));
    p[n++] = launder(pvalloc(0));
    int rc = posix_memalign(&p[n], 64, 0);
    n += rc == 0;
    for (int i = 0; i < n; ++i) free(p[i]);
    void* z = realloc(launder(malloc(0)), 0);
    free(z);
    emit(OUT_FD, "released quietly: %d blocks, posix_memalign rc=%d, reallocarray(NULL,0,8) block=%d\n", n + 1, rc,
         reallocarray_block);
}

static void scenario_untracked_realloc(void) {
    void* a = launder(malloc(0));
    unsigned char* b = launder(realloc(a, 100));
    emit(OUT_FD, "malloc(0) -> realloc 100: usable=%zu footer=%d\n", malloc_usable_size(b), has_footer(b, 100));
    void* c = NULL;
    int rc = posix_memalign(&c, 64, 0);
    unsigned char* d = launder(realloc(c, 50));
    emit(OUT_FD, "posix_memalign(64,0) rc=%d -> realloc 50: usable=%zu footer=%d\n", rc, malloc_usable_size(d),
         has_footer(d, 50));
    unsigned char* e = launder(reallocarray(launder(calloc(0, 1)), 3, 4));
    emit(OUT_FD, "calloc(0,1) -> reallocarray 3x4: usable=%zu footer=%d\n", malloc_usable_size(e), has_footer(e, 12));
    void* f = realloc(launder(valloc(0)), 0);
    free(b);
    free(d);
    free(e);
    free(f);
    emit(OUT_FD, "released quietly\n");
}

/* Standard output's buffer is created inside the report (untracked) and
 * released by the program's fclose. */
static int scenario_stdout_report(void) {
    trvx_dump_alloc_stats(5);
    printf("program output\n");
    fclose(stdout);
    return 0;
}

/* ------------------------------------------------------------ faults */

/* The one call site of every release that a scenario compares: the stack of
 * a good release from here equals that of the bad one. */
__attribute__((noinline, noclone)) static void* release(int use_realloc, void* p) {
    if (use_realloc) return realloc(launder(p), 64);
    free(launder(p));
    return NULL;
}

static unsigned char* alloc_kind(const char* kind, size_t* size) {
    void* p = NULL;
    if (strcmp(kind, "calloc") == 0) {
        *size = 15;
        p = calloc(3, 5);
    } else if (strcmp(kind, "valloc") == 0) {
        *size = 100;
        p = valloc(100);
    } else if (strcmp(kind, "aligned") == 0) {
        *size = 40;
        if (posix_memalign(&p, 64, 40) != 0) p = NULL;
    } else {
        *size = 13;
        p = malloc(13);
    }
    return launder(p);
}

/* One byte past the end of the second of two blocks; both are released from
 * one call site, so the good release shows the bad one's stack. */
static void fault_overflow(const char* kind, int use_realloc) {
    size_t size = 0;
    unsigned char* b[2];
    for (int i = 0; i < 2; ++i) b[i] = alloc_kind(kind, &size);
    side_value("ptr", "%p", (void*)b[1]);
    side_stack("alloc", b[1], size);
    b[1][size] = 'A';
    for (int i = 0; i < v_two; ++i) {
        release(use_realloc, b[i]);
        if (i == 0) side_stack("free", launder(b[0]), size);
    }
}

static void fault_double(int use_realloc) {
    unsigned char* p = launder(malloc(24));
    side_value("ptr", "%p", (void*)p);
    side_stack("alloc", p, 24);
    release(use_realloc, p);
    side_stack("free", launder(p), 24);
    release(use_realloc, p);
}

/* realloc(p, 0) releases p: a second release is a double free whose free
 * stack is the realloc's. */
static void fault_realloc0(int use_realloc) {
    unsigned char* p = launder(malloc(24));
    side_value("ptr", "%p", (void*)p);
    side_stack("alloc", p, 24);
    if (realloc(launder(p), 0) != NULL) emit(OUT_FD, "realloc(p,0) gave a block\n");
    side_stack("free", launder(p), 24);
    release(use_realloc, p);
}

static void fault_after_quarantine(int use_realloc) {
    unsigned char* p = launder(malloc(24));
    side_value("ptr", "%p", (void*)p);
    release(use_realloc, p);
    free(launder(malloc(10485481))); /* gives back everything older, then itself */
    release(use_realloc, p);
}

static void* release_on_thread(void* p) {
    free(p);
    return NULL;
}

/* Released by a thread that is gone when other releases pass the limit. */
static void fault_after_quarantine_thread(int use_realloc) {
    unsigned char* p = launder(malloc(24));
    side_value("ptr", "%p", (void*)p);
    pthread_t t;
    pthread_create(&t, NULL, release_on_thread, p);
    pthread_join(t, NULL);
    free(launder(malloc(10485481)));
    release(use_realloc, p);
}

static void fault_interior(int use_realloc) {
    unsigned char* p = launder(malloc(24));
    side_value("ptr", "%p", (void*)(p + 1));
    release(use_realloc, p + 1);
}

static void fault_stack(int use_realloc) {
    char buf[24];
    memset(buf, 0, sizeof buf);
    side_value("ptr", "%p", (void*)buf);
    release(use_realloc, buf);
}

/* ------------------------------------------------------------ threads */

static int g_workers_running;
static int g_faulters_ready;

static void* churn(void* arg) {
    (void)arg;
    for (unsigned i = 0;; ++i) {
        unsigned char* p = launder(malloc(16 + i % 64));
        p[0] = 1;
        free(p);
        if (i == 100) __atomic_add_fetch(&g_workers_running, 1, __ATOMIC_SEQ_CST);
    }
    return NULL;
}

/* Releases its own block twice; the records on descriptor 3 carry the
 * thread's tag. All faulting threads release the second time together. */
static void* double_release(void* arg) {
    const char* tag = (const char*)arg;
    char key[32];
    unsigned char* p = launder(malloc(40));
    snprintf(key, sizeof key, "%s.ptr", tag);
    side_value(key, "%p", (void*)p);
    snprintf(key, sizeof key, "%s.alloc", tag);
    side_stack(key, p, 40);
    release(0, p);
    snprintf(key, sizeof key, "%s.free", tag);
    side_stack(key, launder(p), 40);
    __atomic_add_fetch(&g_faulters_ready, 1, __ATOMIC_SEQ_CST);
    while (__atomic_load_n(&g_faulters_ready, __ATOMIC_SEQ_CST) < 2) sched_yield();
    release(0, p);
    return NULL;
}

static void scenario_threads(void) {
    enum { workers = 6, faulters = 2 };
    pthread_t t[workers + faulters];
    for (int i = 0; i < workers; ++i) pthread_create(&t[i], NULL, churn, NULL);
    while (__atomic_load_n(&g_workers_running, __ATOMIC_SEQ_CST) < workers) sched_yield();
    static const char* const tags[] = {"t0", "t1"};
    for (int i = 0; i < faulters; ++i) pthread_create(&t[workers + i], NULL, double_release, (void*)tags[i]);
    for (int i = 0; i < faulters; ++i) pthread_join(t[workers + i], NULL);
}

/* ------------------------------------------------------------ main */

static const struct {
    const char* name;
    void (*run)(void);
} k_scenarios[] = {
    {"malloc", scenario_malloc},
    {"calloc", scenario_calloc},
    {"valloc", scenario_valloc},
    {"strdup", scenario_strdup},
    {"aligned", scenario_aligned},
    {"enomem", scenario_enomem},
    {"errno", scenario_errno},
    {"release", scenario_release},
    {"realloc", scenario_realloc},
    {"tracking", scenario_tracking},
    {"quarantine", scenario_quarantine},
    {"quarantine_thread", scenario_quarantine_thread},
    {"zero", scenario_zero},
    {"untracked_realloc", scenario_untracked_realloc},
};

/* heap <scenario> | heap threads |
 * heap fault <overflow|double|realloc0|after_quarantine|after_quarantine_thread|interior|stack> <free|realloc>
 *            [malloc|calloc|valloc|aligned] */
int main(int argc, char** argv) {
    const char* s = argc > 1 ? argv[1] : "";
    for (size_t i = 0; i < sizeof k_scenarios / sizeof k_scenarios[0]; ++i) {
        if (strcmp(s, k_scenarios[i].name) == 0) {
            k_scenarios[i].run();
            return 0;
        }
    }
    if (strcmp(s, "stdout_report") == 0) return scenario_stdout_report();
    if (strcmp(s, "threads") == 0) {
        scenario_threads();
        return 0;
    }
    if (strcmp(s, "fault") == 0 && argc > 3) {
        const char* what = argv[2];
        int use_realloc = strcmp(argv[3], "realloc") == 0;
        if (strcmp(what, "overflow") == 0)
            fault_overflow(argc > 4 ? argv[4] : "malloc", use_realloc);
        else if (strcmp(what, "double") == 0)
            fault_double(use_realloc);
        else if (strcmp(what, "realloc0") == 0)
            fault_realloc0(use_realloc);
        else if (strcmp(what, "after_quarantine") == 0)
            fault_after_quarantine(use_realloc);
        else if (strcmp(what, "after_quarantine_thread") == 0)
            fault_after_quarantine_thread(use_realloc);
        else if (strcmp(what, "interior") == 0)
            fault_interior(use_realloc);
        else if (strcmp(what, "stack") == 0)
            fault_stack(use_realloc);
        emit(OUT_FD, "no fault\n");
        return 0;
    }
    emit(2, "unknown scenario '%s'\n", s);
    return 2;
}
