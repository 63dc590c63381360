// Wording shared by the text and HTML output: how a frame, a call site and
// a number of bytes are written.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "report_model.h"
#include "symboliser.h"

namespace tarvex::report {

// One line of a symbolised stack.
struct shown_line {
    std::string function;  // empty: unresolved, `raw` holds the frame as read
    std::string file;      // empty: no source line known
    int line = 0;
    std::string object;    // object file, for lines without a source line
    bool inlined = false;  // code of this function inlined into the next line's
    std::string raw;
};

// The lines of one frame: one per inlined call, then the frame's function.
std::vector<shown_line> show_frame(const frame_line& frame, symboliser& symbols);

// "FUNCTION at FILE:LINE", "FUNCTION in OBJECT", or the frame as read.
std::string describe(const shown_line& line);

// A short name for a call site: its first frame that is not part of the
// allocation machinery of the C or C++ library.
std::string site_label(const call_stack& stack, symboliser& symbols);

std::string uid_hex(std::uint32_t uid);

// "1197 B", "4.0 KiB", "12.3 MiB".
std::string human_bytes(std::uint64_t bytes);

// "1 block", "3 blocks".
std::string blocks_text(std::uint64_t blocks);

// The change from `before` to `now`: "+10 blocks", "-1 block", "+0 blocks".
std::string signed_blocks(std::uint64_t now, std::uint64_t before);

}  // namespace tarvex::report
