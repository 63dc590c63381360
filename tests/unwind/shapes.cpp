// Allocates from many kinds of call stacks; run with the library variant
// that checks every stack capture against glibc's backtrace(), it exits 0
// only if every capture agreed.
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {
volatile int g_sink;

__attribute__((noinline)) void* deep(int depth) {
    if (depth == 0) return malloc(16);
    void* p = deep(depth - 1);
    g_sink += depth;
    return p;
}

void on_signal(int) { free(malloc(40)); }

void* churn(void*) {
    for (int i = 0; i < 500; ++i) free(deep(i % 90));
    return nullptr;
}

int compare_allocating(const void* a, const void* b) {
    free(malloc(8));
    return *static_cast<const int*>(a) - *static_cast<const int*>(b);
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    for (int i = 0; i < 100; ++i) free(deep(i));  // deeper than the 64 frames kept
    try {
        throw std::runtime_error(std::string(100, 'x'));
    } catch (const std::exception& e) {
        g_sink += int(strlen(e.what()));
    }
    std::vector<std::string> strings;
    for (int i = 0; i < 500; ++i) strings.push_back(std::to_string(i) + std::string(40, 'y'));
    signal(SIGUSR1, on_signal);
    for (int i = 0; i < 10; ++i) raise(SIGUSR1);
    pthread_t threads[3];
    for (pthread_t& t : threads) pthread_create(&t, nullptr, churn, nullptr);
    for (pthread_t& t : threads) pthread_join(t, nullptr);
    int values[32];
    for (int i = 0; i < 32; ++i) values[i] = (i * 7919) % 32;
    qsort(values, 32, sizeof(int), compare_allocating);  // frames inside the C library
    for (int round = 0; round < 3; ++round) {  // code loaded and unloaded at run time
        void* plugin = dlopen(argv[1], RTLD_NOW);
        if (plugin == nullptr) return 3;
        auto plug_alloc = reinterpret_cast<void* (*)(int)>(dlsym(plugin, "plug_alloc"));
        for (int i = 0; i < 40; ++i) free(plug_alloc(i));
        dlclose(plugin);
    }
    return 0;
}
