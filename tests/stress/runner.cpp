#include "runner.h"

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

extern char** environ;

namespace stress {

bool result::exited_ok() const { return !timed_out && WIFEXITED(status) && WEXITSTATUS(status) == 0; }

bool result::killed_by(int signal) const { return !timed_out && WIFSIGNALED(status) && WTERMSIG(status) == signal; }

std::string result::describe() const {
    std::ostringstream s;
    if (timed_out)
        s << "timed out";
    else if (WIFEXITED(status))
        s << "exit status " << WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        s << "signal " << WTERMSIG(status);
    s << "\n--- stdout (" << out.size() << " bytes) ---\n" << out.substr(0, 8000);
    s << "\n--- stderr (" << err.size() << " bytes) ---\n" << err.substr(0, 8000);
    return s.str();
}

std::string built(const std::string& name) { return std::string(STRESS_BIN_DIR) + "/" + name; }
std::string libtarvex() { return STRESS_LIBTARVEX; }

namespace {
double now_s() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}
}  // namespace

result run(const std::vector<std::string>& argv, const run_options& options) {
    temp_dir dir;
    std::string out_path = dir.file("stdout"), err_path = dir.file("stderr");

    env_map env;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string kv = *e;
        size_t eq = kv.find('=');
        if (eq == std::string::npos) continue;
        std::string key = kv.substr(0, eq);
        if (key.rfind("TARVEX_", 0) == 0 || key == "LD_PRELOAD" || key.rfind("STRESS_", 0) == 0) continue;
        env[key] = kv.substr(eq + 1);
    }
    env["LD_PRELOAD"] = options.preload.empty() ? libtarvex() : options.preload;
    for (const auto& kv : options.env) env[kv.first] = kv.second;
    for (const std::string& key : options.unset) env.erase(key);

    std::vector<std::string> env_strings;
    for (const auto& kv : env) env_strings.push_back(kv.first + "=" + kv.second);
    std::vector<char*> envp, args;
    for (std::string& s : env_strings) envp.push_back(&s[0]);
    envp.push_back(nullptr);
    std::vector<std::string> argv_copy = argv;
    for (std::string& s : argv_copy) args.push_back(&s[0]);
    args.push_back(nullptr);

    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        int in = open("/dev/null", O_RDONLY);
        int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0) _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    result r;
    if (pid < 0) {
        r.err = "fork failed";
        r.status = 127 << 8;
        return r;
    }
    setpgid(pid, pid);
    double deadline = now_s() + options.timeout_s;
    for (;;) {
        pid_t w = waitpid(pid, &r.status, WNOHANG);
        if (w == pid) break;
        if (now_s() > deadline) {
            r.timed_out = true;
            kill(-pid, SIGKILL);
            waitpid(pid, &r.status, 0);
            break;
        }
        usleep(2000);
    }
    // Children the scenario left behind (a forked child that hung) go too.
    kill(-pid, SIGKILL);
    r.out = read_file(out_path);
    r.err = read_file(err_path);
    return r;
}

temp_dir::temp_dir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/tarvex-stress-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    m_path = buf.data();
}

namespace {
int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }
}  // namespace

temp_dir::~temp_dir() {
    // A scenario may leave a directory without write permission behind.
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

bool file_exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

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
    return prog + ": lib/trvx_hook:" + std::to_string(line) + ": " + function + ": Assertion `0' failed.\n";
}

}  // namespace stress
