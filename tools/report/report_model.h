// What the report tool reads from a log: trace dumps, top reports and fault
// reports, each with the call stacks it names, in the order they appear.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "frame_line.h"

namespace tarvex::report {

using call_stack = std::vector<frame_line>;
using uid_stacks = std::map<std::uint32_t, call_stack>;

// Where a report starts: input name and 1-based line number.
struct source_place {
    std::string input;
    std::size_t line = 0;
};

struct trace_record {
    std::uint32_t alloc_uid = 0;
    std::uint32_t free_uid = 0;  // 0: an allocation, else a release
    std::int64_t size = 0;
};

struct trace_dump {
    source_place at;
    uid_stacks stacks;
    std::vector<trace_record> records;
    bool truncated = false;
};

struct top_row {
    std::uint32_t uid = 0;
    std::uint64_t count = 0;
    std::uint64_t size = 0;
};

struct top_report {
    source_place at;
    uid_stacks stacks;
    bool has_usage = false;
    std::string usage_short;     // "72K"
    std::uint64_t usage_bytes = 0;
    std::int64_t alloc_rate = 0;  // allocations per second
    std::vector<top_row> by_count;
    std::vector<top_row> by_size;
    bool truncated = false;
};

// A uid-to-stack section cut off before it showed which report it belongs to.
struct partial_report {
    source_place at;
    uid_stacks stacks;
};

struct fault_report {
    enum class kind { unknown_pointer, double_free, bad_footer };
    source_place at;
    kind what = kind::unknown_pointer;
    std::string pointer;       // as printed in "Failed to find block info for ..."
    bool has_block = false;    // the block lines were read
    std::string block;         // "block: ..., len: ..." line
    std::string magics;        // "magic1: ..., magic2: ..." line
    call_stack alloc_stack;
    call_stack free_stack;
    std::string assertion;     // the C library's assertion message, when captured
    bool truncated = false;
};

using any_report = std::variant<trace_dump, top_report, partial_report, fault_report>;

struct parsed_log {
    std::string input;
    std::vector<any_report> reports;
    std::size_t other_lines = 0;  // lines that belong to no report
};

}  // namespace tarvex::report
