// A first-in, first-out queue of values in one growing circular array: a
// quarantine lane's records in release order. Taking from the front and adding at
// the back touch the next slot of a sequential array, which the processor
// fetches ahead by itself, and take no memory per record; finding a record
// by its content is a scan, left to the rare fault reports.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "trvx_next.h"

namespace tarvex {

template <class T>
class ring {
    static_assert(std::is_trivially_copyable<T>::value, "values are moved as bytes");

public:
    ring() = default;
    ring(const ring&) = delete;
    ring& operator=(const ring&) = delete;
    ~ring() { next_free(m_slots); }

    size_t size() const { return m_tail - m_head; }
    bool empty() const { return m_tail == m_head; }
    T& front() { return m_slots[m_head & m_mask]; }
    // i-th oldest value, 0 <= i < size().
    T& operator[](size_t i) { return m_slots[(m_head + i) & m_mask]; }
    const T& operator[](size_t i) const { return m_slots[(m_head + i) & m_mask]; }
    void pop_front() { __atomic_store_n(&m_head, m_head + 1, __ATOMIC_RELAXED); }
    // Read without the lock that guards the ring: a hint, which a thread that
    // takes the lock next may find stale.
    bool looks_empty() const {
        return __atomic_load_n(&m_tail, __ATOMIC_RELAXED) == __atomic_load_n(&m_head, __ATOMIC_RELAXED);
    }

    // Makes room for one more value. Throws std::bad_alloc when the array
    // cannot grow; nothing changes then.
    void reserve_one() {
        if (size() == capacity()) grow();
    }
    // Throws std::bad_alloc when the array cannot grow; nothing changes then.
    void push_back(const T& v) {
        reserve_one();
        m_slots[m_tail & m_mask] = v;
        __atomic_store_n(&m_tail, m_tail + 1, __ATOMIC_RELAXED);
    }

    // Halves an array that has become mostly empty, so that a burst does not
    // keep its memory for good; keeps the array when memory is short.
    void shrink_if_sparse() {
        if (capacity() <= k_initial || size() * 8 > capacity()) return;
        T* slots = static_cast<T*>(next_malloc(capacity() / 2 * sizeof(T)));
        if (slots != nullptr) move_to(slots, capacity() / 2);
    }

private:
    static constexpr size_t k_initial = 1024;

    size_t capacity() const { return m_slots ? m_mask + 1 : 0; }

    void grow() {
        size_t n = capacity() ? capacity() * 2 : k_initial;
        T* slots = static_cast<T*>(next_malloc(n * sizeof(T)));
        if (slots == nullptr) throw std::bad_alloc();
        move_to(slots, n);
    }

    // Moves the values to slots (n of them, a power of two no smaller than
    // the size) and frees the old array. The counts go on as they were, so
    // that an unlocked look at them (looks_empty) never sees a lane with
    // values as empty, whatever it reads first.
    void move_to(T* slots, size_t n) {
        for (size_t i = m_head; i != m_tail; ++i) slots[i & (n - 1)] = m_slots[i & m_mask];
        next_free(m_slots);
        m_slots = slots;
        m_mask = n - 1;
    }

    T* m_slots = nullptr;
    size_t m_mask = 0;
    size_t m_head = 0;  // counts of values taken and added; their difference is the size
    size_t m_tail = 0;
};

}  // namespace tarvex
