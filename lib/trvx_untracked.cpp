#include "trvx_untracked.h"

#include <sys/mman.h>

#include <cerrno>

#include "trvx_lock.h"

namespace tarvex {

namespace {

constexpr uintptr_t k_empty = 0;
constexpr uintptr_t k_erased = 1;

size_t hash_ptr(uintptr_t key) {
    key ^= key >> 33;
    key *= 0xff51afd7ed558ccdULL;
    key ^= key >> 33;
    return static_cast<size_t>(key);
}

uintptr_t* map_slots(size_t count) {
    void* p = mmap(nullptr, count * sizeof(uintptr_t), PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : static_cast<uintptr_t*>(p);
}

// The break ranges: a handful at most (one per calloc made by dlsym).
constexpr int k_max_ranges = 64;
struct break_range {
    uintptr_t begin;
    uintptr_t end;
};
break_range g_ranges[k_max_ranges];
pthread_mutex_t g_range_mutex = PTHREAD_MUTEX_INITIALIZER;

untracked_set g_untracked;

}  // namespace

namespace detail {
int g_range_count;
}
using detail::g_range_count;

untracked_set& untracked_blocks() { return g_untracked; }

// Slot of key, or the first free slot of its probe sequence.
size_t untracked_set::probe(uintptr_t key) const {
    size_t mask = m_capacity - 1;
    size_t i = hash_ptr(key) & mask;
    size_t first_erased = m_capacity;
    while (m_slots[i] != k_empty) {
        if (m_slots[i] == key) return i;
        if (m_slots[i] == k_erased && first_erased == m_capacity) first_erased = i;
        i = (i + 1) & mask;
    }
    return first_erased != m_capacity ? first_erased : i;
}

bool untracked_set::grow() {
    size_t capacity = m_capacity ? m_capacity * 2 : 1024;
    if (m_live * 4 < m_capacity) capacity = m_capacity;  // mostly tombstones: rehash in place size
    uintptr_t* slots = map_slots(capacity);
    if (slots == nullptr) return false;
    uintptr_t* old = m_slots;
    size_t old_capacity = m_capacity;
    m_slots = slots;
    m_capacity = capacity;
    m_used = m_live = 0;
    for (size_t i = 0; i < old_capacity; ++i) {
        if (old[i] > k_erased) {
            m_slots[probe(old[i])] = old[i];
            ++m_used;
            ++m_live;
        }
    }
    if (old) munmap(old, old_capacity * sizeof(uintptr_t));
    return true;
}

bool untracked_set::insert(void* p) {
    if (p == nullptr) return true;
    int saved_errno = errno;
    uintptr_t key = reinterpret_cast<uintptr_t>(p);
    scoped_lock lock(&m_mutex);
    bool ok = true;
    if ((m_used + 1) * 4 > m_capacity * 3) ok = grow();
    if (ok) {
        size_t i = probe(key);
        if (m_slots[i] != key) {
            if (m_slots[i] == k_empty) ++m_used;
            m_slots[i] = key;
            ++m_live;
        }
    }
    lock.unlock();
    errno = saved_errno;
    return ok;
}

bool untracked_set::erase(void* p) {
    uintptr_t key = reinterpret_cast<uintptr_t>(p);
    if (key <= k_erased) return false;
    scoped_lock lock(&m_mutex);
    if (m_live == 0) return false;
    size_t i = probe(key);
    if (m_slots[i] != key) return false;
    m_slots[i] = k_erased;
    --m_live;
    return true;
}

bool untracked_set::contains(void* p) {
    uintptr_t key = reinterpret_cast<uintptr_t>(p);
    if (key <= k_erased) return false;
    scoped_lock lock(&m_mutex);
    return m_live != 0 && m_slots[probe(key)] == key;
}

size_t untracked_set::size() {
    scoped_lock lock(&m_mutex);
    return m_live;
}

void record_break_range(void* begin, size_t len) {
    pthread_mutex_lock(&g_range_mutex);
    if (g_range_count < k_max_ranges) {
        uintptr_t b = reinterpret_cast<uintptr_t>(begin);
        g_ranges[g_range_count].begin = b;
        g_ranges[g_range_count].end = b + len;
        __atomic_store_n(&g_range_count, g_range_count + 1, __ATOMIC_RELEASE);
    }
    pthread_mutex_unlock(&g_range_mutex);
}

// Lock-free read: ranges are only appended, each entry is written before the
// count that makes it visible, so the hot path of free pays one load.
bool in_break_range(const void* p, size_t* bytes_to_end) {
    int count = __atomic_load_n(&g_range_count, __ATOMIC_ACQUIRE);
    uintptr_t a = reinterpret_cast<uintptr_t>(p);
    for (int i = 0; i < count; ++i) {
        if (a >= g_ranges[i].begin && a < g_ranges[i].end) {
            if (bytes_to_end) *bytes_to_end = g_ranges[i].end - a;
            return true;
        }
    }
    return false;
}

}  // namespace tarvex
