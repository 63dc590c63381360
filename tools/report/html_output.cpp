#include "html_output.h"

#include "markup.h"
#include "presentation.h"
#include "top_history.h"
#include "trace_window.h"

namespace tarvex::report {

namespace {

// Collects errors of the page's own script into the page, where a reader
// (or a headless test) sees them; it runs before anything else.
const char* const k_error_catcher = R"js(
window.tarvexErrors = [];
function tarvexRecordError(text) {
  window.tarvexErrors.push(String(text));
  document.documentElement.setAttribute('data-errors', String(window.tarvexErrors.length));
  var box = document.getElementById('page-errors');
  if (box) { box.hidden = false; box.textContent = window.tarvexErrors.join('\n'); }
}
window.addEventListener('error', function (e) { tarvexRecordError(e.message || 'error'); });
window.addEventListener('unhandledrejection', function (e) { tarvexRecordError(e.reason); });
)js";

std::string esc(const std::string& text) { return html_escape(text); }

std::string place_text(const source_place& at) {
    return at.input + ":" + std::to_string(at.line);
}

void write_stack(std::ostream& out, const call_stack& stack, symboliser& symbols) {
    if (stack.empty()) {
        out << "<p class=\"none\">no call stack</p>\n";
        return;
    }
    out << "<div class=\"stack\">\n";
    for (std::size_t i = 0; i < stack.size(); ++i) {
        for (const shown_line& line : show_frame(stack[i], symbols)) {
            out << "<div class=\"frame" << (line.function.empty() ? " raw" : "")
                << (line.inlined ? " inlined" : "") << "\" title=\"" << esc(line.raw)
                << "\"><span class=\"n\">#" << i << "</span> ";
            if (line.function.empty()) {
                out << "<code>" << esc(line.raw) << "</code>";
            } else {
                out << "<span class=\"fn\">" << esc(line.function) << "</span> ";
                if (!line.file.empty())
                    out << "<span class=\"src\">" << esc(line.file) << ':' << line.line << "</span>";
                else
                    out << "<span class=\"obj\">" << esc(line.object) << "</span>";
                if (line.inlined) out << " <span class=\"tag\">inlined</span>";
            }
            out << "</div>\n";
        }
    }
    out << "</div>\n";
}

void write_uid_stacks(std::ostream& out, const uid_stacks& stacks, symboliser& symbols) {
    for (const auto& [uid, stack] : stacks) {
        out << "<details class=\"site\"><summary><span class=\"uid\">" << uid_hex(uid)
            << "</span> " << esc(stack.empty() ? "(no call stack)" : site_label(stack, symbols))
            << "</summary>\n";
        write_stack(out, stack, symbols);
        out << "</details>\n";
    }
}

const call_stack* stack_of(const uid_stacks& stacks, std::uint32_t uid) {
    auto found = stacks.find(uid);
    return found == stacks.end() ? nullptr : &found->second;
}

std::string label_of(const call_stack* stack, symboliser& symbols) {
    return stack ? site_label(*stack, symbols) : "(no call stack)";
}

void write_chart(std::ostream& out, const top_history& history, const std::string& id,
                 symboliser& symbols) {
    out << "<section class=\"chart-section\"><h3>Live bytes per call site</h3>\n"
        << "<p class=\"hint\">Up to " << k_chart_series
        << " call sites with the most live bytes, over the top reports of this input."
           " A gap: the site was not listed in that report. Click a legend entry to hide"
           " or show its line.</p>\n"
        << "<figure class=\"chart\" data-source=\"" << id << "\"></figure>\n"
        << "<script type=\"application/json\" id=\"" << id << "\">{\"reports\":[";
    for (std::size_t r = 0; r < history.reports.size(); ++r) {
        const top_report& report = *history.reports[r];
        out << (r ? "," : "") << "{\"place\":" << json_string(place_text(report.at))
            << ",\"bytes\":" << report.usage_bytes << "}";
    }
    out << "],\"series\":[";
    std::size_t shown = std::min(history.sites.size(), k_chart_series);
    for (std::size_t s = 0; s < shown; ++s) {
        const site_series& site = history.sites[s];
        out << (s ? "," : "") << "{\"uid\":\"" << uid_hex(site.uid)
            << "\",\"label\":" << json_string(label_of(site.stack, symbols)) << ",\"points\":[";
        for (std::size_t p = 0; p < site.points.size(); ++p) {
            out << (p ? "," : "");
            if (site.points[p]) out << '[' << site.points[p]->bytes << ',' << site.points[p]->blocks << ']';
            else out << "null";
        }
        out << "]}";
    }
    out << "]}</script>\n</section>\n";
}

void write_suspects(std::ostream& out, const top_history& history, symboliser& symbols) {
    out << "<section class=\"suspects\"><h3>Leak suspects</h3>\n";
    if (history.suspects.empty()) {
        out << "<p class=\"none\">No call site's live bytes only grew over the top reports.</p>"
               "</section>\n";
        return;
    }
    out << "<table><thead><tr><th>uid</th><th>call site</th><th>first</th><th>latest</th>"
           "<th>growth since the previous listing</th><th>reports</th></tr></thead><tbody>\n";
    for (const leak_suspect& suspect : history.suspects) {
        const site_series& site = history.sites[suspect.site];
        out << "<tr class=\"suspect\"><td class=\"uid\">" << uid_hex(site.uid) << "</td><td>"
            << esc(label_of(site.stack, symbols)) << "</td><td>"
            << human_bytes(suspect.first.bytes) << "</td><td>" << human_bytes(suspect.last.bytes)
            << " (" << blocks_text(suspect.last.blocks) << ")</td><td class=\"grow\">+"
            << human_bytes(suspect.last.bytes - suspect.previous.bytes) << ", "
            << signed_blocks(suspect.last.blocks, suspect.previous.blocks) << " (since report "
            << suspect.previous_report + 1 << ")</td><td>"
            << suspect.listed << "</td></tr>\n<tr class=\"stack-row\"><td></td><td colspan=\"5\">"
            << "<details><summary>call stack</summary>\n";
        if (site.stack) write_stack(out, *site.stack, symbols);
        out << "</details></td></tr>\n";
    }
    out << "</tbody></table></section>\n";
}

std::string tally(const block_tally& t) {
    return blocks_text(t.blocks) + ", " + human_bytes(t.bytes);
}

void write_window_table(std::ostream& out, const trace_dump& dump, symboliser& symbols) {
    window_summary summary = summarise_window(dump);
    const window_site& t = summary.total;
    out << "<p>Allocated " << tally(t.allocated) << "; released inside the window "
        << tally(t.released) << "; <strong>kept " << tally(t.kept)
        << "</strong>; released from before the window " << tally(t.released_older) << ".</p>\n";
    if (summary.without_stacks)
        out << "<p class=\"warn\">Call stacks were off: releases cannot be told from "
               "allocations.</p>\n";
    out << "<table class=\"window\"><thead><tr><th>uid</th><th>call site</th><th>allocated</th>"
           "<th>released inside</th><th>kept</th><th>released from before</th></tr></thead>"
           "<tbody>\n";
    for (const window_site& site : summary.sites) {
        const call_stack* stack = stack_of(dump.stacks, site.alloc_uid);
        out << "<tr" << (site.kept.blocks ? " class=\"kept\"" : "") << "><td class=\"uid\">"
            << uid_hex(site.alloc_uid) << "</td><td><details><summary>"
            << esc(label_of(stack, symbols)) << "</summary>\n";
        if (stack) write_stack(out, *stack, symbols);
        out << "</details></td><td>" << tally(site.allocated) << "</td><td>"
            << tally(site.released) << "</td><td>" << tally(site.kept) << "</td><td>"
            << tally(site.released_older) << "</td></tr>\n";
    }
    out << "</tbody></table>\n";
}

const char* cut_note(bool truncated) {
    return truncated ? " <span class=\"cut\">cut short</span>" : "";
}

void write_trace(std::ostream& out, const trace_dump& dump, symboliser& symbols) {
    out << "<details class=\"trace\" open><summary>Trace window at " << esc(place_text(dump.at))
        << ": " << dump.records.size() << " records" << cut_note(dump.truncated)
        << "</summary>\n";
    write_window_table(out, dump, symbols);
    out << "<details class=\"records\"><summary>records</summary><pre>";
    for (const trace_record& r : dump.records)
        out << "alloc_uid: " << uid_hex(r.alloc_uid) << ", free_uid: " << uid_hex(r.free_uid)
            << ", size: " << r.size << '\n';
    out << "</pre></details>\n<details><summary>call stacks of the window</summary>\n";
    write_uid_stacks(out, dump.stacks, symbols);
    out << "</details></details>\n";
}

void write_rows(std::ostream& out, const std::vector<top_row>& rows) {
    out << "<table><thead><tr><th>uid</th><th>blocks</th><th>bytes</th></tr></thead><tbody>";
    for (const top_row& r : rows)
        out << "<tr><td class=\"uid\">" << uid_hex(r.uid) << "</td><td>" << r.count
            << "</td><td>" << r.size << "</td></tr>";
    out << "</tbody></table>\n";
}

void write_top(std::ostream& out, const top_report& top, std::size_t number, symboliser& symbols) {
    out << "<details class=\"top\"><summary>Top report " << number << " at "
        << esc(place_text(top.at));
    if (top.has_usage)
        out << ": " << esc(top.usage_short) << " (" << top.usage_bytes << " bytes) live, "
            << top.alloc_rate << " allocations/s";
    out << cut_note(top.truncated) << "</summary>\n<div class=\"tables\"><div><h4>by count</h4>";
    write_rows(out, top.by_count);
    out << "</div><div><h4>by size</h4>";
    write_rows(out, top.by_size);
    out << "</div></div>\n";
    write_uid_stacks(out, top.stacks, symbols);
    out << "</details>\n";
}

const char* fault_title(fault_report::kind what) {
    switch (what) {
    case fault_report::kind::double_free: return "Double free";
    case fault_report::kind::bad_footer: return "Overwritten footer (write past the block's end)";
    default: return "Release of a pointer tarvex never handed out";
    }
}

void write_fault(std::ostream& out, const fault_report& fault, symboliser& symbols) {
    out << "<section class=\"fault\"><h3>" << fault_title(fault.what) << " at "
        << esc(place_text(fault.at)) << cut_note(fault.truncated) << "</h3>\n<pre>";
    if (!fault.pointer.empty()) out << "pointer: " << esc(fault.pointer) << '\n';
    if (fault.has_block) out << esc(fault.block) << '\n' << esc(fault.magics) << '\n';
    if (!fault.assertion.empty()) out << esc(fault.assertion) << '\n';
    out << "</pre>\n";
    if (fault.has_block) {
        out << "<h4>allocated at</h4>\n";
        write_stack(out, fault.alloc_stack, symbols);
        out << "<h4>released at</h4>\n";
        write_stack(out, fault.free_stack, symbols);
    }
    out << "</section>\n";
}

void write_partial(std::ostream& out, const partial_report& part, symboliser& symbols) {
    out << "<details class=\"partial\"><summary>Report at " << esc(place_text(part.at))
        << " <span class=\"cut\">cut short before its kind showed</span></summary>\n";
    write_uid_stacks(out, part.stacks, symbols);
    out << "</details>\n";
}

template <typename T>
std::vector<const T*> all_of(const parsed_log& log) {
    std::vector<const T*> found;
    for (const any_report& any : log.reports)
        if (const T* report = std::get_if<T>(&any)) found.push_back(report);
    return found;
}

void write_log(std::ostream& out, const parsed_log& log, std::size_t index, symboliser& symbols) {
    auto faults = all_of<fault_report>(log);
    auto traces = all_of<trace_dump>(log);
    auto partials = all_of<partial_report>(log);
    top_history history = follow_top_reports(log);
    out << "<section class=\"log\" id=\"log-" << index << "\"><h2>" << esc(log.input) << "</h2>\n"
        << "<p class=\"counts\">" << history.reports.size() << " top reports, " << traces.size()
        << " trace dumps, " << faults.size() << " faults, " << log.other_lines
        << " other lines</p>\n";
    for (const fault_report* fault : faults) write_fault(out, *fault, symbols);
    if (!history.reports.empty()) {
        write_chart(out, history, "chart-data-" + std::to_string(index), symbols);
        write_suspects(out, history, symbols);
    }
    if (!traces.empty()) out << "<section class=\"traces\"><h3>Trace windows</h3>\n";
    for (const trace_dump* trace : traces) write_trace(out, *trace, symbols);
    if (!traces.empty()) out << "</section>\n";
    if (!history.reports.empty()) out << "<section class=\"tops\"><h3>Top reports</h3>\n";
    for (std::size_t i = 0; i < history.reports.size(); ++i)
        write_top(out, *history.reports[i], i + 1, symbols);
    if (!history.reports.empty()) out << "</section>\n";
    for (const partial_report* part : partials) write_partial(out, *part, symbols);
    out << "</section>\n";
}

}  // namespace

void write_html(std::ostream& out, const std::vector<parsed_log>& logs, symboliser& symbols) {
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
        << "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
           "style-src 'unsafe-inline'; script-src 'unsafe-inline'\">\n"
        << "<title>tarvex report</title>\n<style>" << k_page_css << "</style>\n"
        << "<script>" << k_error_catcher << "</script></head>\n<body>\n"
        << "<header><h1>tarvex report</h1><nav>";
    for (std::size_t i = 0; i < logs.size(); ++i)
        out << "<a href=\"#log-" << i << "\">" << esc(logs[i].input) << "</a> ";
    out << "</nav></header>\n<pre id=\"page-errors\" hidden></pre>\n<main>\n";
    for (std::size_t i = 0; i < logs.size(); ++i) write_log(out, logs[i], i, symbols);
    out << "</main>\n<script>" << k_page_js << "</script>\n</body></html>\n";
}

}  // namespace tarvex::report
