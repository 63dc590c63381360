/* Control functions under concurrency and from a signal handler. Reports go
 * to the log file; the test checks that each one is whole.
 *
 *   reports_stress pair ROUNDS      a trace dump and a top report requested
 *                                   at nearly the same moment, ROUNDS times
 *   reports_stress signal_inside R  the handler interrupts a trace dump of R
 *                                   records blocked on a full FIFO (the log
 *                                   file); the FIFO's content goes to stdout */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <tarvex.h>
#include <unistd.h>

/* A trace of pairs * 2 records (malloc and free of the same block). */
static void record_trace(int pairs) {
    trvx_trace_start();
    for (int i = 0; i < pairs; ++i) free(malloc(8 + (size_t)(i % 3)));
    trvx_trace_stop();
}

static int rounds;

/* ---------------------------------------------------------------- pair */

static pthread_barrier_t barrier;

static void* pair_side(void* arg) {
    int dumps = arg != NULL;
    for (int i = 0; i < rounds; ++i) {
        pthread_barrier_wait(&barrier);
        /* The top report starts a little later each round, so that some
         * rounds find the dump in the middle of its output. */
        if (dumps) {
            trvx_trace_dump();
        } else {
            usleep((useconds_t)(i % 8) * 100);
            trvx_dump_alloc_stats(20);
        }
    }
    return NULL;
}

static int run_pair(void) {
    void* keep[16];
    for (unsigned i = 0; i < 16; ++i) keep[i] = malloc(100 + i);
    record_trace(1500);
    pthread_barrier_init(&barrier, NULL, 2);
    pthread_t a, b;
    pthread_create(&a, NULL, pair_side, (void*)1);
    pthread_create(&b, NULL, pair_side, NULL);
    pthread_join(a, NULL);
    pthread_join(b, NULL);
    for (unsigned i = 0; i < 16; ++i) free(keep[i]);
    return 0;
}

/* ---------------------------------------------------------------- signals */

static volatile sig_atomic_t handled;
static pthread_t main_thread;
static const char* fifo_path;
static char fifo_text[8 << 20];
static size_t fifo_len;
static int reader_gave_up;

static void on_usr1(int sig) {
    (void)sig;
    int saved = errno;
    /* The interrupted thread is inside a trace dump, so inside tarvex: each
     * call must return at once without doing anything. */
    trvx_dump_alloc_stats(3);
    trvx_trace_clear();
    trvx_trace_dump();
    handled = 1;
    errno = saved;
}

static void* fifo_reader(void* arg) {
    (void)arg;
    int fd = open(fifo_path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return NULL;
    int capacity = fcntl(fd, F_GETPIPE_SZ);
    /* Wait until the dump has filled the pipe: the writer is then blocked
     * inside trvx_trace_dump, and stays there until this thread reads. */
    for (int waited = 0;; ++waited) {
        int avail = 0;
        ioctl(fd, FIONREAD, &avail);
        if (avail >= capacity / 2) break;
        if (waited > 30000) {
            reader_gave_up = 1;
            break;
        }
        usleep(1000);
    }
    pthread_kill(main_thread, SIGUSR1);
    for (int waited = 0; !handled && waited < 30000; ++waited) usleep(1000);
    /* No allocation here: a tracked one would wait for the dump to end. */
    while (fifo_len < sizeof fifo_text) {
        ssize_t n = read(fd, fifo_text + fifo_len, sizeof fifo_text - fifo_len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        fifo_len += (size_t)n;
    }
    close(fd);
    return NULL;
}

static int run_signal_inside(int records) {
    fifo_path = getenv("TARVEX_LOG_FILE_NAME");
    if (fifo_path == NULL || mkfifo(fifo_path, 0600) != 0) return 3;
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_usr1;
    sa.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &sa, NULL);
    record_trace(records / 2);
    main_thread = pthread_self();
    pthread_t reader;
    pthread_create(&reader, NULL, fifo_reader, NULL);
    trvx_trace_dump();
    pthread_join(reader, NULL);
    fwrite(fifo_text, 1, fifo_len, stdout);
    fprintf(stderr, "handled %d, reader gave up %d\n", (int)handled, reader_gave_up);
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    int n = atoi(argv[2]);
    rounds = n;
    if (strcmp(argv[1], "pair") == 0) return run_pair();
    if (strcmp(argv[1], "signal_inside") == 0) return run_signal_inside(n);
    return 2;
}
