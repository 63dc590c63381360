#include "trvx_stack_table.h"

#include <cstring>
#include <new>

#include "trvx_next.h"

namespace tarvex {

// The slot of uid, or the empty slot where it would go. Uids are hashes
// already, but of return addresses that share their high bits: one
// multiplication spreads them over the index bits.
size_t stack_table::index_of(uint32_t uid) const {
    size_t mask = m_capacity - 1;
    size_t i = size_t((uint64_t(uid) * 0x9E3779B97F4A7C15ULL) >> 32) & mask;
    while (m_slots[i].rec != nullptr && m_slots[i].uid != uid) i = (i + 1) & mask;
    return i;
}

const stack_table::frames* stack_table::find(uint32_t uid) const {
    if (m_size == 0) return nullptr;
    return m_slots[index_of(uid)].rec;
}

// Doubles the array (kept at most half full). Throws std::bad_alloc and
// changes nothing on failure.
void stack_table::grow() {
    size_t capacity = m_capacity == 0 ? 256 : m_capacity * 2;
    slot* slots = static_cast<slot*>(next_malloc(capacity * sizeof(slot)));
    if (slots == nullptr) throw std::bad_alloc();
    memset(static_cast<void*>(slots), 0, capacity * sizeof(slot));
    slot* old = m_slots;
    size_t old_capacity = m_capacity;
    m_slots = slots;
    m_capacity = capacity;
    for (size_t i = 0; i < old_capacity; ++i)
        if (old[i].rec != nullptr) m_slots[index_of(old[i].uid)] = old[i];
    next_free(old);
}

void stack_table::insert(uint32_t uid, void* const* addrs, uint32_t len) {
    if (find(uid) != nullptr) return;
    if ((m_size + 1) * 2 > m_capacity) grow();
    void* mem = next_malloc(sizeof(frames) + len * sizeof(void*));
    if (mem == nullptr) throw std::bad_alloc();
    frames* rec = new (mem) frames{uid, len};
    memcpy(rec->addrs(), addrs, len * sizeof(void*));
    m_slots[index_of(uid)] = slot{uid, rec};
    ++m_size;
}

void stack_table::clear() {
    for (size_t i = 0; i < m_capacity; ++i) next_free(m_slots[i].rec);
    next_free(m_slots);
    m_slots = nullptr;
    m_capacity = 0;
    m_size = 0;
}

}  // namespace tarvex
