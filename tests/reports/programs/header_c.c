/* A C program that uses the public header: runs without tarvex (the calls
 * do nothing) and, with it preloaded, writes a trace dump and a top report. */
#include <stdlib.h>
#include <tarvex.h>

int main(void) {
    trvx_trace_start();
    char* kept = malloc(64);
    free(malloc(128));
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_dump_alloc_stats(10);
    trvx_clear_alloc_stats();
    trvx_trace_clear();
    free(kept);
    return 0;
}
