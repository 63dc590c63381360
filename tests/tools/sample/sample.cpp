// A program with known heap traffic for the tools' tests, built with and
// without debug information and as a position-independent and a
// fixed-address executable. The "@name" comments mark the lines that the
// tests expect in symbolised stacks.
//
//   sample top      three rounds, each growing two call sites, followed by a
//                   top report; one site stays flat, one shrinks
//   sample trace    one traced window: kept blocks, a block allocated and
//                   released inside it, a release of an older block
//   sample double-free | overflow | unknown   a fault that tarvex stops
//   sample exit N | signal N | echo ARGS...   for the launcher's tests
#include <tarvex.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sample_helper.h"

namespace sample {

void* volatile g_sink;  // keeps the compiler from dropping allocations
void* g_kept[256];
int g_kept_count = 0;
void* g_shrinking[8];

__attribute__((noinline)) void* keep_block(std::size_t size) {
    void* block = std::malloc(size);  // @keep_block
    g_kept[g_kept_count++] = block;
    return block;
}

__attribute__((noinline)) void grow_cache(int blocks) {
    for (int i = 0; i < blocks; ++i) keep_block(100);
}

__attribute__((noinline)) void churn() {
    g_sink = std::malloc(64);  // @churn
    std::free(g_sink);
}

__attribute__((noinline)) std::string* keep_object() {
    auto* text = new std::string(200, 'x');  // @keep_object
    g_kept[g_kept_count++] = text;
    return text;
}

__attribute__((noinline)) void stable_buffer() {
    static void* buffer = std::malloc(5000);  // @stable_buffer
    g_sink = buffer;
}

void top_rounds() {
    stable_buffer();
    for (int i = 0; i < 8; ++i) g_shrinking[i] = std::malloc(30);  // @shrinking
    for (int round = 0; round < 3; ++round) {
        grow_cache(10);
        g_kept[g_kept_count++] = helper_duplicate("some text", 9);
        churn();
        for (int i = round * 3; i < round * 3 + 3 && i < 8; ++i) std::free(g_shrinking[i]);
        trvx_dump_alloc_stats(10);
        std::printf("round %d done\n", round);
        std::fflush(stdout);
    }
}

void trace_window() {
    void* volatile older = std::malloc(48);
    std::printf("before the window\n");
    std::fflush(stdout);
    trvx_trace_start();
    grow_cache(3);
    churn();
    keep_object();
    std::free(older);
    trvx_trace_stop();
    trvx_trace_dump();
}

void fault(const char* kind) {
    if (std::strcmp(kind, "double-free") == 0) {
        g_sink = std::malloc(24);  // @fault_malloc
        std::free(g_sink);         // @first_free
        std::free(g_sink);
    } else if (std::strcmp(kind, "overflow") == 0) {
        char* block = static_cast<char*>(std::malloc(16));  // @overflow_malloc
        g_sink = block;
        block[16] = 'A';  // one byte past the end
        std::free(g_sink);  // @overflow_free
    } else {
        static char not_heap[32];
        g_sink = not_heap;
        std::free(g_sink);
    }
}

}  // namespace sample

int main(int argc, char** argv) {
    const char* mode = argc > 1 ? argv[1] : "top";
    if (std::strcmp(mode, "top") == 0) sample::top_rounds();
    else if (std::strcmp(mode, "trace") == 0) sample::trace_window();
    else if (std::strcmp(mode, "exit") == 0 && argc > 2) return std::atoi(argv[2]);
    else if (std::strcmp(mode, "signal") == 0 && argc > 2) std::raise(std::atoi(argv[2]));
    else if (std::strcmp(mode, "echo") == 0)
        for (int i = 0; i < argc; ++i) std::printf("argv[%d]=%s\n", i, argv[i]);
    else sample::fault(mode);
    return 0;
}
