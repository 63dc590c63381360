// Scoped holds of the library's locks: released on every way out of their
// scope, exceptions included.
#pragma once

#include <pthread.h>
#include <sched.h>

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

// A lock for the few-instruction critical sections of the allocation paths
// (a registry shard, the quarantine's ends). A waiter spins briefly and then
// yields its core, so it never sleeps in the kernel: a contended mutex
// costs two system calls, many times these sections' length. Release is a
// plain store, so unlocking never waits for the caller's earlier stores
// (the block fills) to reach the cache. Not recursive; holders never block.
class spin_lock {
public:
    void lock() {
        if (__atomic_exchange_n(&m_word, 1, __ATOMIC_ACQUIRE) != 0) lock_slow();
    }
    void unlock() { __atomic_store_n(&m_word, 0, __ATOMIC_RELEASE); }

private:
    void lock_slow() {
        for (unsigned spins = 0;; ++spins) {
            if (__atomic_load_n(&m_word, __ATOMIC_RELAXED) == 0 &&
                __atomic_exchange_n(&m_word, 1, __ATOMIC_ACQUIRE) == 0)
                return;
            if (spins < 64) {
                __builtin_ia32_pause();
            } else {
                sched_yield();
            }
        }
    }
    int m_word = 0;
};

class spin_guard {
public:
    explicit spin_guard(spin_lock& l) : m_lock(l) { m_lock.lock(); }
    ~spin_guard() { m_lock.unlock(); }
    spin_guard(const spin_guard&) = delete;
    spin_guard& operator=(const spin_guard&) = delete;

private:
    spin_lock& m_lock;
};

}  // namespace tarvex
