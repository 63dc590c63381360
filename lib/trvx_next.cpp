#include "trvx_next.h"

#include <cstdlib>

// glibc's own entry points; they stay reachable whatever is preloaded.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
void* __libc_memalign(size_t, size_t);
}
extern "C" size_t malloc_usable_size(void*) noexcept;

trvx_malloc_fn g_next_malloc;
trvx_malloc_fn g_next_valloc;
trvx_calloc_fn g_next_calloc;
trvx_realloc_fn g_next_realloc;
trvx_free_fn g_next_free;
trvx_memalign_fn g_next_memalign;
trvx_memalign_fn g_next_aligned_alloc;
trvx_posix_memalign_fn g_next_posix_memalign;
trvx_malloc_fn g_next_pvalloc;
trvx_usable_size_fn g_next_usable_size;

namespace tarvex {

void* next_malloc(size_t size) {
    trvx_malloc_fn f = __atomic_load_n(&g_next_malloc, __ATOMIC_RELAXED);
    return f ? f(size) : __libc_malloc(size);
}

void* next_calloc(size_t count, size_t size) {
    trvx_calloc_fn f = __atomic_load_n(&g_next_calloc, __ATOMIC_RELAXED);
    return f ? f(count, size) : __libc_calloc(count, size);
}

void* next_realloc(void* ptr, size_t size) {
    trvx_realloc_fn f = __atomic_load_n(&g_next_realloc, __ATOMIC_RELAXED);
    return f ? f(ptr, size) : __libc_realloc(ptr, size);
}

void next_free(void* ptr) {
    trvx_free_fn f = __atomic_load_n(&g_next_free, __ATOMIC_RELAXED);
    if (f)
        f(ptr);
    else
        __libc_free(ptr);
}

void* next_memalign(size_t align, size_t size) {
    trvx_memalign_fn f = __atomic_load_n(&g_next_memalign, __ATOMIC_RELAXED);
    return f ? f(align, size) : __libc_memalign(align, size);
}

size_t next_usable_size(void* ptr) {
    trvx_usable_size_fn f = __atomic_load_n(&g_next_usable_size, __ATOMIC_RELAXED);
    // Without a resolved pointer (unit tests, where nothing is interposed)
    // the process's own function is the C library's.
    return f ? f(ptr) : malloc_usable_size(ptr);
}

}  // namespace tarvex
