/* A program built against an installed tarvex, the way a user builds one:
 * it traces a little work and asks for a top report. */
#include <stdlib.h>
#include <tarvex.h>

static void *volatile sink;

int main(void) {
    trvx_trace_start();
    char *kept = malloc(64); /* @consumer_malloc */
    sink = malloc(128);
    free(sink);
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_dump_alloc_stats(5);
    free(kept);
    return 0;
}
