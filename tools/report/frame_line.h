// One frame of a call stack as the C library's backtrace_symbols writes it,
// taken apart into the pieces the symboliser needs.
#pragma once

#include <cstdint>
#include <string>

namespace tarvex::report {

struct frame_line {
    enum class form {
        symbol_offset,  // PATH(SYMBOL+0xOFF) [0xADDR]  (or SYMBOL-0xOFF)
        file_offset,    // PATH(+0xOFF) [0xADDR]
        object_only,    // PATH [0xADDR] or PATH() [0xADDR]
        address_only,   // [0xADDR]
        unparsed,       // anything else: kept as text
    };

    std::string text;    // the line exactly as read
    form kind = form::unparsed;
    std::string object;  // path of the object file as the process saw it
    std::string symbol;  // mangled symbol name (symbol_offset only)
    bool negative = false;  // the offset was written with '-'
    std::uint64_t offset = 0;
    std::uint64_t address = 0;  // absolute address in the process that wrote it
};

// Takes a line apart; a line of none of the four forms comes back as
// form::unparsed with only its text set.
frame_line parse_frame_line(const std::string& line);

// True when the line has one of the four frame forms.
bool looks_like_frame(const std::string& line);

// Parses "0x" followed by at least one hexadecimal digit and nothing else.
bool parse_hex(const std::string& text, std::uint64_t& value);

}  // namespace tarvex::report
