// A hash map from block address to block record, open-addressed in one
// array: the quarantine's records. Unlike a node-based map it takes no memory
// per record and touches one cache line per lookup, and the slot a lookup
// will touch can be fetched ahead (prefetch), which matters because the
// record looked up when a block leaves the quarantine went cold 10 MiB of
// releases ago. It offers the part of std::unordered_map's interface that
// the store uses. Addresses 0 and 1 mark empty and erased slots and cannot
// be keys (they are never block addresses).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "trvx_next.h"

namespace tarvex {

template <class V>
class addr_map {
public:
    struct value_type {
        void* first;
        V second;
    };

    class iterator {
    public:
        iterator(value_type* p, value_type* end) : m_p(p), m_end(end) { skip(); }
        value_type& operator*() const { return *m_p; }
        value_type* operator->() const { return m_p; }
        iterator& operator++() {
            ++m_p;
            skip();
            return *this;
        }
        bool operator==(const iterator& o) const { return m_p == o.m_p; }
        bool operator!=(const iterator& o) const { return m_p != o.m_p; }

    private:
        friend class addr_map;
        void skip() {
            while (m_p != m_end && key_of(*m_p) <= k_erased) ++m_p;
        }
        value_type* m_p;
        value_type* m_end;
    };

    addr_map() = default;
    addr_map(const addr_map&) = delete;
    addr_map& operator=(const addr_map&) = delete;
    ~addr_map() { next_free(m_slots); }

    iterator begin() { return iterator(m_slots, m_slots + m_capacity); }
    iterator end() { return iterator(m_slots + m_capacity, m_slots + m_capacity); }
    size_t size() const { return m_live; }
    bool empty() const { return m_live == 0; }

    iterator find(void* key) {
        if (m_live == 0) return end();
        value_type* s = &m_slots[probe(reinterpret_cast<uintptr_t>(key))];
        return key_of(*s) == reinterpret_cast<uintptr_t>(key) ? iterator(s, m_slots + m_capacity) : end();
    }

    // Inserts (key, value) unless key is present. Throws std::bad_alloc when
    // the table cannot grow; nothing changes then.
    std::pair<iterator, bool> emplace(void* key, const V& value) {
        if ((m_used + 1) * 8 > m_capacity * 7) grow();
        uintptr_t k = reinterpret_cast<uintptr_t>(key);
        value_type* s = &m_slots[probe(k)];
        if (key_of(*s) == k) return {iterator(s, m_slots + m_capacity), false};
        if (key_of(*s) == k_empty) ++m_used;
        ++m_live;
        s->first = key;
        s->second = value;
        return {iterator(s, m_slots + m_capacity), true};
    }

    void erase(iterator it) {
        it.m_p->first = reinterpret_cast<void*>(k_erased);
        --m_live;
    }

    // Fetches the slot where a lookup of key starts.
    void prefetch(void* key) const {
        if (m_capacity != 0) __builtin_prefetch(&m_slots[home(reinterpret_cast<uintptr_t>(key))], 1, 1);
    }

private:
    static constexpr uintptr_t k_empty = 0;
    static constexpr uintptr_t k_erased = 1;

    static uintptr_t key_of(const value_type& v) { return reinterpret_cast<uintptr_t>(v.first); }
    size_t home(uintptr_t key) const { return size_t((key >> 4) * 0x9E3779B97F4A7C15ULL) & (m_capacity - 1); }

    // The slot holding key, or where it would go (the first erased slot on
    // its probe sequence, else the empty one that ends it).
    size_t probe(uintptr_t key) const {
        size_t mask = m_capacity - 1;
        size_t first_erased = m_capacity;
        for (size_t i = home(key);; i = (i + 1) & mask) {
            uintptr_t k = key_of(m_slots[i]);
            if (k == k_empty) return first_erased != m_capacity ? first_erased : i;
            if (k == key) return i;
            if (k == k_erased && first_erased == m_capacity) first_erased = i;
        }
    }

    // Doubles the table, or rebuilds it at its size when it is mostly erased
    // slots.
    void grow() {
        size_t capacity = m_capacity == 0 ? 256 : (m_live * 2 < m_capacity ? m_capacity : m_capacity * 2);
        auto* slots = static_cast<value_type*>(next_malloc(capacity * sizeof(value_type)));
        if (slots == nullptr) throw std::bad_alloc();
        memset(static_cast<void*>(slots), 0, capacity * sizeof(value_type));
        value_type* old = m_slots;
        size_t old_capacity = m_capacity;
        m_slots = slots;
        m_capacity = capacity;
        m_used = 0;
        for (size_t i = 0; i < old_capacity; ++i) {
            if (key_of(old[i]) > k_erased) {
                m_slots[probe(key_of(old[i]))] = old[i];
                ++m_used;
            }
        }
        next_free(old);
    }

    value_type* m_slots = nullptr;
    size_t m_capacity = 0;  // a power of two, or 0
    size_t m_used = 0;      // live and erased slots
    size_t m_live = 0;
};

}  // namespace tarvex
