/* Runs a list of heap and control operations given on the command line, so
 * that a test can compare the reports with the text those operations must
 * give.
 *
 *   reports_ops OP...
 *
 *   a:SLOT:SIZE[:COUNT]     COUNT mallocs (default 1) into SLOT..
 *   f:SLOT[:COUNT]          free
 *   r:SLOT:SIZE             realloc
 *   wa:SLOT:SIZE, wf:SLOT   malloc / free made by a second thread
 *   start stop tclear dump  trvx_trace_start/stop/clear/dump
 *   report:N                trvx_dump_alloc_stats(N)
 *   sclear                  trvx_clear_alloc_stats
 *   touch                   create the file TARVEX_CLEAR_STATS_FILE_NAME names
 *
 * Nothing here allocates between the operations, and nothing is written to
 * standard output. */
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tarvex.h>
#include <unistd.h>

enum { MAX_SLOTS = 512 };

static void* slot_ptr[MAX_SLOTS];

/* The second thread exists before the first operation, so that its creation
 * never shows in a trace or in the counters. */
static sem_t work_sem, done_sem;
static int work_kind; /* 0 quit, 1 malloc, 2 free */
static unsigned long work_slot, work_size;

static void* worker(void* arg) {
    (void)arg;
    for (;;) {
        sem_wait(&work_sem);
        if (work_kind == 0) return NULL;
        if (work_kind == 1)
            slot_ptr[work_slot] = malloc(work_size);
        else
            free(slot_ptr[work_slot]);
        sem_post(&done_sem);
    }
}

static void on_worker(int kind, unsigned long slot, unsigned long size) {
    work_kind = kind;
    work_slot = slot;
    work_size = size;
    sem_post(&work_sem);
    if (kind != 0) sem_wait(&done_sem);
}

static void run(const char* text) {
    char name[16] = "";
    unsigned long n[3] = {0, 0, 1};
    int nf = sscanf(text, "%15[a-z]:%lu:%lu:%lu", name, &n[0], &n[1], &n[2]);
    unsigned long count = strcmp(name, "a") == 0 ? n[2] : strcmp(name, "f") == 0 && nf == 3 ? n[1] : 1;
    if (nf > 1 && n[0] + count > MAX_SLOTS) nf = 0;
    if (strcmp(name, "a") == 0 && nf >= 3) {
        for (unsigned long i = 0; i < count; ++i) slot_ptr[n[0] + i] = malloc(n[1]);
    } else if (strcmp(name, "f") == 0 && nf >= 2) {
        for (unsigned long i = 0; i < count; ++i) free(slot_ptr[n[0] + i]);
    } else if (strcmp(name, "r") == 0 && nf == 3) {
        slot_ptr[n[0]] = realloc(slot_ptr[n[0]], n[1]);
    } else if (strcmp(name, "wa") == 0 && nf == 3) {
        on_worker(1, n[0], n[1]);
    } else if (strcmp(name, "wf") == 0 && nf == 2) {
        on_worker(2, n[0], 0);
    } else if (strcmp(name, "start") == 0) {
        trvx_trace_start();
    } else if (strcmp(name, "stop") == 0) {
        trvx_trace_stop();
    } else if (strcmp(name, "tclear") == 0) {
        trvx_trace_clear();
    } else if (strcmp(name, "dump") == 0) {
        trvx_trace_dump();
    } else if (strcmp(name, "report") == 0 && nf == 2) {
        trvx_dump_alloc_stats(n[0]);
    } else if (strcmp(name, "sclear") == 0) {
        trvx_clear_alloc_stats();
    } else if (strcmp(name, "touch") == 0 && getenv("TARVEX_CLEAR_STATS_FILE_NAME") != NULL) {
        close(open(getenv("TARVEX_CLEAR_STATS_FILE_NAME"), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    } else {
        fprintf(stderr, "bad operation: %s\n", text);
        exit(2);
    }
}

int main(int argc, char** argv) {
    sem_init(&work_sem, 0, 0);
    sem_init(&done_sem, 0, 0);
    pthread_t thread;
    if (pthread_create(&thread, NULL, worker, NULL) != 0) return 3;
    for (int i = 1; i < argc; ++i) run(argv[i]);
    on_worker(0, 0, 0);
    pthread_join(thread, NULL);
    return 0;
}
