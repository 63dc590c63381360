/*
 * Helpers of the scenario programs (C and C++). Nothing here touches the
 * heap, so that checks add no blocks to what a scenario measures: failures
 * go to the unbuffered standard error, reports are read into a static
 * buffer.
 */
#ifndef STRESS_SCENARIO_UTIL_H
#define STRESS_SCENARIO_UTIL_H

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tarvex.h"

/* Writes "FAIL: ..." on standard error and ends the process with status 1. */
#define CHECK(cond, ...)                                 \
    do {                                                 \
        if (!(cond)) {                                   \
            fprintf(stderr, "FAIL: " __VA_ARGS__);       \
            fputc('\n', stderr);                         \
            _exit(1);                                    \
        }                                                \
    } while (0)

static inline uint32_t next_random(uint32_t* s) {
    *s ^= *s << 13;
    *s ^= *s >> 17;
    *s ^= *s << 5;
    return *s;
}

/* True when p is a block of n bytes tracked by tarvex: the library answers
 * the requested size and the footer's first magic word lies right behind
 * it. An untracked block of n bytes has at least n + 8 usable bytes, so the
 * read stays inside it. */
static inline int is_tracked(void* p, size_t n) {
    uint32_t magic;
    if (p == NULL || malloc_usable_size(p) != n) return 0;
    memcpy(&magic, (char*)p + n, sizeof magic);
    return magic == 0xCAFEBABEu;
}

static inline void wait_ok(pid_t pid, const char* what) {
    int status = 0;
    CHECK(pid > 0 && waitpid(pid, &status, 0) == pid, "%s: no child to wait for", what);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, "%s: wait status %#x", what, status);
}

/* Asks for a top report and returns what it appended to the log. */
static char g_report[1 << 20];
__attribute__((unused)) static const char* report(const char* log) {
    struct stat st;
    off_t before = stat(log, &st) == 0 ? st.st_size : 0;
    trvx_dump_alloc_stats(5);
    int fd = open(log, O_RDONLY | O_CLOEXEC);
    ssize_t n = fd < 0 ? -1 : pread(fd, g_report, sizeof g_report - 1, before);
    if (fd >= 0) close(fd);
    g_report[n > 0 ? n : 0] = '\0';
    return g_report;
}

/* Asks for a top report and returns its live byte total. With a buffer,
 * also the report from its usage line on without the allocation rate: equal
 * for two reports of the same state. */
__attribute__((unused)) static long long report_total(const char* log, char* tables, size_t cap) {
    const char* usage = strstr(report(log), "\nMem usage: ");
    CHECK(usage != NULL, "no top report reached %s", log);
    if (tables != NULL) {
        snprintf(tables, cap, "%s", usage);
        char* rate = strstr(tables, "(alloc/sec: ");
        if (rate != NULL) memmove(rate, strchr(rate, ')') + 1, strlen(strchr(rate, ')')));
    }
    return strtoll(strchr(usage + 1, '(') + 1, NULL, 10);
}

#endif
