/* Starts a trace from the executable's pre-initialisation array, which
 * runs before the initialisers of every shared object, so before the first
 * allocation of the process and before tarvex has a context. The trace must
 * record the allocation that main makes later. (Only a control function
 * that allocates nothing can be called there: the C library shows no
 * environment yet, and tarvex would take the target process's name as
 * unset for good.) */
#include <stdio.h>
#include <stdlib.h>
#include <tarvex.h>

extern void* g_ctx __attribute__((weak));
static int ctx_state; /* 0: not run, 1: no context yet, 2: a context existed */

static void early(int argc, char** argv, char** envp) {
    (void)argc;
    (void)argv;
    (void)envp;
    ctx_state = (&g_ctx != NULL && g_ctx != NULL) ? 2 : 1;
    trvx_trace_start();
}

__attribute__((section(".preinit_array"), used)) static void (*early_entry)(int, char**, char**) = early;

int main(void) {
    void* p = malloc(24);
    trvx_trace_stop();
    trvx_trace_dump();
    fprintf(stderr, "context at the first call: %s\n",
            ctx_state == 1 ? "none" : ctx_state == 2 ? "present" : "not run");
    free(p);
    return 0;
}
