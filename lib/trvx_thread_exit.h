// Per-thread state given back at each thread's exit.
#pragma once

#include <pthread.h>

namespace tarvex {

// One process-wide key, made on first use, whose destructor OnExit runs at
// the exit of every thread that gave it a value (with that value). Neither
// call allocates for the first keys of a process; past them the key's value
// array comes from calloc, which passes through untracked inside the
// library.
template <void (*OnExit)(void*)>
class thread_exit_key {
public:
    // Gives the calling thread's key the value (not null). False when no
    // key could be made or the value could not be set.
    static bool set(void* value) {
        pthread_once(&s_once, make);
        // Written inside make(), which pthread_once ran on some thread.
        return __atomic_load_n(&s_made, __ATOMIC_ACQUIRE) && pthread_setspecific(s_key, value) == 0;
    }

private:
    static void make() { s_made = pthread_key_create(&s_key, OnExit) == 0; }

    static inline pthread_key_t s_key;
    static inline bool s_made = false;
    static inline pthread_once_t s_once = PTHREAD_ONCE_INIT;
};

}  // namespace tarvex
