// Scoped holds of the library's locks: released on every way out of their
// scope, exceptions included.
#pragma once

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

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

// A lock for the short critical sections of the allocation paths (a
// registry shard, the quarantine's ends, the counters). A waiter spins a
// little, since the holder usually leaves within a few hundred cycles, and
// then sleeps on a futex: a waiter that only spun or yielded could keep a
// preempted holder of lower (real-time) priority off its core for good. The
// word is 0 (free), 1 (held) or 2 (held, maybe with sleepers); only an
// unlock that finds 2 makes the wake-up call. Not recursive.
class spin_lock {
public:
    void lock() {
        int expected = 0;
        if (!__atomic_compare_exchange_n(&m_word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
            lock_slow();
    }
    void unlock() {
        if (__atomic_exchange_n(&m_word, 0, __ATOMIC_RELEASE) == 2) wake();
    }

private:
    void lock_slow() {
        for (int spins = 0; spins < 100; ++spins) {
            int expected = 0;
            if (__atomic_load_n(&m_word, __ATOMIC_RELAXED) == 0 &&
                __atomic_compare_exchange_n(&m_word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
                return;
            __builtin_ia32_pause();
        }
        while (__atomic_exchange_n(&m_word, 2, __ATOMIC_ACQUIRE) != 0)
            syscall(SYS_futex, &m_word, FUTEX_WAIT_PRIVATE, 2, nullptr, nullptr, 0);
    }
    void wake() { syscall(SYS_futex, &m_word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0); }

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
