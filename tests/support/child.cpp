#include "child.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace child {

const char k_free[] = "void free(void*)";
const char k_realloc[] = "void* realloc(void*, size_t)";

bool result::exited_ok() const {
    return !start_failed && !timed_out && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool result::killed_by(int signal) const {
    return !start_failed && !timed_out && WIFSIGNALED(status) && WTERMSIG(status) == signal;
}

std::string result::describe() const {
    std::ostringstream s;
    if (start_failed)
        s << "could not start";
    else if (timed_out)
        s << "timed out (killed)";
    else if (WIFEXITED(status))
        s << "exit status " << WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        s << "signal " << WTERMSIG(status) << " (" << strsignal(WTERMSIG(status)) << ")";
    if (timed_out && !hang_report.empty()) s << "\n--- threads when it was killed ---\n" << hang_report.substr(0, 60000);
    s << "\n--- stdout (" << out.size() << " bytes) ---\n" << out.substr(0, 8000);
    s << "\n--- stderr (" << err.size() << " bytes) ---\n" << err.substr(0, 8000);
    return s.str();
}

namespace {

double now_s() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

bool dropped(const std::string& key) {
    return key.rfind("TARVEX_", 0) == 0 || key.rfind("STRESS_", 0) == 0 || key == "LD_PRELOAD" ||
           key == "GLIBC_TUNABLES" || key == "MALLOC_PERTURB_" || key == "MALLOC_CHECK_";
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> p;
    for (std::string& s : strings) p.push_back(&s[0]);
    p.push_back(nullptr);
    return p;
}

// An unlinked regular file, for standard input or output.
int anonymous_file() {
    const char* dir = getenv("TMPDIR");
    std::string path = std::string(dir && *dir ? dir : "/tmp") + "/tarvex-child-XXXXXX";
    int fd = mkostemp(&path[0], O_CLOEXEC);
    if (fd >= 0) unlink(path.c_str());
    return fd;
}

// The state and kernel wait channel of every thread of pid, and its call
// stacks from gdb when gdb can attach, so that a hang can be told apart
// from a slow run and its locks seen.
std::string describe_hang(pid_t pid) {
    std::string report;
    // The child and up to three more processes of its group (its own
    // children), each thread as "tid state wait-channel system-call".
    const std::string p = std::to_string(pid);
    std::string cmd = "for p in $( (pgrep -g " + p + " || echo " + p + ") | head -4); do "
                      "echo \"== process $p\"; "
                      "(cd /proc/$p/task && for t in *; do echo \"$t $(cut -d' ' -f3 $t/stat) $(cat $t/wchan) "
                      "$(cat $t/syscall)\"; done); "
                      "command -v gdb >/dev/null && timeout 30 gdb -p $p -batch -nx -ex 'thread apply all bt' 2>&1 "
                      "| grep -E '^(Thread|#)'; done 2>/dev/null";
    if (FILE* f = popen(cmd.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) report.append(buf, n);
        pclose(f);
    }
    return report;
}

void append_file(int fd, std::string& out) {
    char buf[65536];
    off_t off = 0;
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, off)) > 0; off += n) out.append(buf, static_cast<size_t>(n));
}

}  // namespace

result run(const std::vector<std::string>& argv_in, const options& opt) {
    result r;
    // Everything the child needs is built before fork.
    env_map env;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string kv = *e;
        size_t eq = kv.find('=');
        if (eq != std::string::npos && !dropped(kv.substr(0, eq))) env[kv.substr(0, eq)] = kv.substr(eq + 1);
    }
    if (!opt.preload.empty()) env["LD_PRELOAD"] = opt.preload;
    for (const auto& kv : opt.env) env[kv.first] = kv.second;
    for (const std::string& key : opt.unset) env.erase(key);
    std::vector<std::string> env_text, args = argv_in;
    for (const auto& kv : env) env_text.push_back(kv.first + "=" + kv.second);
    std::vector<char*> envp = pointers(env_text), argv = pointers(args);

    // Read ends stay in the parent; everything is close-on-exec, the child's
    // dup2 copies are not.
    int out_pipe[2] = {-1, -1}, err_pipe[2] = {-1, -1}, fd3_pipe[2] = {-1, -1};
    int out_file = -1, in_fd = -1;
    bool ok = !args.empty() && pipe2(err_pipe, O_CLOEXEC) == 0;
    if (ok && opt.capture_fd3) ok = pipe2(fd3_pipe, O_CLOEXEC) == 0;
    if (ok && opt.stdout_to_file) ok = (out_file = anonymous_file()) >= 0;
    else if (ok) ok = pipe2(out_pipe, O_CLOEXEC) == 0;
    if (ok && !opt.input.empty()) {
        in_fd = anonymous_file();
        ok = in_fd >= 0 && pwrite(in_fd, opt.input.data(), opt.input.size(), 0) == ssize_t(opt.input.size());
    } else if (ok) {
        ok = (in_fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;
    }

    pid_t pid = ok ? fork() : -1;
    if (pid == 0) {
        setpgid(0, 0);
        rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        // Moved above the standard range first, so that no source is
        // overwritten by an earlier dup2.
        int srcs[4] = {in_fd, opt.stdout_to_file ? out_file : out_pipe[1], err_pipe[1], fd3_pipe[1]};
        for (int& s : srcs)
            if (s >= 0) s = fcntl(s, F_DUPFD_CLOEXEC, 10);
        for (int fd = 0; fd < 4; ++fd)
            if (srcs[fd] >= 0 && dup2(srcs[fd], fd) < 0) _exit(127);
        if (srcs[3] < 0) close(3);
        execve(opt.exe.empty() ? argv[0] : opt.exe.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    for (int fd : {out_pipe[1], err_pipe[1], fd3_pipe[1], in_fd})
        if (fd >= 0) close(fd);
    if (pid < 0) {
        for (int fd : {out_pipe[0], err_pipe[0], fd3_pipe[0], out_file})
            if (fd >= 0) close(fd);
        r.start_failed = true;
        return r;
    }
    setpgid(pid, pid);

    struct stream {
        int fd;
        std::string* text;
    };
    std::vector<stream> open_streams;
    if (out_pipe[0] >= 0) open_streams.push_back({out_pipe[0], &r.out});
    open_streams.push_back({err_pipe[0], &r.err});
    if (fd3_pipe[0] >= 0) open_streams.push_back({fd3_pipe[0], &r.fd3});

    double deadline = now_s() + opt.timeout_s;
    bool ended = false;
    while (!ended || !open_streams.empty()) {
        if (!ended && waitpid(pid, &r.status, WNOHANG) == pid) {
            ended = true;
            kill(-pid, SIGKILL);  // what the child left behind
        }
        if (now_s() > deadline) {
            if (ended) break;  // a stream held open outside the group
            r.timed_out = true;
            r.hang_report = describe_hang(pid);
            kill(-pid, SIGKILL);
            waitpid(pid, &r.status, 0);
            ended = true;
            deadline = now_s() + 10;
        }
        if (open_streams.empty()) {
            usleep(2000);
            continue;
        }
        std::vector<pollfd> fds;
        for (const stream& s : open_streams) fds.push_back({s.fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), 20) <= 0) continue;
        for (size_t i = fds.size(); i-- > 0;) {
            if (fds[i].revents == 0) continue;
            char buf[65536];
            ssize_t got = read(fds[i].fd, buf, sizeof buf);
            if (got > 0) {
                open_streams[i].text->append(buf, static_cast<size_t>(got));
            } else if (got == 0 || errno != EINTR) {
                close(fds[i].fd);
                open_streams.erase(open_streams.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
    }
    for (const stream& s : open_streams) close(s.fd);
    if (out_file >= 0) {
        append_file(out_file, r.out);
        close(out_file);
    }
    return r;
}

env_map tracked_env(const std::string& target, const std::string& log, bool counting) {
    env_map env{{"TARVEX_TARGET_PROC_NAME", target}};
    if (!log.empty()) env["TARVEX_LOG_FILE_NAME"] = log;
    if (counting) env["TARVEX_TOP"] = "";
    return env;
}

temp_dir::temp_dir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/tarvex-test-XXXXXX";
    if (mkdtemp(&templ[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = templ;
}

namespace {
int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }
}  // namespace

temp_dir::~temp_dir() {
    // A program may leave a directory without write permission behind.
    chmod(m_path.c_str(), 0700);
    if (nftw(m_path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS) != 0)
        fprintf(stderr, "could not remove %s\n", m_path.c_str());
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

bool file_exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string base_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

size_t count(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size())) ++n;
    return n;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream s(text);
    for (std::string line; std::getline(s, line);) out.push_back(line);
    return out;
}

std::string assertion(const std::string& prog, unsigned line, const std::string& function) {
    return base_name(prog) + ": lib/trvx_hook:" + std::to_string(line) + ": " + function + ": Assertion `0' failed.\n";
}

}  // namespace child
