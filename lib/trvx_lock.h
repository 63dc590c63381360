// Scoped holds of the library's locks: released on every way out of their
// scope, exceptions included.
#pragma once

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tarvex {

// Set on the thread that forks while it holds every lock that the library
// keeps across fork (from its prepare handler to its parent or child
// handler). Fork handlers that other libraries registered earlier run in
// that span and may allocate and release; the thread then already owns the
// library's state exclusively, so the scoped holds below take nothing, and
// its calls work exactly as at any other time instead of waiting for
// themselves.
namespace detail {
extern __thread bool t_owns_fork_locks __attribute__((tls_model("initial-exec")));
}
inline bool owns_fork_locks() { return __builtin_expect(detail::t_owns_fork_locks, 0); }

class scoped_lock {
public:
    explicit scoped_lock(pthread_mutex_t* m) : m_mutex(m), m_owned(owns_fork_locks()) { lock(); }
    // Takes the mutex only if it is free at once; held() tells.
    struct try_only {};
    scoped_lock(pthread_mutex_t* m, try_only) : m_mutex(m), m_owned(owns_fork_locks()) {
        m_held = m_owned || pthread_mutex_trylock(m_mutex) == 0;
    }
    bool held() const { return m_held; }
    ~scoped_lock() {
        if (m_held) unlock();
    }
    void unlock() {
        if (!m_owned) pthread_mutex_unlock(m_mutex);
        m_held = false;
    }
    void lock() {
        if (!m_owned) pthread_mutex_lock(m_mutex);
        m_held = true;
    }
    scoped_lock(const scoped_lock&) = delete;
    scoped_lock& operator=(const scoped_lock&) = delete;

private:
    pthread_mutex_t* m_mutex;
    bool m_owned;
    bool m_held = false;
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
    // True when taken; false when the lock is held by this very thread as
    // the owner of the fork locks (then nothing is taken, and the caller
    // must not release it). The owner is asked only when the lock is busy,
    // which it always is for that thread.
    bool lock() {
        int expected = 0;
        if (__atomic_compare_exchange_n(&m_word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
            return true;
        return lock_slow();
    }
    void unlock() {
        if (__atomic_exchange_n(&m_word, 0, __ATOMIC_RELEASE) == 2) wake();
    }

private:
    bool lock_slow() {
        if (owns_fork_locks()) return false;
        for (int spins = 0; spins < 100; ++spins) {
            int expected = 0;
            if (__atomic_load_n(&m_word, __ATOMIC_RELAXED) == 0 &&
                __atomic_compare_exchange_n(&m_word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
                return true;
            __builtin_ia32_pause();
        }
        while (__atomic_exchange_n(&m_word, 2, __ATOMIC_ACQUIRE) != 0)
            syscall(SYS_futex, &m_word, FUTEX_WAIT_PRIVATE, 2, nullptr, nullptr, 0);
        return true;
    }
    void wake() { syscall(SYS_futex, &m_word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0); }

    int m_word = 0;
};

// Holds l for its scope; with take false, holds nothing (for a caller that
// already excludes every other user by a lock of its own).
class spin_guard {
public:
    explicit spin_guard(spin_lock& l, bool take = true) : m_lock(l), m_taken(take && l.lock()) {}
    ~spin_guard() {
        if (m_taken) m_lock.unlock();
    }
    spin_guard(const spin_guard&) = delete;
    spin_guard& operator=(const spin_guard&) = delete;

private:
    spin_lock& m_lock;
    bool m_taken;
};

}  // namespace tarvex
