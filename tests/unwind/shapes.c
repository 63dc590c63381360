/* Allocates from many kinds of call stacks; built as C and as C++ and run
 * with the library variant that checks every stack capture against glibc's
 * backtrace(), it exits 0 only if every capture agreed. */
#include <dlfcn.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <stdlib.h>
#ifdef __cplusplus
#include <stdexcept>
#include <string>
#include <vector>
#endif

static volatile int g_sink;

__attribute__((noinline)) static void* deep(int depth) {
    if (depth == 0) return malloc(24);
    void* p = deep(depth - 1);
    g_sink = g_sink + depth;
    return p;
}

/* A function whose last instruction is a call that never returns: the
 * return address is the first byte after it, where the next function's
 * unwind rules begin when nothing pads between them (as at -O0). glibc
 * looks the rule up one byte before; the capture must agree. */
static jmp_buf g_jump;
__attribute__((noinline, noreturn)) static void allocate_and_jump(void) {
    free(malloc(40));
    longjmp(g_jump, 1);
}
__attribute__((noinline)) static void ends_in_call(void) { allocate_and_jump(); }
__attribute__((noinline)) static void after_ends_in_call(int depth) {
    if (depth > 0) after_ends_in_call(depth - 1);
    g_sink = g_sink + depth;
}

static void on_signal(int sig) { free(calloc(3, 8 + sig % 2)); }

static void* churn(void* arg) {
    for (int i = 0; i < 500; ++i) free(realloc(deep(i % 90), 64));
    return arg;
}

static int compare_allocating(const void* a, const void* b) {
    free(malloc(8));
    return *(const int*)a - *(const int*)b;
}

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    for (int i = 0; i < 100; ++i) free(deep(i)); /* deeper than the 64 frames kept */
    if (setjmp(g_jump) == 0) ends_in_call();
    after_ends_in_call(1);
#ifdef __cplusplus
    try {
        throw std::runtime_error(std::string(100, 'x'));
    } catch (const std::exception& e) {
        g_sink = g_sink + (int)e.what()[0];
    }
    std::vector<std::string> strings;
    for (int i = 0; i < 500; ++i) strings.push_back(std::to_string(i) + std::string(40, 'y'));
#endif
    signal(SIGUSR1, on_signal);
    for (int i = 0; i < 10; ++i) raise(SIGUSR1);
    pthread_t threads[3];
    for (int i = 0; i < 3; ++i) pthread_create(&threads[i], NULL, churn, NULL);
    for (int i = 0; i < 3; ++i) pthread_join(threads[i], NULL);
    int values[32];
    for (int i = 0; i < 32; ++i) values[i] = (i * 7919) % 32;
    qsort(values, 32, sizeof(int), compare_allocating); /* frames inside the C library */
    for (int round = 0; round < 3; ++round) {             /* code loaded and unloaded at run time */
        void* plugin = dlopen(argv[1], RTLD_NOW);
        if (plugin == NULL) return 3;
        void* (*plug_alloc)(int) = (void* (*)(int))dlsym(plugin, "plug_alloc");
        for (int i = 0; i < 40; ++i) free(plug_alloc(i));
        dlclose(plugin);
    }
    return 0;
}
