/*
 * Helpers shared by the reliability scenarios (C and C++).
 *
 * Nothing here touches the heap: checks and messages must not add blocks of
 * their own to what a scenario measures, so failures are written to the
 * unbuffered standard error and reports are read through mmap.
 */
#ifndef STRESS_SCENARIO_UTIL_H
#define STRESS_SCENARIO_UTIL_H

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "tarvex.h"

#define STRESS_FOOTER_MAGIC 0xCAFEBABEu

/* Writes "FAIL: ..." to standard error and ends the process with status 1. */
__attribute__((format(printf, 1, 2), noreturn, unused)) static void stress_fail(const char* fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf - 1, fmt, ap);
    va_end(ap);
    if (n < 0) n = 0;
    if (n > (int)sizeof buf - 2) n = (int)sizeof buf - 2;
    buf[n++] = '\n';
    if (write(2, "FAIL: ", 6) < 0 || write(2, buf, (size_t)n) < 0) _exit(3);
    _exit(1);
}

#define STRESS_CHECK(cond, ...)                 \
    do {                                        \
        if (!(cond)) stress_fail(__VA_ARGS__);  \
    } while (0)

/* Reads an unaligned 32-bit word. */
static inline uint32_t stress_read32(const void* p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

/* True when p is a block of n bytes tracked by tarvex: the library answers
 * the requested size and the footer's first magic word lies right behind the
 * block. An untracked block of n bytes has at least n + 8 usable bytes, so
 * reading the word behind it stays inside the block. */
__attribute__((unused)) static int stress_is_tracked(void* p, size_t n) {
    if (malloc_usable_size(p) != n) return 0;
    return stress_read32((const char*)p + n) == STRESS_FOOTER_MAGIC;
}

/* Text of the last top report that trvx_dump_alloc_stats(n) appended to the
 * log file, copied into a static buffer; NULL when no report was written. */
static char g_stress_report[1 << 20];

__attribute__((unused)) static const char* stress_report(const char* log, unsigned long n) {
    struct stat st;
    off_t before = stat(log, &st) == 0 ? st.st_size : 0;
    trvx_dump_alloc_stats(n);
    int fd = open(log, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return NULL;
    if (fstat(fd, &st) != 0 || st.st_size <= before) {
        close(fd);
        return NULL;
    }
    size_t len = (size_t)(st.st_size - before);
    if (len >= sizeof g_stress_report) len = sizeof g_stress_report - 1;
    size_t got = 0;
    while (got < len) {
        ssize_t r = pread(fd, g_stress_report + got, len - got, before + (off_t)got);
        if (r <= 0) break;
        got += (size_t)r;
    }
    close(fd);
    g_stress_report[got] = '\0';
    return g_stress_report;
}

/* The byte count of the last "Mem usage" line in a report; -1 if none. */
__attribute__((unused)) static long long stress_mem_usage(const char* report) {
    const char* key = "\nMem usage: ";
    const char* last = NULL;
    for (const char* p = report; (p = strstr(p, key)) != NULL; p += 1) last = p;
    if (last == NULL) return -1;
    const char* open_paren = strchr(last + 1, '(');
    if (open_paren == NULL) return -1;
    return strtoll(open_paren + 1, NULL, 10);
}

/* Asks for a top report and returns its live byte total; stops the scenario
 * when no report was written. */
__attribute__((unused)) static long long stress_report_total(const char* log) {
    const char* r = stress_report(log, 5);
    STRESS_CHECK(r != NULL, "no top report was written to %s", log);
    long long total = stress_mem_usage(r);
    STRESS_CHECK(total >= 0, "top report without a Mem usage line:\n%s", r);
    return total;
}

/* The tables of a report (from the usage line on) with the allocation rate
 * blanked out, for comparing two reports of the same state. */
__attribute__((unused)) static void stress_report_tables(const char* report, char* out, size_t cap) {
    const char* p = strstr(report, "\nMem usage: ");
    out[0] = '\0';
    if (p == NULL || cap == 0) return;
    snprintf(out, cap, "%s", p);
    char* rate = strstr(out, "(alloc/sec: ");
    if (rate != NULL) {
        char* end = strchr(rate, ')');
        if (end != NULL) memmove(rate + 12, end, strlen(end) + 1);
    }
}

/* Waits for a child for at most timeout_s seconds; kills it on a hang.
 * Returns the wait status, or -1 when it had to be killed. */
__attribute__((unused)) static int stress_wait(pid_t pid, int timeout_s) {
    struct timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        int status;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0 && errno != EINTR) return -2;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - start.tv_sec > timeout_s) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(1000);
    }
}

#endif
