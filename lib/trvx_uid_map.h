// Tables keyed by uid, open-addressed in one array: the per-call-site
// counters (uid to count and bytes) and the stack cache's index. A lookup
// hashes with one multiplication and reads one cache line, where a
// node-based hash map divides by a prime and follows pointers; that
// difference is most of what counting adds to a tracked call. It offers the
// part of std::unordered_map's interface that the store and its tests use.
// Entries are only added and cleared all at once, never erased one by one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "trvx_next.h"

namespace tarvex {

template <class V>
class uid_table {
public:
    struct value_type {
        uint32_t first;
        uint32_t used;  // 0: empty slot
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
        void skip() {
            while (m_p != m_end && !m_p->used) ++m_p;
        }
        value_type* m_p;
        value_type* m_end;
    };

    uid_table() = default;
    uid_table(const uid_table&) = delete;
    uid_table& operator=(const uid_table&) = delete;
    ~uid_table() { next_free(m_slots); }

    iterator begin() { return iterator(m_slots, m_slots + m_capacity); }
    iterator end() { return iterator(m_slots + m_capacity, m_slots + m_capacity); }
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }

    iterator find(uint32_t uid) {
        if (m_size == 0) return end();
        value_type* s = &m_slots[probe(uid)];
        return s->used ? iterator(s, m_slots + m_capacity) : end();
    }

    // The value of uid, value-initialised when missing. Throws
    // std::bad_alloc when the table cannot grow; nothing changes then.
    V& operator[](uint32_t uid) {
        if (m_capacity != 0) {
            value_type* s = &m_slots[probe(uid)];
            if (s->used) return s->second;
        }
        if ((m_size + 1) * 4 > m_capacity * 3) grow();
        value_type* s = &m_slots[probe(uid)];
        *s = value_type{uid, 1, V()};
        ++m_size;
        return s->second;
    }

    void clear() {
        if (m_slots != nullptr) memset(static_cast<void*>(m_slots), 0, m_capacity * sizeof(value_type));
        m_size = 0;
    }

private:
    size_t home(uint32_t uid) const { return size_t((uid * 0x9E3779B97F4A7C15ULL) >> 32) & (m_capacity - 1); }

    // The slot holding uid, or the empty slot where it would go.
    size_t probe(uint32_t uid) const {
        size_t mask = m_capacity - 1;
        size_t i = home(uid);
        while (m_slots[i].used && m_slots[i].first != uid) i = (i + 1) & mask;
        return i;
    }

    void grow() {
        size_t capacity = m_capacity == 0 ? 64 : m_capacity * 2;
        auto* slots = static_cast<value_type*>(next_malloc(capacity * sizeof(value_type)));
        if (slots == nullptr) throw std::bad_alloc();
        memset(static_cast<void*>(slots), 0, capacity * sizeof(value_type));
        value_type* old = m_slots;
        size_t old_capacity = m_capacity;
        m_slots = slots;
        m_capacity = capacity;
        for (size_t i = 0; i < old_capacity; ++i)
            if (old[i].used) m_slots[probe(old[i].first)] = old[i];
        next_free(old);
    }

    value_type* m_slots = nullptr;
    size_t m_capacity = 0;  // a power of two, or 0
    size_t m_size = 0;
};

// Count and bytes, named like a pair's members.
struct uid_counter {
    uint64_t first;
    uint64_t second;
};

class uid_map : public uid_table<uid_counter> {
public:
    typedef uid_counter counter;
};

}  // namespace tarvex
