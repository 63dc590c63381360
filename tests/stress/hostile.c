/*
 * Early calls and odd environment values.
 *
 *   stress_hostile control-first
 *                               calls every control function before the
 *                               process has allocated anything, then prints
 *                               whether its blocks are tracked
 *   stress_hostile malloc-first allocates before anything else, releases
 *                               in main, prints whether it is tracked
 *   stress_hostile report tracked|untracked
 *                               three blocks, two top reports and a trace
 *                               dump, under whatever environment the test
 *                               gives; prints "ok" on standard error
 *
 * Expects TARVEX_TARGET_PROC_NAME=stress_hostile unless a test says
 * otherwise.
 */
#define _GNU_SOURCE
#include <stdbool.h>

#include "scenario_util.h"

/* Calls made before the process has allocated anything: this runs from the
 * executable's pre-initialisers, ahead of every library's constructors (and
 * before the C library has set up environ). */
static void* g_early_block;

static void control_first(int argc, char** argv, char** envp) {
    (void)envp;
    if (argc >= 2 && strcmp(argv[1], "malloc-first") == 0) g_early_block = malloc(32);
    if (argc < 2 || strcmp(argv[1], "control-first") != 0) return;
    trvx_trace_dump();
    trvx_dump_alloc_stats(3);
    trvx_trace_start();
    trvx_trace_stop();
    trvx_trace_clear();
    trvx_clear_alloc_stats();
    trvx_dump_alloc_stats(0);
}
__attribute__((section(".preinit_array"), used)) static void (*const g_early)(int, char**, char**) = control_first;

static int report(bool tracked) {
    void* blocks[3];
    for (int i = 0; i < 3; ++i) {
        blocks[i] = malloc(100);
        STRESS_CHECK(blocks[i] != NULL && stress_is_tracked(blocks[i], 100) == tracked, "malloc(100): tracked is not %d",
                     tracked);
    }
    trvx_dump_alloc_stats(5);
    trvx_trace_start();
    free(malloc(10));
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_dump_alloc_stats(5);
    for (int i = 0; i < 3; ++i) free(blocks[i]);
    fputs("ok\n", stderr);
    return 0;
}

int main(int argc, char** argv) {
    STRESS_CHECK(argc >= 2, "usage: stress_hostile MODE");
    const char* mode = argv[1];
    if (strcmp(mode, "control-first") == 0 || strcmp(mode, "malloc-first") == 0) {
        /* Whether the process is tracked after the early calls, and the
         * early block (if any) is released like any other. */
        void* p = malloc(10);
        puts(stress_is_tracked(p, 10) ? "tracked" : "untracked");
        free(p);
        free(g_early_block);
        puts("ok");
        return 0;
    }
    if (strcmp(mode, "report") == 0 && argc == 3) return report(strcmp(argv[2], "tracked") == 0);
    stress_fail("unknown mode %s", mode);
}
