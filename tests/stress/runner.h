// Runs a scenario program as a child process with libtarvex.so preloaded and
// collects its exit status, standard output and standard error.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace stress {

struct result {
    int status = 0;          // wait status
    bool timed_out = false;  // killed after the time limit
    std::string out;
    std::string err;

    bool exited_ok() const;             // exit status 0
    bool killed_by(int signal) const;   // ended by that signal
    std::string describe() const;       // status and both streams, for failure messages
};

using env_map = std::map<std::string, std::string>;

struct run_options {
    env_map env;                 // added to the inherited environment (TARVEX_* and LD_PRELOAD are dropped from it)
    std::vector<std::string> unset;  // removed from the result
    int timeout_s = 120;
    std::string preload;         // empty: libtarvex.so alone
};

// Full path of a program or library built next to the tests.
std::string built(const std::string& name);
std::string libtarvex();

// Runs argv[0] (a path) with argv; the whole process group is killed when the
// time limit passes, so a hang fails the test instead of blocking it.
result run(const std::vector<std::string>& argv, const run_options& options);

// A fresh directory under the temporary directory, removed with its content
// when the object goes.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::string read_file(const std::string& path);
bool file_exists(const std::string& path);

// Number of non-overlapping occurrences of needle in text.
size_t count(const std::string& text, const std::string& needle);
std::vector<std::string> lines(const std::string& text);

// The assertion line that the C library writes for a fault of the program
// named prog at a line of lib/trvx_hook.
std::string assertion(const std::string& prog, unsigned line, const std::string& function);

}  // namespace stress
