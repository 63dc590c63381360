// Recognisers for the single lines of tarvex's reports. Each takes one line
// without its line break and returns false, leaving its output alone, when
// the line is not exactly of its kind.
#pragma once

#include <cstdint>
#include <string>

#include "report_model.h"

namespace tarvex::report {

namespace heading {
inline const std::string uid_section = "----------uid to bt----------";
inline const std::string trace = "----------trace----------";
inline const std::string top_by_count = "----------top by count----------";
inline const std::string top_by_size = "----------top by size----------";
inline const std::string top_end = "-------------------------------";
inline const std::string unknown_pointer = "Failed to find block info for ";
inline const std::string double_free = "*** Double free ***";
inline const std::string bad_footer = "*** Failed to verify the footer ***";
inline const std::string alloc_stack = "alloc call stack:";
inline const std::string free_stack = "free call stack:";
}  // namespace heading

// "uid: 0012abcd, bt: " (the trailing blank may be missing).
bool parse_uid_entry(const std::string& line, std::uint32_t& uid);
// "alloc_uid: %08x, free_uid: %08x, size: %zd"
bool parse_trace_record(const std::string& line, trace_record& record);
// "uid: %08x, count: %ld, size: %ld"
bool parse_count_row(const std::string& line, top_row& row);
// "uid: %08x, size: %ld, count: %ld"
bool parse_size_row(const std::string& line, top_row& row);
// "Mem usage: %s (%lu bytes) (alloc/sec: %ld)"
bool parse_usage(const std::string& line, top_report& report);
// The C library's message for the assertion that stops a faulty release.
bool is_fault_assertion(const std::string& line);

}  // namespace tarvex::report
