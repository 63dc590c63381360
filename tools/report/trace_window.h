// What a traced window left behind: per allocating call site, the blocks it
// allocated inside the window and did not release there. Release records
// are matched to earlier allocation records of the same alloc uid and size.
#pragma once

#include <cstdint>
#include <vector>

#include "report_model.h"

namespace tarvex::report {

struct block_tally {
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;
    void add(std::int64_t size) {
        ++blocks;
        bytes += static_cast<std::uint64_t>(size);
    }
};

struct window_site {
    std::uint32_t alloc_uid = 0;
    block_tally allocated;       // allocation records
    block_tally released;        // of those, released inside the window
    block_tally kept;            // of those, still live when the window closed
    block_tally released_older;  // releases of blocks allocated before the window
};

struct window_summary {
    std::vector<window_site> sites;  // most bytes kept first, then by uid
    window_site total;               // sums over all sites (alloc_uid unused)
    // With call stacks switched off every uid is 0 and releases cannot be
    // told from allocations.
    bool without_stacks = false;
};

window_summary summarise_window(const trace_dump& dump);

}  // namespace tarvex::report
