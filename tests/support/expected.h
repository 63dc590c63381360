// Report texts that several test groups expect byte for byte.
#pragma once

#include <string>

namespace expected {

// A top report that counted nothing (or ran without call stacks before any
// allocation): the uid-to-stack section with uid 0 alone, then the usage
// line and both tables with the one row of uid 0.
inline const std::string k_empty_top_report =
    "\n----------uid to bt----------\n"
    "uid: 00000000, bt: \n\n"
    "\nMem usage: 0B (0 bytes) (alloc/sec: 0)\n"
    "----------top by count----------\n"
    "uid: 00000000, count: 0, size: 0\n"
    "----------top by size----------\n"
    "uid: 00000000, size: 0, count: 0\n"
    "-------------------------------\n";

}  // namespace expected
