// The call sites of successive top reports in one log, followed over time:
// each site's live blocks and bytes per report, and the sites whose live
// bytes only grew (leak suspects).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "report_model.h"

namespace tarvex::report {

struct site_point {
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;
};

struct site_series {
    std::string key;              // the call stack, without absolute addresses
    std::uint32_t uid = 0;        // the uid in the latest report that lists the site
    const call_stack* stack = nullptr;  // its frames there; null when not written
    std::vector<std::optional<site_point>> points;  // one per report; empty: not listed
    std::uint64_t peak_bytes = 0;
};

struct leak_suspect {
    std::size_t site = 0;      // index into top_history::sites
    std::size_t listed = 0;    // reports that list the site
    site_point first;          // at its first listing
    site_point previous;       // at the listing before the last
    site_point last;           // at its last listing (the latest report)
    std::size_t previous_report = 0;  // index of the report of `previous`
};

struct top_history {
    std::vector<const top_report*> reports;  // in the order of the log
    std::vector<site_series> sites;          // most peak bytes first
    std::vector<leak_suspect> suspects;      // most growth first
};

// The log must outlive the result, which points into it.
top_history follow_top_reports(const parsed_log& log);

}  // namespace tarvex::report
