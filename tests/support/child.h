// Test support shared by the groups that run programs as child processes
// (e2e, reports, stress): starting a program with environment settings and
// capturing what it writes and how it ended, temporary directories, and
// small text and file helpers.
//
//   child::options o;
//   o.preload = TARVEX_LIB;
//   o.env = child::tracked_env("prog", dir / "log");
//   child::result r = child::run({"/path/to/prog", "scenario"}, o);
//   EXPECT_TRUE(r.killed_by(SIGABRT)) << r.describe();
#pragma once

#include <map>
#include <string>
#include <vector>

namespace child {

using env_map = std::map<std::string, std::string>;

// The child starts from the test's environment without its TARVEX_*,
// LD_PRELOAD, STRESS_* and the C library's malloc tuning variables, so that
// only what a test sets reaches the program. It reads input (or /dev/null)
// as standard input and never dumps core. Standard output is a pipe, or a
// regular file with stdout_to_file: both make stdio fully buffered, which is
// how output gets lost when a process dies without flushing.
struct options {
    std::string exe;                 // the file executed; empty: argv[0]
    env_map env;                     // set in the child
    std::vector<std::string> unset;  // removed after env is applied
    std::string preload;             // LD_PRELOAD; empty: nothing preloaded
    std::string input;               // standard input
    bool stdout_to_file = false;
    bool capture_fd3 = false;        // a pipe on descriptor 3, captured as fd3
    unsigned timeout_s = 120;        // then the child's process group is killed
};

struct result {
    std::string out, err, fd3;
    int status = 0;  // as waitpid reports it
    bool timed_out = false;
    // For a child that timed out: what each of its threads was doing (states,
    // kernel wait channels, and call stacks when gdb is installed).
    std::string hang_report;
    bool start_failed = false;

    bool exited_ok() const;            // normal exit with status 0
    bool killed_by(int signal) const;  // ended by that signal
    std::string describe() const;      // how it ended and both streams, for failure messages
};

// Runs argv[0] (a path). Whatever the child leaves behind in its process
// group (a forked child that hangs) is killed once the child itself ends.
result run(const std::vector<std::string>& argv, const options& opt = {});

// The settings of a tracked run: the program named as the target and, when
// given, a log file; counting on with counting (TARVEX_TOP set and empty).
env_map tracked_env(const std::string& target, const std::string& log = "", bool counting = false);

// A fresh directory under the temporary directory, removed with its content
// (whatever its permissions) when the object goes.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::string read_file(const std::string& path);  // "" when missing
void write_file(const std::string& path, const std::string& text);
bool file_exists(const std::string& path);
std::string base_name(const std::string& path);

// Number of non-overlapping occurrences of needle in text.
size_t count(const std::string& text, const std::string& needle);
std::vector<std::string> lines(const std::string& text);

// The assertion line that the C library writes when the library stops the
// program prog at a line of lib/trvx_hook, e.g. "void free(void*)".
std::string assertion(const std::string& prog, unsigned line, const std::string& function);
extern const char k_free[];     // "void free(void*)"
extern const char k_realloc[];  // "void* realloc(void*, size_t)"

}  // namespace child
