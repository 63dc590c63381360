/* Runs a list of heap and control operations given on the command line, so
 * that a test can replay the same list in a model and compare the reports.
 *
 *   reports_ops SIDE_FILE|- OP...
 *
 *   a:SLOT:SIZE:DEPTH[:COUNT]  COUNT mallocs (default 1) into SLOT.., the
 *                              call made DEPTH frames deeper: one call site
 *                              (uid) per depth
 *   f:SLOT[:COUNT]             free
 *   r:SLOT:SIZE                realloc
 *   wa:SLOT:SIZE, wf:SLOT      malloc / free made by a second thread
 *   start stop tclear dump     trvx_trace_start/stop/clear/dump
 *   report:N                   trvx_dump_alloc_stats(N)
 *   sclear                     trvx_clear_alloc_stats
 *   touch                      create the file TARVEX_CLEAR_STATS_FILE_NAME names
 *
 * Nothing here allocates between the operations, and nothing is written to
 * standard output. At the end the call stack of every heap operation, read
 * from its block's footer, goes to SIDE_FILE as "op INDEX UID N" and N symbol
 * lines ("-": the process is not tracked, nothing is read). */
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tarvex.h>
#include <unistd.h>

#include "probe.h"

enum { MAX_SLOTS = 512, MAX_OPS = 256, MAX_FIELDS = 6 };

static void* slot_ptr[MAX_SLOTS];
static size_t slot_size[MAX_SLOTS];
static struct stack_copy op_stack[MAX_OPS];
static int op_has_stack[MAX_OPS];
static int probing;

static void* alloc_at(unsigned depth, size_t size) {
    if (depth > 0) return alloc_at(depth - 1, size);
    return malloc(size);
}

static void note_alloc(int op, unsigned slot) {
    if (!probing) return;
    copy_stack(&op_stack[op], (uintptr_t)slot_ptr[slot], slot_size[slot], 0);
    op_has_stack[op] = 1;
}

static void release(int op, unsigned slot, int note) {
    uintptr_t addr = (uintptr_t)slot_ptr[slot];
    free(slot_ptr[slot]);
    slot_ptr[slot] = NULL;
    if (!note || !probing) return;
    copy_stack(&op_stack[op], addr, slot_size[slot], 1); /* the block waits in the quarantine */
    op_has_stack[op] = 1;
}

/* The second thread exists before the first operation, so that its creation
 * never shows in a trace or in the per-site counters. */
static sem_t work_sem, done_sem;
static int work_kind, work_op; /* 0 quit, 1 malloc, 2 free */
static unsigned work_slot;
static size_t work_size;

static void* worker(void* arg) {
    (void)arg;
    for (;;) {
        sem_wait(&work_sem);
        if (work_kind == 0) return NULL;
        if (work_kind == 1) {
            slot_ptr[work_slot] = malloc(work_size);
            slot_size[work_slot] = work_size;
            note_alloc(work_op, work_slot);
        } else {
            release(work_op, work_slot, 1);
        }
        sem_post(&done_sem);
    }
}

static void on_worker(int kind, int op, unsigned slot, size_t size) {
    work_kind = kind;
    work_op = op;
    work_slot = slot;
    work_size = size;
    sem_post(&work_sem);
    if (kind != 0) sem_wait(&done_sem);
}

static int fail(const char* op) {
    fprintf(stderr, "bad operation: %s\n", op);
    exit(2);
}

static void run(int op, char* text) {
    char copy[128];
    snprintf(copy, sizeof copy, "%s", text);
    char* field[MAX_FIELDS] = {0};
    unsigned long num[MAX_FIELDS] = {0};
    int nf = 0;
    for (char *save = NULL, *t = strtok_r(copy, ":", &save); t && nf < MAX_FIELDS; t = strtok_r(NULL, ":", &save)) {
        field[nf] = t;
        num[nf] = strtoul(t, NULL, 10);
        nf++;
    }
    const char* name = field[0] ? field[0] : "";
    unsigned slot = (unsigned)num[1];
    if (nf > 1 && slot >= MAX_SLOTS) fail(text);
    if (strcmp(name, "a") == 0 && nf >= 4) {
        unsigned long count = nf > 4 ? num[4] : 1;
        if (slot + count > MAX_SLOTS) fail(text);
        for (unsigned long i = 0; i < count; ++i) {
            slot_ptr[slot + i] = alloc_at((unsigned)num[3], num[2]);
            slot_size[slot + i] = num[2];
        }
        note_alloc(op, slot);
    } else if (strcmp(name, "f") == 0 && nf >= 2) {
        unsigned long count = nf > 2 ? num[2] : 1;
        if (slot + count > MAX_SLOTS) fail(text);
        for (unsigned long i = 0; i < count; ++i) release(op, slot + (unsigned)i, i == 0);
    } else if (strcmp(name, "r") == 0 && nf == 3) {
        slot_ptr[slot] = realloc(slot_ptr[slot], num[2]);
        slot_size[slot] = num[2];
        note_alloc(op, slot);
    } else if (strcmp(name, "wa") == 0 && nf == 3) {
        on_worker(1, op, slot, num[2]);
    } else if (strcmp(name, "wf") == 0 && nf == 2) {
        on_worker(2, op, slot, 0);
    } else if (strcmp(name, "start") == 0) {
        trvx_trace_start();
    } else if (strcmp(name, "stop") == 0) {
        trvx_trace_stop();
    } else if (strcmp(name, "tclear") == 0) {
        trvx_trace_clear();
    } else if (strcmp(name, "dump") == 0) {
        trvx_trace_dump();
    } else if (strcmp(name, "report") == 0 && nf == 2) {
        trvx_dump_alloc_stats(num[1]);
    } else if (strcmp(name, "sclear") == 0) {
        trvx_clear_alloc_stats();
    } else if (strcmp(name, "touch") == 0) {
        const char* path = getenv("TARVEX_CLEAR_STATS_FILE_NAME");
        int fd = path ? open(path, O_CREAT | O_WRONLY | O_CLOEXEC, 0644) : -1;
        if (fd < 0) fail(text);
        close(fd);
    } else {
        fail(text);
    }
}

int main(int argc, char** argv) {
    if (argc < 2 || argc - 2 > MAX_OPS) return 2;
    probing = strcmp(argv[1], "-") != 0;
    sem_init(&work_sem, 0, 0);
    sem_init(&done_sem, 0, 0);
    pthread_t thread;
    if (pthread_create(&thread, NULL, worker, NULL) != 0) return 3;
    for (int i = 2; i < argc; ++i) run(i - 2, argv[i]);
    on_worker(0, 0, 0, 0);
    pthread_join(thread, NULL);
    if (!probing) return 0;
    FILE* side = fopen(argv[1], "w");
    if (side == NULL) return 4;
    for (int i = 0; i < argc - 2; ++i) {
        if (!op_has_stack[i]) continue;
        char label[32];
        snprintf(label, sizeof label, "op %d", i);
        write_stack(side, label, &op_stack[i]);
    }
    return fclose(side) == 0 ? 0 : 5;
}
