// A first-in, first-out queue of values in one growing circular array: the
// quarantine's records in release order. Taking from the front and adding at
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
    void pop_front() { ++m_head; }

    // Throws std::bad_alloc when the array cannot grow; nothing changes then.
    void push_back(const T& v) {
        if (size() == capacity()) grow();
        m_slots[m_tail & m_mask] = v;
        ++m_tail;
    }

private:
    size_t capacity() const { return m_slots ? m_mask + 1 : 0; }

    void grow() {
        size_t n = capacity() ? capacity() * 2 : 1024;
        T* slots = static_cast<T*>(next_malloc(n * sizeof(T)));
        if (slots == nullptr) throw std::bad_alloc();
        size_t count = size();
        for (size_t i = 0; i < count; ++i) slots[i] = (*this)[i];
        next_free(m_slots);
        m_slots = slots;
        m_mask = n - 1;
        m_head = 0;
        m_tail = count;
    }

    T* m_slots = nullptr;
    size_t m_mask = 0;
    size_t m_head = 0;  // counts of values taken and added; their difference is the size
    size_t m_tail = 0;
};

}  // namespace tarvex
