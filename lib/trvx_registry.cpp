#include "trvx_registry.h"

#include <cstring>
#include <new>

#include "trvx_lock.h"
#include "trvx_stat.h"

namespace tarvex {

namespace {
constexpr uintptr_t k_empty = 0;
constexpr uintptr_t k_odd = uintptr_t(1) << 63;
}  // namespace

block_registry::block_registry() = default;

block_registry::~block_registry() {
    for (shard& s : m_shards) {
        next_free(s.slots);
        if (s.odd_records) {
            s.odd_records->~odd_map();
            next_free(s.odd_records);
        }
    }
}

size_t block_registry::hash(uintptr_t addr) { return size_t((addr >> 4) * 0x9E3779B97F4A7C15ULL); }

// Eight groups of eight shards. The group comes from the address's 64 MiB
// region, the shard in the group from the address's hash (its top bits; the
// slot index takes the low ones). Blocks allocated close together in time
// mostly lie close together in memory, so a burst of registrations stays in
// a few shards whose tables stay cached, and a thread whose blocks come
// from its own arena's regions mostly works in shards of its own.
block_registry::shard& block_registry::shard_of(shard* shards, uintptr_t addr) {
    size_t group = size_t((addr >> 26) * 0x9E3779B97F4A7C15ULL) >> 61;
    return shards[group << 3 | hash(addr) >> 61];
}

// Slot of addr, or the empty slot that ends its probe sequence (where it
// would be inserted).
size_t block_registry::probe(const shard& s, uintptr_t addr) {
    size_t mask = s.capacity - 1;
    size_t i = hash(addr) & mask;
    for (;;) {
        uintptr_t k = s.slots[i].key;
        if (k == k_empty || (k & ~k_odd) == addr) return i;
        i = (i + 1) & mask;
    }
}

// Empties slot i without a tombstone: each later entry of the run whose
// probe sequence passes through the hole moves back into it, so that no
// sequence is broken and lookups probe only live entries.
void block_registry::erase_slot(shard& s, size_t i) {
    size_t mask = s.capacity - 1;
    for (size_t j = (i + 1) & mask;; j = (j + 1) & mask) {
        uintptr_t k = s.slots[j].key;
        if (k == k_empty) break;
        // The entry at j stays if its home lies cyclically in (i, j].
        size_t home = hash(k & ~k_odd) & mask;
        if (((j - home) & mask) < ((j - i) & mask)) continue;
        s.slots[i] = s.slots[j];
        i = j;
    }
    s.slots[i].key = k_empty;
}

// Doubles the table. Throws std::bad_alloc and changes nothing on failure.
void block_registry::grow(shard& s) {
    size_t capacity = s.capacity == 0 ? 64 : s.capacity * 2;
    entry* slots = static_cast<entry*>(next_malloc(capacity * sizeof(entry)));
    if (slots == nullptr) throw std::bad_alloc();
    memset(slots, 0, capacity * sizeof(entry));
    // Only the table moves: the lock word beside it is in use by waiters.
    entry* old_slots = s.slots;
    size_t old_capacity = s.capacity;
    __atomic_store_n(&s.slots, slots, __ATOMIC_RELAXED);
    __atomic_store_n(&s.capacity, capacity, __ATOMIC_RELAXED);
    for (size_t i = 0; i < old_capacity; ++i)
        if (old_slots[i].key != k_empty) s.slots[probe(s, old_slots[i].key & ~k_odd)] = old_slots[i];
    next_free(old_slots);
}

void block_registry::fill(const shard& s, const entry& e, block_info& out) {
    out.m_addr = reinterpret_cast<void*>(e.key & ~k_odd);
    out.m_size = e.size;
    out.m_alloc_size = size_t(e.size) + k_footer_size;
    out.m_alloc_uid = e.alloc_uid;
    out.m_free_uid = 0;
    if ((e.key & k_odd) && s.odd_records) {
        auto it = s.odd_records->find(e.key & ~k_odd);
        if (it != s.odd_records->end()) {
            out.m_size = it->second.size;
            out.m_alloc_size = it->second.alloc_size;
            out.m_free_uid = it->second.free_uid;
        }
    }
}

void block_registry::prefetch(const void* p) const {
    uintptr_t addr = reinterpret_cast<uintptr_t>(p);
    const shard& s = shard_of(const_cast<shard*>(m_shards), addr);
    const entry* slots = __atomic_load_n(&s.slots, __ATOMIC_RELAXED);
    size_t capacity = __atomic_load_n(&s.capacity, __ATOMIC_RELAXED);
    // A grow in progress may pair the new table with the old size; a zero
    // size (the first grow) would index nowhere.
    if (slots != nullptr && capacity != 0) __builtin_prefetch(&slots[hash(addr) & (capacity - 1)], 1, 3);
}

void block_registry::insert(const block_info& bi, bool lock) {
    uintptr_t addr = reinterpret_cast<uintptr_t>(bi.m_addr);
    shard& s = shard_of(m_shards, addr);
    spin_guard guard(s.mutex, lock);
    if ((s.live + 1) * 8 > s.capacity * 7) grow(s);
    bool odd = bi.m_alloc_size != bi.m_size + k_footer_size || bi.m_size > UINT32_MAX || bi.m_free_uid != 0;
    if (odd) {
        if (s.odd_records == nullptr) {
            void* mem = next_malloc(sizeof(odd_map));
            if (mem == nullptr) throw std::bad_alloc();
            s.odd_records = new (mem) odd_map();
        }
        (*s.odd_records)[addr] = odd_record{bi.m_size, bi.m_alloc_size, bi.m_free_uid};
    }
    size_t i = probe(s, addr);
    entry& e = s.slots[i];
    if (e.key == k_empty) {
        ++s.live;
    } else if ((e.key & k_odd) && !odd && s.odd_records) {
        s.odd_records->erase(addr);
    }
    e = entry{addr | (odd ? k_odd : 0), uint32_t(bi.m_size), bi.m_alloc_uid};
}

bool block_registry::remove(void* p, block_info& out, bool lock) {
    uintptr_t addr = reinterpret_cast<uintptr_t>(p);
    shard& s = shard_of(m_shards, addr);
    spin_guard guard(s.mutex, lock);
    if (s.live == 0) return false;
    size_t i = probe(s, addr);
    const entry& e = s.slots[i];
    if (e.key == k_empty) return false;
    fill(s, e, out);
    if ((e.key & k_odd) && s.odd_records) s.odd_records->erase(addr);
    erase_slot(s, i);
    --s.live;
    return true;
}

bool block_registry::find(void* p, block_info& out, bool lock) {
    uintptr_t addr = reinterpret_cast<uintptr_t>(p);
    shard& s = shard_of(m_shards, addr);
    spin_guard guard(s.mutex, lock);
    if (s.live == 0) return false;
    const entry& e = s.slots[probe(s, addr)];
    if (e.key == k_empty) return false;
    fill(s, e, out);
    return true;
}

size_t block_registry::size(bool lock) {
    size_t n = 0;
    for (shard& s : m_shards) {
        spin_guard guard(s.mutex, lock);
        n += s.live;
    }
    return n;
}

void block_registry::lock_all() {
    for (shard& s : m_shards) s.mutex.lock();
}

void block_registry::unlock_all() {
    for (shard& s : m_shards) s.mutex.unlock();
}

}  // namespace tarvex
