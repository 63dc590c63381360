/*
 * libfailing.so: the C library's allocation functions, preloaded behind
 * libtarvex.so so that tarvex's next allocator is this one. After
 * failing_arm(), request number STRESS_FAIL_AT and the STRESS_FAIL_RUN - 1
 * after it fail with ENOMEM (0 never fails), each announced on standard
 * error as "failing: request N refused".
 */
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void* __libc_valloc(size_t);
void* __libc_pvalloc(size_t);

static long g_fail_at, g_fail_run, g_count;
static int g_armed;

EXPORT void failing_arm(void) {
    g_fail_at = atol(getenv("STRESS_FAIL_AT"));
    g_fail_run = atol(getenv("STRESS_FAIL_RUN"));
    __atomic_store_n(&g_count, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_armed, 1, __ATOMIC_SEQ_CST);
}

/* Stops counting; returns the number of requests seen since failing_arm. */
EXPORT long failing_disarm(void) {
    __atomic_store_n(&g_armed, 0, __ATOMIC_SEQ_CST);
    return __atomic_load_n(&g_count, __ATOMIC_SEQ_CST);
}

static int refuse(void) {
    if (!__atomic_load_n(&g_armed, __ATOMIC_SEQ_CST)) return 0;
    long n = __atomic_add_fetch(&g_count, 1, __ATOMIC_SEQ_CST);
    if (g_fail_at == 0 || n < g_fail_at || n >= g_fail_at + g_fail_run) return 0;
    char line[64];  // snprintf of an integer needs no heap
    if (write(2, line, (size_t)snprintf(line, sizeof line, "failing: request %ld refused\n", n)) < 0) _exit(3);
    errno = ENOMEM;
    return 1;
}

EXPORT void* malloc(size_t size) { return refuse() ? NULL : __libc_malloc(size); }
EXPORT void* calloc(size_t count, size_t size) { return refuse() ? NULL : __libc_calloc(count, size); }
EXPORT void* realloc(void* ptr, size_t size) { return refuse() ? NULL : __libc_realloc(ptr, size); }
EXPORT void* memalign(size_t align, size_t size) { return refuse() ? NULL : __libc_memalign(align, size); }
EXPORT void* aligned_alloc(size_t align, size_t size) { return refuse() ? NULL : __libc_memalign(align, size); }
EXPORT void* valloc(size_t size) { return refuse() ? NULL : __libc_valloc(size); }
EXPORT void* pvalloc(size_t size) { return refuse() ? NULL : __libc_pvalloc(size); }

EXPORT int posix_memalign(void** out, size_t align, size_t size) {
    if (align == 0 || (align & (align - 1)) != 0 || align % sizeof(void*) != 0) return EINVAL;
    if (refuse()) return ENOMEM;
    return (*out = __libc_memalign(align, size)) != NULL ? 0 : ENOMEM;
}
