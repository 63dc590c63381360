#include "trvx_next.h"

#include <cstdlib>

extern "C" size_t malloc_usable_size(void*) noexcept;

trvx_malloc_fn g_next_malloc;
trvx_malloc_fn g_next_valloc;
trvx_calloc_fn g_next_calloc;
trvx_realloc_fn g_next_realloc;
trvx_free_fn g_next_free;
trvx_memalign_fn g_next_memalign;
trvx_usable_size_fn g_next_usable_size;

namespace tarvex {

size_t next_usable_size(void* ptr) {
    trvx_usable_size_fn f = __atomic_load_n(&g_next_usable_size, __ATOMIC_RELAXED);
    // Without a resolved pointer (unit tests, where nothing is interposed)
    // the process's own function is the C library's.
    return f ? f(ptr) : malloc_usable_size(ptr);
}

}  // namespace tarvex
