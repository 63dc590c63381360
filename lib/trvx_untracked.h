// Blocks of the target process that were handed out valid but untracked.
//
// A release of a pointer that is neither live nor quarantined is a fault,
// unless the program got the pointer from the allocator in a way that the
// library could not track: a zero-size request, a request made while the
// calling thread was inside the library (the C library allocating on the
// program's behalf, e.g. the buffer of standard output created by a report),
// a request served while the context was being built, or memory from the
// program break handed out while dlsym resolved calloc. Those blocks are
// recorded here, so that releasing them is quiet and exact, while a pointer
// that the process never got (stack, interior, wild) still stops it.
//
// The set lives in memory mapped directly from the kernel and never calls
// the heap, so it may be used from inside the interposed functions at any
// moment, before the context exists and on any thread.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace tarvex {

class untracked_set {
public:
    // Records p (null is ignored). Returns false when no memory could be
    // mapped for the table; the block then stays unrecorded.
    bool insert(void* p);
    // Removes p; true if it was recorded.
    bool erase(void* p);
    bool contains(void* p);
    size_t size();

    // fork: the table's lock is held across fork and released in both
    // processes afterwards.
    void lock() { pthread_mutex_lock(&m_mutex); }
    void unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    bool grow();
    size_t probe(uintptr_t key) const;

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    uintptr_t* m_slots = nullptr;  // 0: empty, 1: erased, else a pointer
    size_t m_capacity = 0;         // a power of two
    size_t m_used = 0;             // live plus erased slots
    size_t m_live = 0;
};

// Memory handed out from the program break by calloc while dlsym resolves
// calloc: it is never given to the next allocator.
void record_break_range(void* begin, size_t len);
namespace detail {
extern int g_range_count;
}
inline bool break_ranges_exist() { return __atomic_load_n(&detail::g_range_count, __ATOMIC_ACQUIRE) != 0; }
bool in_break_range(const void* p, size_t* bytes_to_end);

// The one set of the process (zero-initialised, never destroyed).
untracked_set& untracked_blocks();

}  // namespace tarvex
