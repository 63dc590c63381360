/*
 * libstress_atfork_early.so: linked into stress_atfork, so that its
 * constructor runs before libtarvex.so's and registers fork handlers before
 * the process has allocated anything. Its prepare handler thus runs after
 * tarvex's (prepare handlers run in the reverse order of registration), and
 * it allocates and releases there, as its parent and child handlers do.
 */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#define EXPORT __attribute__((visibility("default")))

static void* g_kept;  // replaced in every prepare handler

EXPORT void* atfork_early_kept(void) { return g_kept; }

static void prepare(void) {
    void* p = malloc(40);
    if (p != NULL) memset(p, 1, 40);
    free(g_kept);
    g_kept = p;
}

static void after(void) { free(malloc(24)); }

__attribute__((constructor)) static void init(void) {
    pthread_atfork(prepare, after, after);
    g_kept = malloc(16);
}
