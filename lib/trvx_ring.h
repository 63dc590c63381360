// A first-in, first-out queue of values in fixed-size segments: a quarantine
// lane's records in release order. Taking from the front and adding at the
// back touch the next slot of a sequential array, which the processor
// fetches ahead by itself, and take no memory per record; finding a record
// by its content is a scan, left to the rare fault reports.
//
// The queue grows by one segment at a time and gives a segment back as soon
// as its last value is taken: no value is ever copied, so a queue that grows
// to a million records never stops its thread to move them, and never has
// two arrays of them at once (in a forked child, a move would copy every
// page of both). One emptied segment is kept for the next growth.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "trvx_next.h"

namespace tarvex {

template <class T>
class ring {
    static_assert(std::is_trivially_copyable<T>::value, "values are stored as bytes");

public:
    ring() = default;
    ring(const ring&) = delete;
    ring& operator=(const ring&) = delete;
    ~ring() {
        for (size_t s = m_head >> k_shift; s < m_end; ++s) next_free(m_segments[s & m_table_mask]);
        next_free(m_spare);
        next_free(m_segments);
    }

    size_t size() const { return m_tail - m_head; }
    bool empty() const { return m_tail == m_head; }
    T& front() { return at(m_head); }
    // i-th oldest value, 0 <= i < size().
    T& operator[](size_t i) { return at(m_head + i); }
    const T& operator[](size_t i) const { return const_cast<ring*>(this)->at(m_head + i); }
    void pop_front() {
        size_t head = m_head + 1;
        if ((head & k_mask) == 0) retire(m_segments[((head >> k_shift) - 1) & m_table_mask]);
        __atomic_store_n(&m_head, head, __ATOMIC_RELAXED);
    }
    // Read without the lock that guards the ring: a hint, which a thread that
    // takes the lock next may find stale.
    bool looks_empty() const {
        return __atomic_load_n(&m_tail, __ATOMIC_RELAXED) == __atomic_load_n(&m_head, __ATOMIC_RELAXED);
    }

    // Makes room for one more value. Throws std::bad_alloc when the queue
    // cannot grow; nothing changes then.
    void reserve_one() {
        if (m_tail == m_end << k_shift) add_segment();
    }
    // Throws std::bad_alloc when the queue cannot grow; nothing changes then.
    void push_back(const T& v) {
        reserve_one();
        at(m_tail) = v;
        __atomic_store_n(&m_tail, m_tail + 1, __ATOMIC_RELAXED);
    }

private:
    static constexpr size_t k_shift = 10;  // 1024 values a segment
    static constexpr size_t k_mask = (size_t(1) << k_shift) - 1;

    T& at(size_t i) { return m_segments[(i >> k_shift) & m_table_mask][i & k_mask]; }

    // Segment number s (counted from the first ever) lives in table slot
    // s & m_table_mask; the segments in use are those from the head's to
    // m_end, exclusive.
    void add_segment() {
        size_t first = m_head >> k_shift;
        if (m_segments == nullptr || m_end - first > m_table_mask) grow_table(first);
        T* segment = m_spare;
        if (segment == nullptr) segment = static_cast<T*>(next_malloc(sizeof(T) << k_shift));
        if (segment == nullptr) throw std::bad_alloc();
        m_spare = nullptr;
        m_segments[m_end & m_table_mask] = segment;
        ++m_end;
    }

    void grow_table(size_t first) {
        size_t n = m_segments ? (m_table_mask + 1) * 2 : 4;
        T** table = static_cast<T**>(next_malloc(n * sizeof(T*)));
        if (table == nullptr) throw std::bad_alloc();
        if (m_segments != nullptr) {
            for (size_t s = first; s < m_end; ++s) table[s & (n - 1)] = m_segments[s & m_table_mask];
            next_free(m_segments);
        }
        m_segments = table;
        m_table_mask = n - 1;
    }

    void retire(T* segment) {
        if (m_spare == nullptr)
            m_spare = segment;
        else
            next_free(segment);
    }

    T** m_segments = nullptr;
    size_t m_table_mask = 0;
    T* m_spare = nullptr;
    size_t m_end = 0;   // one past the newest segment's number
    size_t m_head = 0;  // counts of values taken and added; their difference is the size
    size_t m_tail = 0;
};

}  // namespace tarvex
