// fork, vfork, posix_spawn, system() and exec from a tracked, multithreaded
// process.
//
//   stress_fork fork N     forks N times while allocator and reporter threads
//                          keep entering the library; every child allocates,
//                          resizes, releases, reports and traces at once and
//                          exits 0; every few forks the spawn family runs too
//
// Expects TARVEX_TARGET_PROC_NAME=stress_fork, TARVEX_TOP and
// TARVEX_LOG_FILE_NAME to be set, and stress_probe next to this program.
#include <pthread.h>
#include <sched.h>
#include <spawn.h>

#include <atomic>

#include "scenario_util.h"

extern char** environ;

namespace {

char g_probe[4096];
const char* g_log;
std::atomic<bool> g_stop{false};

void find_programs() {
    ssize_t n = readlink("/proc/self/exe", g_probe, sizeof g_probe - 1);
    STRESS_CHECK(n > 0, "readlink /proc/self/exe failed");
    g_probe[n] = '\0';
    char* slash = strrchr(g_probe, '/');
    STRESS_CHECK(slash != nullptr, "no directory in %s", g_probe);
    snprintf(slash + 1, sizeof g_probe - static_cast<size_t>(slash + 1 - g_probe), "stress_probe");
}

uint32_t next_random(uint32_t& s) {
    s ^= s << 13;
    s ^= s >> 17;
    s ^= s << 5;
    return s;
}

// Keeps 64 blocks of its own, allocating, resizing and releasing at random.
void* allocator_thread(void* arg) {
    uint32_t seed = 0x9E3779B9u ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
    void* slots[64] = {};
    while (!g_stop.load(std::memory_order_relaxed)) {
        uint32_t r = next_random(seed);
        void*& slot = slots[r % 64];
        size_t size = 1 + (r >> 8) % 2048;
        if (slot == nullptr) {
            switch ((r >> 20) % 3) {
                case 0: slot = malloc(size); break;
                case 1: slot = calloc(1, size); break;
                default:
                    if (posix_memalign(&slot, 64, size) != 0) slot = nullptr;
                    break;
            }
            STRESS_CHECK(slot != nullptr, "allocation of %zu bytes failed", size);
        } else if ((r >> 20) % 2 == 0) {
            void* q = realloc(slot, size);
            STRESS_CHECK(q != nullptr, "realloc to %zu bytes failed", size);
            slot = q;
        } else {
            free(slot);
            slot = nullptr;
        }
    }
    for (void* p : slots) free(p);
    return nullptr;
}

// Writes top reports and trace dumps in a loop; the other one only top
// reports, so that requests also meet a report in progress.
void* reporter_thread(void* arg) {
    bool traces = arg != nullptr;
    unsigned k = 0;
    while (!g_stop.load(std::memory_order_relaxed)) {
        trvx_dump_alloc_stats(5);
        if (traces) {
            trvx_trace_start();
            free(malloc(32));
            trvx_trace_stop();
            trvx_trace_dump();
            trvx_trace_clear();
            if (++k % 8 == 0) trvx_clear_alloc_stats();
        }
        usleep(1000);
    }
    return nullptr;
}

// Three blocks of this size outweigh any site of the allocator threads
// (at most 4 x 64 blocks of up to 2048 bytes).
const size_t k_marker_size = 300007;

bool log_has_marker(off_t from) {
    int fd = open(g_log, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    bool found = false;
    if (fstat(fd, &st) == 0 && st.st_size > from) {
        size_t len = static_cast<size_t>(st.st_size - from);
        void* map = mmap(nullptr, len + static_cast<size_t>(from), PROT_READ, MAP_PRIVATE, fd, 0);
        if (map != MAP_FAILED) {
            const char* text = static_cast<const char*>(map) + from;
            static const char marker[] = "size: 900021, count: 3\n";
            found = memmem(text, len, marker, sizeof marker - 1) != nullptr;
            munmap(map, len + static_cast<size_t>(from));
        }
    }
    close(fd);
    return found;
}

// What a child of the forking loop does at once: its blocks are tracked, it
// can release what the parent allocated, and its reports are written (a
// report that the parent was writing at the moment of the fork does not
// block it).
void child_work(void* inherited) {
    void* p = malloc(100);
    STRESS_CHECK(p != nullptr && stress_is_tracked(p, 100), "child: malloc(100) is not tracked");
    void* q = realloc(p, 300);
    STRESS_CHECK(q != nullptr && stress_is_tracked(q, 300), "child: realloc to 300 is not tracked");
    free(q);
    STRESS_CHECK(stress_is_tracked(inherited, 64), "child: the parent's block is not tracked");
    free(inherited);

    void* marker[3];
    for (void*& m : marker) m = malloc(k_marker_size);
    bool reported = false;
    // The parent's report written at the moment of the fork may still land
    // in the log around ours; one of a few attempts sees our rows whole.
    for (int attempt = 0; attempt < 3 && !reported; ++attempt) {
        struct stat st;
        off_t before = stat(g_log, &st) == 0 ? st.st_size : 0;
        trvx_dump_alloc_stats(5);
        reported = log_has_marker(before);
    }
    STRESS_CHECK(reported, "child: its top report was not written");
    // The marker blocks stay: releasing 900 KB would drain the inherited
    // quarantine, a copy-on-write fault for every page of it.

    trvx_trace_start();
    void* t = calloc(2, 50);
    STRESS_CHECK(t != nullptr && stress_is_tracked(t, 100), "child: calloc(2, 50) is not tracked");
    free(t);
    trvx_trace_stop();
    trvx_trace_dump();
    trvx_trace_clear();
}

void expect_exit0(int status, const char* what) {
    STRESS_CHECK(status >= 0, "%s: hung (killed after the time limit)", what);
    STRESS_CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, "%s: wait status 0x%x", what, status);
}

char* const* probe_argv(const char* want) {
    static char* argv[3];
    argv[0] = g_probe;
    argv[1] = const_cast<char*>(want);
    argv[2] = nullptr;
    return argv;
}

// An environment equal to ours except for TARVEX_TARGET_PROC_NAME, kept in
// static storage (no heap).
char* const* env_with_target(const char* target) {
    static char* env[512];
    static char setting[256];
    snprintf(setting, sizeof setting, "TARVEX_TARGET_PROC_NAME=%s", target);
    int n = 0;
    for (char** e = environ; *e != nullptr && n < 510; ++e)
        if (strncmp(*e, "TARVEX_TARGET_PROC_NAME=", 24) != 0) env[n++] = *e;
    env[n++] = setting;
    env[n] = nullptr;
    return env;
}

// Each new program image decides afresh whether it is the target: by its
// own name and its own environment.
void spawn_checks() {
    pid_t pid = vfork();
    if (pid == 0) {
        execve(g_probe, probe_argv("untracked"), environ);
        _exit(127);
    }
    STRESS_CHECK(pid > 0, "vfork failed");
    expect_exit0(stress_wait(pid, 60), "vfork+exec of stress_probe");

    STRESS_CHECK(posix_spawn(&pid, g_probe, nullptr, nullptr, probe_argv("untracked"), environ) == 0,
                 "posix_spawn failed");
    expect_exit0(stress_wait(pid, 60), "posix_spawn of stress_probe");

    pid = fork();
    if (pid == 0) {
        execve(g_probe, probe_argv("tracked"), env_with_target("stress_probe"));
        _exit(127);
    }
    expect_exit0(stress_wait(pid, 60), "fork+exec of stress_probe named as the target");

    static char command[8300];
    snprintf(command, sizeof command, "'%s' untracked", g_probe);
    expect_exit0(system(command), "system() of stress_probe");
}

int fork_loop(int iterations) {
    g_log = getenv("TARVEX_LOG_FILE_NAME");
    STRESS_CHECK(g_log != nullptr, "TARVEX_LOG_FILE_NAME is not set");
    pthread_t threads[6];
    for (int i = 0; i < 4; ++i)
        pthread_create(&threads[i], nullptr, allocator_thread, reinterpret_cast<void*>(static_cast<uintptr_t>(i + 1)));
    pthread_create(&threads[4], nullptr, reporter_thread, reinterpret_cast<void*>(1));
    pthread_create(&threads[5], nullptr, reporter_thread, nullptr);

    for (int i = 0; i < iterations; ++i) {
        void* inherited = malloc(64);
        STRESS_CHECK(inherited != nullptr, "malloc(64) failed");
        pid_t pid = fork();
        STRESS_CHECK(pid >= 0, "fork failed");
        if (pid == 0) {
            child_work(inherited);
            if (i % 2 == 0) _exit(0);
            exit(0);
        }
        free(inherited);
        int status = stress_wait(pid, 60);
        STRESS_CHECK(status >= 0, "fork %d: the child hung", i);
        STRESS_CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, "fork %d: child wait status 0x%x", i, status);
        if (i % 25 == 0) spawn_checks();
    }

    g_stop = true;
    for (pthread_t t : threads) pthread_join(t, nullptr);
    // The parent goes on: its blocks are still tracked after all the forks.
    void* p = malloc(77);
    STRESS_CHECK(stress_is_tracked(p, 77), "parent: malloc(77) is not tracked after the forks");
    free(p);
    spawn_checks();
    puts("fork: ok");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    find_programs();
    if (argc == 3 && strcmp(argv[1], "fork") == 0) return fork_loop(atoi(argv[2]));
    stress_fail("usage: stress_fork fork N");
}
