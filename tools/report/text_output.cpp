#include "text_output.h"

#include <cstdio>

#include "presentation.h"
#include "top_history.h"
#include "trace_window.h"

namespace tarvex::report {

namespace {

std::string place_text(const source_place& at) {
    return at.input + ":" + std::to_string(at.line);
}

void write_stack(std::ostream& out, const call_stack& stack, symboliser& symbols) {
    for (std::size_t i = 0; i < stack.size(); ++i)
        for (const shown_line& line : show_frame(stack[i], symbols))
            out << "    #" << i << ' ' << describe(line) << '\n';
}

void write_stacks(std::ostream& out, const uid_stacks& stacks, symboliser& symbols) {
    for (const auto& [uid, stack] : stacks) {
        out << "uid " << uid_hex(uid) << (stack.empty() ? " (no call stack)" : "") << '\n';
        write_stack(out, stack, symbols);
    }
}

const char* cut_note(bool truncated) { return truncated ? " (cut short)" : ""; }

std::string tally(const block_tally& t) {
    return blocks_text(t.blocks) + ", " + std::to_string(t.bytes) + " bytes";
}

void write_window(std::ostream& out, const trace_dump& dump, symboliser& symbols) {
    window_summary summary = summarise_window(dump);
    out << "-- not released inside the window, per allocating call site\n";
    if (summary.without_stacks)
        out << "   (call stacks were off: releases cannot be told from allocations)\n";
    for (const window_site& site : summary.sites) {
        if (site.kept.blocks == 0 && site.released_older.blocks == 0) continue;
        auto stack = dump.stacks.find(site.alloc_uid);
        out << "   uid " << uid_hex(site.alloc_uid) << ": kept " << tally(site.kept)
            << " of " << tally(site.allocated);
        if (site.released_older.blocks != 0)
            out << "; released " << tally(site.released_older) << " from before the window";
        out << "\n      "
            << (stack == dump.stacks.end() ? "(no call stack)" : site_label(stack->second, symbols))
            << '\n';
    }
    const window_site& t = summary.total;
    out << "   total: allocated " << tally(t.allocated) << ", released inside the window "
        << tally(t.released) << ", kept " << tally(t.kept) << "; released from before the window "
        << tally(t.released_older) << '\n';
}

void write_trace(std::ostream& out, const trace_dump& dump, symboliser& symbols) {
    out << "=== " << place_text(dump.at) << " trace dump, " << dump.records.size() << " records"
        << cut_note(dump.truncated) << '\n';
    write_stacks(out, dump.stacks, symbols);
    out << "-- records\n";
    for (const trace_record& r : dump.records)
        out << "   alloc_uid: " << uid_hex(r.alloc_uid) << ", free_uid: " << uid_hex(r.free_uid)
            << ", size: " << r.size << '\n';
    write_window(out, dump, symbols);
}

void write_top(std::ostream& out, const top_report& top, symboliser& symbols) {
    out << "=== " << place_text(top.at) << " top report" << cut_note(top.truncated) << '\n';
    if (top.has_usage)
        out << "Mem usage: " << top.usage_short << " (" << top.usage_bytes
            << " bytes) (alloc/sec: " << top.alloc_rate << ")\n";
    out << "-- top by count\n";
    for (const top_row& r : top.by_count)
        out << "   uid: " << uid_hex(r.uid) << ", count: " << r.count << ", size: " << r.size << '\n';
    out << "-- top by size\n";
    for (const top_row& r : top.by_size)
        out << "   uid: " << uid_hex(r.uid) << ", size: " << r.size << ", count: " << r.count << '\n';
    out << "-- call sites\n";
    write_stacks(out, top.stacks, symbols);
}

const char* fault_title(fault_report::kind what) {
    switch (what) {
    case fault_report::kind::double_free: return "double free";
    case fault_report::kind::bad_footer: return "overwritten footer (write past the block's end)";
    default: return "release of a pointer tarvex never handed out";
    }
}

void write_fault(std::ostream& out, const fault_report& fault, symboliser& symbols) {
    out << "=== " << place_text(fault.at) << " fault: " << fault_title(fault.what)
        << cut_note(fault.truncated) << '\n';
    if (!fault.pointer.empty()) out << "pointer: " << fault.pointer << '\n';
    if (fault.has_block) {
        out << fault.block << '\n' << fault.magics << '\n' << "alloc call stack:\n";
        write_stack(out, fault.alloc_stack, symbols);
        out << "free call stack:\n";
        write_stack(out, fault.free_stack, symbols);
    }
    if (!fault.assertion.empty()) out << fault.assertion << '\n';
}

void write_partial(std::ostream& out, const partial_report& part, symboliser& symbols) {
    out << "=== " << place_text(part.at) << " report cut short before its kind showed\n";
    write_stacks(out, part.stacks, symbols);
}

std::string point_text(const std::optional<site_point>& point) {
    if (!point) return "-";
    return std::to_string(point->bytes) + "/" + std::to_string(point->blocks);
}

// Each call site's live bytes/blocks per report; of a long series only the
// latest reports.
void write_series(std::ostream& out, const parsed_log& log, const top_history& history,
                  symboliser& symbols) {
    constexpr std::size_t shown = 10;
    std::size_t count = history.reports.size();
    std::size_t first = count > shown ? count - shown : 0;
    out << "=== " << log.input << ": live bytes/blocks per call site across " << count
        << " top reports";
    if (first > 0) out << ", reports " << first + 1 << " to " << count << " shown";
    out << " ('-': not listed)\n";
    for (const site_series& site : history.sites) {
        out << "   uid " << uid_hex(site.uid) << ':' << (first > 0 ? " ..." : "");
        for (std::size_t i = first; i < count; ++i) out << ' ' << point_text(site.points[i]);
        out << "\n      " << (site.stack ? site_label(*site.stack, symbols) : "(no call stack)")
            << '\n';
    }
}

void write_history(std::ostream& out, const parsed_log& log, symboliser& symbols) {
    top_history history = follow_top_reports(log);
    if (history.reports.size() < 2) return;
    write_series(out, log, history, symbols);
    out << "=== " << log.input << ": leak suspects (live bytes only grew), "
        << history.suspects.size() << " found\n";
    for (const leak_suspect& suspect : history.suspects) {
        const site_series& site = history.sites[suspect.site];
        out << "uid " << uid_hex(site.uid) << ": " << suspect.first.bytes << " -> "
            << suspect.last.bytes << " bytes over " << suspect.listed << " reports; since report "
            << suspect.previous_report + 1 << ": +" << suspect.last.bytes - suspect.previous.bytes
            << " bytes, " << signed_blocks(suspect.last.blocks, suspect.previous.blocks) << '\n';
        if (site.stack) write_stack(out, *site.stack, symbols);
    }
}

}  // namespace

void write_text(std::ostream& out, const std::vector<parsed_log>& logs, symboliser& symbols) {
    for (const parsed_log& log : logs) {
        for (const any_report& any : log.reports) {
            std::visit(
                [&](const auto& report) {
                    using type = std::decay_t<decltype(report)>;
                    if constexpr (std::is_same_v<type, trace_dump>) write_trace(out, report, symbols);
                    if constexpr (std::is_same_v<type, top_report>) write_top(out, report, symbols);
                    if constexpr (std::is_same_v<type, fault_report>) write_fault(out, report, symbols);
                    if constexpr (std::is_same_v<type, partial_report>)
                        write_partial(out, report, symbols);
                },
                any);
            out << '\n';
        }
        write_history(out, log, symbols);
    }
}

}  // namespace tarvex::report
