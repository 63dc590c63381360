// A scoped hold of a POSIX mutex: released on every way out of its scope,
// exceptions included.
#pragma once

#include <pthread.h>

namespace tarvex {

class scoped_lock {
public:
    explicit scoped_lock(pthread_mutex_t* m) : m_mutex(m) { pthread_mutex_lock(m_mutex); }
    ~scoped_lock() {
        if (m_held) pthread_mutex_unlock(m_mutex);
    }
    void unlock() {
        pthread_mutex_unlock(m_mutex);
        m_held = false;
    }
    void lock() {
        pthread_mutex_lock(m_mutex);
        m_held = true;
    }
    scoped_lock(const scoped_lock&) = delete;
    scoped_lock& operator=(const scoped_lock&) = delete;

private:
    pthread_mutex_t* m_mutex;
    bool m_held = true;
};

}  // namespace tarvex
