/*
 * tarvex control interface for programs under test.
 *
 * Include this header and call the functions below to trace a stretch of one
 * thread's heap traffic, to ask for a report of the call sites that hold the
 * most live memory, and to reset the per-site counters. The references are
 * weak: a program built with this header runs unchanged without tarvex
 * preloaded, and each call then does nothing.
 *
 *   LD_PRELOAD=/path/to/libtarvex.so TARVEX_TARGET_PROC_NAME=myprog ./myprog
 */
#ifndef TARVEX_H
#define TARVEX_H

#ifdef __cplusplus
extern "C" {
#endif

/* Start recording the calling thread's allocations and releases. */
void trvx_trace_start(void) __attribute__((weak));
/* Stop recording (from any thread); the records stay. */
void trvx_trace_stop(void) __attribute__((weak));
/* Forget the records made so far. */
void trvx_trace_clear(void) __attribute__((weak));
/* Write the records with the call stack of every site they mention. */
void trvx_trace_dump(void) __attribute__((weak));
/* Write a report of the n call sites holding the most live blocks and bytes. */
void trvx_dump_alloc_stats(unsigned long n) __attribute__((weak));
/* Empty the per-site counters. */
void trvx_clear_alloc_stats(void) __attribute__((weak));

#ifdef __cplusplus
}
#endif

/* Each call goes to the library when it is loaded and does nothing otherwise.
 * The macro's own name is not expanded again inside it, so the call inside
 * reaches the function. */
#define trvx_trace_start() (trvx_trace_start ? trvx_trace_start() : (void)0)
#define trvx_trace_stop() (trvx_trace_stop ? trvx_trace_stop() : (void)0)
#define trvx_trace_clear() (trvx_trace_clear ? trvx_trace_clear() : (void)0)
#define trvx_trace_dump() (trvx_trace_dump ? trvx_trace_dump() : (void)0)
#define trvx_dump_alloc_stats(n) (trvx_dump_alloc_stats ? trvx_dump_alloc_stats(n) : (void)0)
#define trvx_clear_alloc_stats() (trvx_clear_alloc_stats ? trvx_clear_alloc_stats() : (void)0)

#endif /* TARVEX_H */
