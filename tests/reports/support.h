// Support for the end-to-end report tests: parsing and predicting the trace
// dumps and top reports that the library writes.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "child.h"

namespace reports {

using child::base_name;
using child::file_exists;
using child::read_file;
using child::temp_dir;
using child::write_file;

// Options that preload libtarvex.so and set env.
child::options preloaded(const child::env_map& env);

// ---------------------------------------------------------------- report pieces

typedef std::map<uint32_t, std::vector<std::string>> stack_map;  // uid to symbol lines

struct record {
    uint32_t alloc_uid, free_uid;
    uint64_t size;
    bool operator==(const record& o) const {
        return alloc_uid == o.alloc_uid && free_uid == o.free_uid && size == o.size;
    }
};

struct top_row {
    uint32_t uid;
    uint64_t count, size;
};

extern const char k_uid_header[];    // "\n----------uid to bt----------\n"
extern const char k_trace_header[];  // "\n----------trace----------\n"

// The stacks that a program read from block footers ("op INDEX UID N" and
// N symbol lines each); problems (an untracked block, a stack too deep for
// the footer) are collected in errors.
struct side_file {
    std::map<int, uint32_t> op_uid;
    stack_map stacks;
    std::vector<std::string> errors;
};
side_file parse_side_file(const std::string& text);

std::string frame_text(const std::vector<std::string>& lines);
std::string uid_section(const std::set<uint32_t>& uids, const stack_map& stacks);
std::string trace_dump_text(const std::vector<record>& records, const stack_map& stacks);
std::string short_bytes(uint64_t bytes);
// Rows of the two tables, from per-site (count, size); a site listed in
// neither table when its key is 0.
void select_top(const std::map<uint32_t, std::pair<uint64_t, uint64_t>>& sites, unsigned long n,
                std::vector<top_row>& by_count, std::vector<top_row>& by_size);
std::string top_report_text(const std::vector<top_row>& by_count, const std::vector<top_row>& by_size,
                            const stack_map& stacks, uint64_t bytes, uint64_t rate);

// The log cut into reports, each starting with the uid section's header.
// Text before the first header is returned in prefix.
std::vector<std::string> split_reports(const std::string& log, std::string* prefix = nullptr);

// Structural reading of any log: every report must be whole and well
// formed; frame lines are taken as they are.
struct parsed_report {
    bool is_trace = false;
    std::vector<uint32_t> uids;
    std::vector<record> records;
    uint64_t bytes = 0, rate = 0;
    std::vector<top_row> by_count, by_size;
};
bool parse_log(const std::string& log, std::vector<parsed_report>& out, std::string& error);

// ---------------------------------------------------------------- the ops program

// What reports_ops (programs/ops.c) writes for a list of operations,
// computed from the same list and the uids its footers showed.
struct ops_setup {
    bool tracked = true;    // the process is the target
    bool counting = false;  // TARVEX_TOP
};

struct expected_report {
    bool is_trace;
    std::string text;                          // trace dump
    std::vector<top_row> by_count, by_size;    // top report
    int64_t program_bytes;                     // live bytes of the operations
    bool rate_known;                           // registrations counted since a written report
    uint64_t registrations;
};

std::vector<expected_report> model_ops(const std::vector<std::string>& ops, const ops_setup& setup,
                                       const side_file& side);

// Compares a log with the expected reports (gtest assertions). A top
// report's rate must match some elapsed time of 0 to max_elapsed seconds; the
// bytes held before the operations (the C++ runtime's pool, say) are
// learnt from the first top report and must stay the same in the others.
void expect_reports(const std::string& log, const std::vector<expected_report>& expected, const ops_setup& setup,
                    const stack_map& stacks, int64_t max_elapsed);

}  // namespace reports

namespace reports {

// One run of reports_ops with its log file, its side file read back, and
// the wall-clock bound for the rates of its top reports.
struct ops_outcome {
    child::result child;
    side_file side;
    int64_t max_elapsed;
};
ops_outcome run_ops(const std::vector<std::string>& ops, const std::map<std::string, std::string>& env,
                    const std::string& side_path);

}  // namespace reports
