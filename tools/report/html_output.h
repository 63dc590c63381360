// One self-contained HTML page (inline CSS, script and SVG, nothing fetched)
// with, per input: a chart of the live bytes of the leading call sites
// across the top reports, the leak suspects, the faults, the trace windows
// and the top reports, each with symbolised stacks.
#pragma once

#include <ostream>
#include <vector>

#include "report_model.h"
#include "symboliser.h"

namespace tarvex::report {

// The chart shows this many call sites at most, those with the most live bytes.
constexpr std::size_t k_chart_series = 10;

void write_html(std::ostream& out, const std::vector<parsed_log>& logs, symboliser& symbols);

// The page's style sheet and script, embedded at build time.
extern const char k_page_css[];
extern const char k_page_js[];

}  // namespace tarvex::report
