// A small program to show what tarvex reports: a traced stretch of work, a
// report of the call sites holding the most memory, and, when started with
// the argument "fault", a double free that tarvex stops.
#include <tarvex.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::vector<char*> g_cache;

__attribute__((noinline)) char* remember(const char* text) {
    char* copy = static_cast<char*>(malloc(strlen(text) + 1));
    strcpy(copy, text);
    g_cache.push_back(copy);
    return copy;
}

__attribute__((noinline)) void parse_request(int i) {
    std::string line = "GET /item/" + std::to_string(i) + " HTTP/1.1 with a long enough header";
    char* scratch = static_cast<char*>(calloc(4, 64));
    memcpy(scratch, line.data(), 32);
    free(scratch);
    if (i % 4 == 0) remember(line.c_str());
}

// The pointer goes through a volatile variable: the compiler knows what
// malloc and free do and would otherwise remove the whole function.
__attribute__((noinline)) void double_free() {
    char* volatile p = static_cast<char*>(malloc(24));
    free(p);
    free(p);  // caught: the block is still in the quarantine
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "fault") == 0) {
        double_free();
        return 0;
    }
    trvx_trace_start();
    for (int i = 0; i < 3; ++i) parse_request(i);
    trvx_trace_stop();
    trvx_trace_dump();

    for (int i = 0; i < 100; ++i) parse_request(i);
    trvx_dump_alloc_stats(5);
    return 0;
}
