// The same as header_c.c in C++: the header's weak references and macros
// must compile cleanly there as well.
#include <tarvex.h>

#include <memory>

int main() {
    trvx_trace_start();
    std::unique_ptr<char[]> kept(new char[64]);
    delete[] new char[128];
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_dump_alloc_stats(10);
    trvx_clear_alloc_stats();
    trvx_trace_clear();
    return 0;
}
