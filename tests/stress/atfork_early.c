/*
 * Linked into stress_c: its constructor runs before libtarvex.so's and
 * registers fork handlers before the process's first allocation, so its
 * prepare handler runs after tarvex's (prepare handlers run in the reverse
 * order of registration). All three handlers allocate and release.
 */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

static void* g_kept;  // replaced in every prepare handler

__attribute__((visibility("default"))) void* atfork_early_kept(void) { return g_kept; }

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
