/*
 * libfailing.so: the malloc family of the C library, preloaded behind
 * libtarvex.so (LD_PRELOAD="libtarvex.so libfailing.so"), so that tarvex's
 * next allocator is this one. It forwards every request to glibc, except the
 * Nth request counted from failing_arm(), which fails with ENOMEM (N is read
 * from STRESS_FAIL_AT by failing_arm; 0 never fails), and as many requests
 * after it as STRESS_FAIL_RUN says (default 1: that one alone). Each refusal
 * is announced on standard error as "failing: request N refused".
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
void* __libc_memalign(size_t, size_t);
void* __libc_valloc(size_t);
void* __libc_pvalloc(size_t);

static long g_fail_at;
static long g_fail_run;
static long g_count;
static int g_armed;

EXPORT void failing_arm(void) {
    const char* n = getenv("STRESS_FAIL_AT");
    const char* run = getenv("STRESS_FAIL_RUN");
    g_fail_at = n ? atol(n) : 0;
    g_fail_run = run ? atol(run) : 1;
    __atomic_store_n(&g_count, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_armed, 1, __ATOMIC_SEQ_CST);
}

/* Stops counting; returns the number of requests seen since failing_arm. */
EXPORT long failing_disarm(void) {
    __atomic_store_n(&g_armed, 0, __ATOMIC_SEQ_CST);
    return __atomic_load_n(&g_count, __ATOMIC_SEQ_CST);
}

static void announce(long n) {
    char buf[64] = "failing: request ";
    char digits[24];
    int len = 0;
    do {
        digits[len++] = (char)('0' + n % 10);
        n /= 10;
    } while (n != 0);
    size_t at = strlen(buf);
    while (len > 0) buf[at++] = digits[--len];
    memcpy(buf + at, " refused\n", 10);
    if (write(2, buf, strlen(buf)) < 0) _exit(3);
}

static int refuse(void) {
    if (!__atomic_load_n(&g_armed, __ATOMIC_SEQ_CST)) return 0;
    long n = __atomic_add_fetch(&g_count, 1, __ATOMIC_SEQ_CST);
    if (g_fail_at == 0 || n < g_fail_at || n >= g_fail_at + g_fail_run) return 0;
    announce(n);
    errno = ENOMEM;
    return 1;
}

EXPORT void* malloc(size_t size) { return refuse() ? NULL : __libc_malloc(size); }
EXPORT void* calloc(size_t count, size_t size) { return refuse() ? NULL : __libc_calloc(count, size); }
EXPORT void* realloc(void* ptr, size_t size) { return refuse() ? NULL : __libc_realloc(ptr, size); }
EXPORT void free(void* ptr) { __libc_free(ptr); }
EXPORT void* memalign(size_t align, size_t size) { return refuse() ? NULL : __libc_memalign(align, size); }
EXPORT void* aligned_alloc(size_t align, size_t size) { return refuse() ? NULL : __libc_memalign(align, size); }
EXPORT void* valloc(size_t size) { return refuse() ? NULL : __libc_valloc(size); }
EXPORT void* pvalloc(size_t size) { return refuse() ? NULL : __libc_pvalloc(size); }

EXPORT int posix_memalign(void** out, size_t align, size_t size) {
    if (align == 0 || (align & (align - 1)) != 0 || align % sizeof(void*) != 0) return EINVAL;
    if (refuse()) return ENOMEM;
    void* p = __libc_memalign(align, size);
    if (p == NULL) return ENOMEM;
    *out = p;
    return 0;
}

EXPORT size_t malloc_usable_size(void* ptr) {
    static size_t (*next)(void*);
    if (next == NULL) next = (size_t(*)(void*))dlsym(RTLD_NEXT, "malloc_usable_size");
    return next(ptr);
}
