// Memory for the exception objects that the library's own code throws
// (std::bad_alloc when its bookkeeping cannot grow).
//
// The C++ runtime linked into the library brings its own allocator for
// exception objects, with an emergency pool that it takes from malloc while
// the library is being loaded: in every process, even one that never calls
// malloc, that would set up the C library's heap and build tarvex's context
// before the program starts. Defining the four allocation functions here
// keeps the runtime's version (and its load-time allocation) out of the
// library. Objects come from the next allocator, never tracked; when it
// refuses, a small static reserve serves them, so that a std::bad_alloc can
// still be thrown and caught when memory is out.
#include <cstdint>
#include <cstring>
#include <exception>

#include "trvx_next.h"

namespace {

// Room kept before a thrown object for the runtime's exception header
// (128 bytes with GCC on x86-64). The runtime finds its header at a fixed
// distance before the object; reserving more than it needs keeps that
// header inside the block whatever the runtime's exact layout is.
constexpr size_t k_header = 256;
// A dependent exception (std::rethrow_exception) is a header alone.
constexpr size_t k_dependent = 256;

// The reserve: a few fixed slots, taken and returned with one atomic
// operation on a bit mask each. A thread that throws while memory is out
// holds a slot only until its handler has run.
constexpr size_t k_slot_size = 1024;
constexpr unsigned k_slots = 16;
alignas(64) unsigned char g_reserve[k_slots][k_slot_size];
uint32_t g_reserve_used;

void* take_reserve_slot(size_t size) {
    if (size > k_slot_size) return nullptr;
    uint32_t used = __atomic_load_n(&g_reserve_used, __ATOMIC_RELAXED);
    for (;;) {
        uint32_t free_bits = ~used & ((1u << k_slots) - 1);
        if (free_bits == 0) return nullptr;
        uint32_t bit = free_bits & -free_bits;
        if (__atomic_compare_exchange_n(&g_reserve_used, &used, used | bit, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED))
            return g_reserve[__builtin_ctz(bit)];
    }
}

bool in_reserve(const void* p) {
    auto a = reinterpret_cast<uintptr_t>(p);
    auto begin = reinterpret_cast<uintptr_t>(g_reserve);
    return a - begin < sizeof(g_reserve);
}

void give_back(void* p) {
    if (in_reserve(p)) {
        auto slot = (static_cast<unsigned char*>(p) - g_reserve[0]) / k_slot_size;
        __atomic_fetch_and(&g_reserve_used, ~(1u << slot), __ATOMIC_RELEASE);
    } else {
        tarvex::next_free(p);
    }
}

// Zeroed memory of the given size; like the runtime, the process stops
// when neither the allocator nor the reserve has any.
void* allocate_zeroed(size_t size) {
    void* p = tarvex::next_malloc(size);
    if (p == nullptr) p = take_reserve_slot(size);
    if (p == nullptr) std::terminate();
    memset(p, 0, size);
    return p;
}

}  // namespace

extern "C" {

void* __cxa_allocate_exception(size_t thrown_size) noexcept {
    if (thrown_size > SIZE_MAX - k_header) std::terminate();
    return static_cast<unsigned char*>(allocate_zeroed(k_header + thrown_size)) + k_header;
}

void __cxa_free_exception(void* thrown_object) noexcept {
    give_back(static_cast<unsigned char*>(thrown_object) - k_header);
}

void* __cxa_allocate_dependent_exception() noexcept { return allocate_zeroed(k_dependent); }

void __cxa_free_dependent_exception(void* dependent) noexcept { give_back(dependent); }

}  // extern "C"
