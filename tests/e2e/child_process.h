// Runs a program as a child process and captures what it writes to standard
// output, standard error and (optionally) descriptor 3, with its exit status
// or the signal that ended it.
//
// Self-contained (POSIX and the C++ standard library only), header-only, for
// tests that preload a library into small programs:
//
//   child_process::options opt;
//   opt.argv = {"/path/to/prog", "scenario"};
//   opt.set_env = {{"LD_PRELOAD", "/path/to/lib.so"}};
//   child_process::result r = child_process::run(opt);
//   EXPECT_TRUE(r.signaled() && r.signal() == SIGABRT) << r.describe();
//
// The child starts from the parent's environment with the given variables
// unset and set, reads /dev/null as standard input, and never dumps core. Its
// standard output is a pipe, or a regular file when stdout_to_file is set:
// both make stdio fully buffered, which is how output gets lost when a
// process dies without flushing. A child that runs longer than
// timeout_seconds is killed with SIGKILL and reported as timed out.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace child_process {

struct options {
    std::vector<std::string> argv;  // argv[0] is the path that is executed
    std::vector<std::pair<std::string, std::string>> set_env;
    std::vector<std::string> unset_env;
    bool stdout_to_file = false;  // a regular (unlinked) file instead of a pipe
    bool capture_fd3 = false;     // a pipe on descriptor 3, captured as fd3
    unsigned timeout_seconds = 120;
};

struct result {
    std::string out, err, fd3;
    int status = 0;  // as waitpid reports it
    bool timed_out = false;
    bool start_failed = false;

    bool exited() const { return !start_failed && WIFEXITED(status); }
    int exit_code() const { return exited() ? WEXITSTATUS(status) : -1; }
    bool signaled() const { return !start_failed && WIFSIGNALED(status); }
    int signal() const { return signaled() ? WTERMSIG(status) : 0; }

    // "exit 0", "signal 6 (Aborted)", "timed out"; with the output, for
    // failure messages.
    std::string describe() const {
        std::string s;
        if (start_failed)
            s = "could not start";
        else if (timed_out)
            s = "timed out";
        else if (exited())
            s = "exit " + std::to_string(exit_code());
        else if (signaled())
            s = "signal " + std::to_string(signal()) + " (" + strsignal(signal()) + ")";
        return s + "\n--- stdout ---\n" + out + "--- stderr ---\n" + err;
    }
};

namespace detail {

inline double now_seconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

inline bool name_matches(const char* entry, const std::string& name) {
    return strncmp(entry, name.c_str(), name.size()) == 0 && entry[name.size()] == '=';
}

inline std::vector<std::string> child_environment(const options& opt) {
    std::vector<std::string> env;
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        bool drop = false;
        for (const std::string& name : opt.unset_env) drop = drop || name_matches(*e, name);
        for (const auto& kv : opt.set_env) drop = drop || name_matches(*e, kv.first);
        if (!drop) env.emplace_back(*e);
    }
    for (const auto& kv : opt.set_env) env.push_back(kv.first + "=" + kv.second);
    return env;
}

inline std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> p;
    for (std::string& s : strings) p.push_back(&s[0]);
    p.push_back(nullptr);
    return p;
}

// Places src on descriptor target in the child (between fork and exec: only
// async-signal-safe calls). src is first moved above the standard range so
// that no source is overwritten by an earlier dup2.
inline void place(int src, int target) {
    if (src < 0) return;
    if (dup2(src, target) < 0) _exit(127);
}

inline void read_file(int fd, std::string& out) {
    char buf[65536];
    off_t off = 0;
    for (;;) {
        ssize_t n = pread(fd, buf, sizeof buf, off);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
        off += n;
    }
}

}  // namespace detail

inline result run(const options& opt) {
    result r;
    if (opt.argv.empty()) {
        r.start_failed = true;
        return r;
    }
    std::vector<std::string> args = opt.argv;
    std::vector<std::string> env = detail::child_environment(opt);
    std::vector<char*> argv = detail::pointers(args);
    std::vector<char*> envp = detail::pointers(env);

    // Read ends stay in the parent; write ends (and the output file) go to
    // the child. Everything is close-on-exec; the child's dup2 copies are not.
    int out_pipe[2] = {-1, -1}, err_pipe[2] = {-1, -1}, side_pipe[2] = {-1, -1};
    int out_file = -1;
    bool ok = pipe2(err_pipe, O_CLOEXEC) == 0;
    if (ok && opt.capture_fd3) ok = pipe2(side_pipe, O_CLOEXEC) == 0;
    if (ok && opt.stdout_to_file) {
        const char* dir = getenv("TMPDIR");
        std::string path = std::string(dir && *dir ? dir : "/tmp") + "/child_stdout_XXXXXX";
        out_file = mkostemp(&path[0], O_CLOEXEC);
        ok = out_file >= 0;
        if (ok) unlink(path.c_str());
    } else if (ok) {
        ok = pipe2(out_pipe, O_CLOEXEC) == 0;
    }
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ok = ok && null_fd >= 0;

    pid_t pid = ok ? fork() : -1;
    if (pid == 0) {
        rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        int srcs[4] = {null_fd, opt.stdout_to_file ? out_file : out_pipe[1], err_pipe[1], side_pipe[1]};
        for (int& s : srcs)
            if (s >= 0) s = fcntl(s, F_DUPFD_CLOEXEC, 10);
        for (int fd = 0; fd < 4; ++fd) detail::place(srcs[fd], fd);
        if (srcs[3] < 0) close(3);
        execve(argv[0], argv.data(), envp.data());
        const char msg[] = "child_process: execve failed\n";
        ssize_t ignored = write(2, msg, sizeof msg - 1);
        (void)ignored;
        _exit(127);
    }

    for (int fd : {out_pipe[1], err_pipe[1], side_pipe[1], null_fd})
        if (fd >= 0) close(fd);
    if (pid < 0) {
        for (int fd : {out_pipe[0], err_pipe[0], side_pipe[0], out_file})
            if (fd >= 0) close(fd);
        r.start_failed = true;
        return r;
    }

    struct stream {
        int fd;
        std::string* text;
    };
    std::vector<stream> open_streams;
    if (out_pipe[0] >= 0) open_streams.push_back({out_pipe[0], &r.out});
    open_streams.push_back({err_pipe[0], &r.err});
    if (side_pipe[0] >= 0) open_streams.push_back({side_pipe[0], &r.fd3});

    double deadline = detail::now_seconds() + opt.timeout_seconds;
    while (!open_streams.empty()) {
        std::vector<pollfd> fds;
        for (const stream& s : open_streams) fds.push_back({s.fd, POLLIN, 0});
        double left = deadline - detail::now_seconds();
        int n = r.timed_out ? poll(fds.data(), fds.size(), -1)
                            : poll(fds.data(), fds.size(), left > 0 ? static_cast<int>(left * 1000) + 1 : 0);
        if (n < 0) continue;  // EINTR
        if (n == 0) {
            r.timed_out = true;
            kill(pid, SIGKILL);
            continue;
        }
        for (size_t i = fds.size(); i-- > 0;) {
            if (fds[i].revents == 0) continue;
            char buf[65536];
            ssize_t got = read(fds[i].fd, buf, sizeof buf);
            if (got > 0) {
                open_streams[i].text->append(buf, static_cast<size_t>(got));
            } else {
                close(fds[i].fd);
                open_streams.erase(open_streams.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
    }
    while (waitpid(pid, &r.status, 0) < 0 && errno == EINTR) {
    }
    if (out_file >= 0) {
        detail::read_file(out_file, r.out);
        close(out_file);
    }
    return r;
}

}  // namespace child_process
