/*
 * Helpers shared by the end-to-end test programs (C and C++).
 *
 * Output goes through write(2) after formatting into a stack buffer, so that
 * reporting a fact never allocates and never creates a stdio buffer: the
 * heap traffic of a scenario is exactly what the scenario does. Facts go to
 * standard output; the material from which the test builds an expected
 * fault report goes to descriptor 3 (the side channel) as records
 *
 *   @key
 *   line
 *   ...
 *
 * The footer that tarvex writes behind each tracked block is read at its byte
 * offsets: magic at 0 and 272, 32 frames from 8 (all-ones past the stack's
 * end), alloc uid at 264, free uid at 268.
 */
#ifndef TVX_E2E_PROBE_H
#define TVX_E2E_PROBE_H

#ifndef _GNU_SOURCE
#define _GNU_SOURCE /* program_invocation_short_name, valloc, pvalloc */
#endif

#include <errno.h>
#include <execinfo.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define OUT_FD 1
#define SIDE_FD 3
#define FOOTER_SIZE 280
#define FOOTER_FRAMES 32

/* Hides a pointer's origin from the optimiser, so that allocation pairs are
 * never elided and reads of released memory are not reasoned about. */
static inline void* launder(void* p) {
    __asm__ volatile("" : "+r"(p) : : "memory");
    return p;
}

static inline void write_all(int fd, const char* p, size_t n) {
    int saved = errno;
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            break;
        }
        p += w;
        n -= (size_t)w;
    }
    errno = saved;
}

static inline void emit(int fd, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
static inline void emit(int fd, const char* fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n > 0) write_all(fd, buf, (size_t)n < sizeof buf ? (size_t)n : sizeof buf - 1);
}

typedef struct {
    unsigned char magic1[4], magic2[4];
    uint32_t alloc_uid, free_uid;
    int nframes; /* entries before the first all-ones entry */
    int fill_ok; /* every entry from nframes on is all-ones */
    void* frames[FOOTER_FRAMES];
} footer_view;

static inline footer_view read_footer(const void* block, size_t size) {
    const unsigned char* f = (const unsigned char*)block + size;
    footer_view v;
    memcpy(v.magic1, f, 4);
    memcpy(v.magic2, f + 272, 4);
    memcpy(&v.alloc_uid, f + 264, 4);
    memcpy(&v.free_uid, f + 268, 4);
    v.nframes = 0;
    v.fill_ok = 1;
    int past_end = 0;
    for (int i = 0; i < FOOTER_FRAMES; ++i) {
        uint64_t x;
        memcpy(&x, f + 8 + 8 * i, 8);
        if (x == UINT64_MAX)
            past_end = 1;
        else if (past_end)
            v.fill_ok = 0;
        else
            v.frames[v.nframes++] = (void*)(uintptr_t)x;
    }
    return v;
}

/* "0" for no uid, "set" otherwise. (That a uid is its stack's is the unit
 * tests' part.) */
static inline const char* uid_state(uint32_t uid) { return uid == 0 ? "0" : "set"; }

/* Function name of a frame as backtrace_symbols shows it, e.g. "malloc" in
 * ".../libtarvex.so(malloc+0x14f) [0x...]"; "?" when it has none. */
static inline void frame_function(void* frame, char* out, size_t n) {
    char** s = backtrace_symbols(&frame, 1);
    snprintf(out, n, "?");
    if (s == NULL) return;
    const char* open = strchr(s[0], '(');
    const char* plus = open ? strchr(open, '+') : NULL;
    if (open && plus && plus > open + 1) snprintf(out, n, "%.*s", (int)(plus - open - 1), open + 1);
    free(s);
}

/* Base name of the object a frame lies in; "self" for the program. */
static inline void frame_object(void* frame, char* out, size_t n) {
    char** s = backtrace_symbols(&frame, 1);
    snprintf(out, n, "?");
    if (s == NULL) return;
    const char* end = strchr(s[0], '(');
    if (end == NULL) end = s[0] + strlen(s[0]);
    const char* start = end;
    while (start > s[0] && start[-1] != '/') --start;
    int len = (int)(end - start);
    if ((size_t)len == strlen(program_invocation_short_name) &&
        strncmp(start, program_invocation_short_name, (size_t)len) == 0)
        snprintf(out, n, "self");
    else
        snprintf(out, n, "%.*s", len, start);
    free(s);
}

/* One line describing a block's footer:
 *   <label>: m1=bebafeca m2=bebafeca alloc=set free=0 frames=ok top=malloc caller=self
 * alloc/free: whether each uid is set;
 * frames=ok: between 3 and 31 frames followed by all-ones entries;
 * top: function of frame 1 (the interposed function that captured the
 * stack); caller: object of frame 2. */
static inline void emit_footer(const char* label, const void* block, size_t size) {
    footer_view v = read_footer(block, size);
    char top[64], caller[64], frames[32];
    frame_function(v.nframes > 1 ? v.frames[1] : NULL, top, sizeof top);
    frame_object(v.nframes > 2 ? v.frames[2] : NULL, caller, sizeof caller);
    if (v.fill_ok && v.nframes >= 3 && v.nframes < FOOTER_FRAMES)
        snprintf(frames, sizeof frames, "ok");
    else
        snprintf(frames, sizeof frames, "n%d,fill%d", v.nframes, v.fill_ok);
    emit(OUT_FD, "%s: m1=%02x%02x%02x%02x m2=%02x%02x%02x%02x alloc=%s free=%s frames=%s top=%s caller=%s\n", label,
         v.magic1[0], v.magic1[1], v.magic1[2], v.magic1[3], v.magic2[0], v.magic2[1], v.magic2[2], v.magic2[3],
         uid_state(v.alloc_uid), uid_state(v.free_uid), frames, top, caller);
}

/* True when the footer's magic words stand right behind size bytes. */
static inline int has_footer(const void* block, size_t size) {
    static const unsigned char magic[4] = {0xBE, 0xBA, 0xFE, 0xCA};
    const unsigned char* f = (const unsigned char*)block + size;
    return memcmp(f, magic, 4) == 0 && memcmp(f + 272, magic, 4) == 0;
}

/* Side channel: a record with one value. */
static inline void side_value(const char* key, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
static inline void side_value(const char* key, const char* fmt, ...) {
    char buf[512];
    int n = snprintf(buf, sizeof buf, "@%s\n", key);
    va_list ap;
    va_start(ap, fmt);
    n += vsnprintf(buf + n, sizeof buf - (size_t)n - 1, fmt, ap);
    va_end(ap);
    buf[n++] = '\n';
    write_all(SIDE_FD, buf, (size_t)n);
}

/* Side channel: the symbol lines of the frames stored in a block's footer,
 * as one record written with one write (threads may emit concurrently). */
static inline void side_stack(const char* key, const void* block, size_t size) {
    footer_view v = read_footer(block, size);
    char buf[8192];
    size_t n = (size_t)snprintf(buf, sizeof buf, "@%s\n", key);
    char** s = backtrace_symbols(v.frames, v.nframes);
    for (int i = 0; s != NULL && i < v.nframes && n < sizeof buf; ++i)
        n += (size_t)snprintf(buf + n, sizeof buf - n, "%s\n", s[i]);
    free(s);
    write_all(SIDE_FD, buf, n < sizeof buf ? n : sizeof buf);
}

#endif
