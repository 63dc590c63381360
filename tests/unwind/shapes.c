/* The C counterpart of shapes.cpp: recursion, signal handler, threads,
 * callbacks from the C library, code loaded at run time. */
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>

static volatile int g_sink;

__attribute__((noinline)) static void* deep(int depth) {
    if (depth == 0) return malloc(24);
    void* p = deep(depth - 1);
    g_sink += depth;
    return p;
}

static void on_signal(int sig) { (void)sig; free(calloc(3, 8)); }

static void* churn(void* arg) {
    (void)arg;
    for (int i = 0; i < 500; ++i) free(realloc(deep(i % 90), 64));
    return NULL;
}

static int compare_allocating(const void* a, const void* b) {
    free(malloc(8));
    return *(const int*)a - *(const int*)b;
}

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    for (int i = 0; i < 100; ++i) free(deep(i));
    signal(SIGUSR1, on_signal);
    for (int i = 0; i < 10; ++i) raise(SIGUSR1);
    pthread_t threads[3];
    for (int i = 0; i < 3; ++i) pthread_create(&threads[i], NULL, churn, NULL);
    for (int i = 0; i < 3; ++i) pthread_join(threads[i], NULL);
    int values[32];
    for (int i = 0; i < 32; ++i) values[i] = (i * 7919) % 32;
    qsort(values, 32, sizeof(int), compare_allocating);
    for (int round = 0; round < 3; ++round) {
        void* plugin = dlopen(argv[1], RTLD_NOW);
        if (plugin == NULL) return 3;
        void* (*plug_alloc)(int) = (void* (*)(int))dlsym(plugin, "plug_alloc");
        for (int i = 0; i < 40; ++i) free(plug_alloc(i));
        dlclose(plugin);
    }
    return 0;
}
