// The next definitions of the allocation functions (normally the C library's)
// and the allocator that the library's own bookkeeping draws its memory from.
//
// The interposition frame resolves the pointers with dlsym(RTLD_NEXT, ...);
// everything else in the library calls the next allocator only through the
// accessors below, which fall back on the C library's __libc_* entry points
// while a pointer is not yet resolved (or was not found at all).
#pragma once

#include <cstddef>
#include <new>

extern "C" {
typedef void* (*trvx_malloc_fn)(size_t);
typedef void* (*trvx_calloc_fn)(size_t, size_t);
typedef void* (*trvx_realloc_fn)(void*, size_t);
typedef void (*trvx_free_fn)(void*);
typedef void* (*trvx_memalign_fn)(size_t, size_t);
typedef size_t (*trvx_usable_size_fn)(void*);
}

// Process-wide, zero at load time, set once each by the interposition frame.
extern trvx_malloc_fn g_next_malloc;
extern trvx_malloc_fn g_next_valloc;
extern trvx_calloc_fn g_next_calloc;
extern trvx_realloc_fn g_next_realloc;
extern trvx_free_fn g_next_free;
extern trvx_memalign_fn g_next_memalign;
extern trvx_usable_size_fn g_next_usable_size;

// glibc's own entry points; they stay reachable whatever is preloaded.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
void* __libc_memalign(size_t, size_t);
}

namespace tarvex {

inline void* next_malloc(size_t size) {
    trvx_malloc_fn f = __atomic_load_n(&g_next_malloc, __ATOMIC_RELAXED);
    return f ? f(size) : __libc_malloc(size);
}
inline void* next_calloc(size_t count, size_t size) {
    trvx_calloc_fn f = __atomic_load_n(&g_next_calloc, __ATOMIC_RELAXED);
    return f ? f(count, size) : __libc_calloc(count, size);
}
inline void* next_realloc(void* ptr, size_t size) {
    trvx_realloc_fn f = __atomic_load_n(&g_next_realloc, __ATOMIC_RELAXED);
    return f ? f(ptr, size) : __libc_realloc(ptr, size);
}
inline void next_free(void* ptr) {
    trvx_free_fn f = __atomic_load_n(&g_next_free, __ATOMIC_RELAXED);
    if (f)
        f(ptr);
    else
        __libc_free(ptr);
}
inline void* next_memalign(size_t align, size_t size) {
    trvx_memalign_fn f = __atomic_load_n(&g_next_memalign, __ATOMIC_RELAXED);
    return f ? f(align, size) : __libc_memalign(align, size);
}
size_t next_usable_size(void* ptr);

// Standard-library allocator over the next allocator. The containers on the
// tracked path use it, so that the library's own bookkeeping never enters the
// interposed functions: it is never tracked and costs no guard check. A failed
// request throws std::bad_alloc like std::allocator.
template <class T>
struct raw_allocator {
    using value_type = T;
    raw_allocator() noexcept = default;
    template <class U>
    raw_allocator(const raw_allocator<U>&) noexcept {}
    T* allocate(size_t n) {
        // T is a pointer type for some containers; its own size is meant.
        // NOLINTBEGIN(bugprone-sizeof-expression)
        if (n > size_t(-1) / sizeof(T)) throw std::bad_alloc();
        void* p = next_malloc(n * sizeof(T));
        // NOLINTEND(bugprone-sizeof-expression)
        if (p == nullptr) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t) noexcept { next_free(p); }
    template <class U>
    bool operator==(const raw_allocator<U>&) const noexcept { return true; }
    template <class U>
    bool operator!=(const raw_allocator<U>&) const noexcept { return false; }
};

}  // namespace tarvex
