/* Reads the call stack that tarvex keeps in the footer of a tracked block,
 * so that a test can compute the symbol lines a report must show for it.
 *
 * Footer layout behind the user bytes: magic (u32) at 0, 32 return
 * addresses (u64) at 8, all-ones past the stack's end, alloc uid (u32) at
 * 264, free uid (u32) at 268. After a release the frames are those of the
 * releasing stack. copy_stack() allocates nothing, so it can run inside a
 * trace; write_stack() symbolises later. */
#ifndef REPORTS_PROBE_H
#define REPORTS_PROBE_H

#include <execinfo.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { PROBE_FRAMES = 32 };

struct stack_copy {
    int tracked;
    uint32_t uid;
    int n; /* frames before the all-ones end mark; PROBE_FRAMES: no end mark */
    void* frames[PROBE_FRAMES];
};

/* which: 0 reads the alloc uid, 1 the free uid. */
static void copy_stack(struct stack_copy* s, uintptr_t block, size_t size, int which) {
    const unsigned char* f = (const unsigned char*)block + size;
    uint32_t magic;
    memcpy(&magic, f, sizeof magic);
    s->tracked = magic == 0xCAFEBABEu;
    memcpy(&s->uid, f + (which ? 268 : 264), sizeof s->uid);
    s->n = 0;
    for (int i = 0; i < PROBE_FRAMES; ++i) {
        uint64_t v;
        memcpy(&v, f + 8 + 8 * i, sizeof v);
        if (v == UINT64_MAX) break;
        s->frames[i] = (void*)(uintptr_t)v;
        s->n++;
    }
}

/* "<label> <uid> <n>" and n symbol lines; n is -1 when the stack filled the
 * footer (it may have been cut), "<label> untracked" without a magic. */
static void write_stack(FILE* side, const char* label, const struct stack_copy* s) {
    if (!s->tracked) {
        fprintf(side, "%s untracked\n", label);
        return;
    }
    if (s->n >= PROBE_FRAMES) {
        fprintf(side, "%s %08x -1\n", label, s->uid);
        return;
    }
    fprintf(side, "%s %08x %d\n", label, s->uid, s->n);
    if (s->n == 0) return;
    char** lines = backtrace_symbols(s->frames, s->n);
    for (int i = 0; lines != NULL && i < s->n; ++i) fprintf(side, "%s\n", lines[i]);
    free(lines);
}

#endif
