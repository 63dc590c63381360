#include "top_history.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "symboliser.h"

namespace tarvex::report {

namespace {

std::string uid_text(std::uint32_t uid) {
    char text[16];
    std::snprintf(text, sizeof text, "%08x", uid);
    return text;
}

// A call site is known by its frames, which stay the same from run to run
// while uids change with the load addresses; a site without frames by uid.
std::string site_key(const top_report& report, std::uint32_t uid) {
    auto found = report.stacks.find(uid);
    if (found == report.stacks.end() || found->second.empty()) return "uid " + uid_text(uid);
    std::string key;
    for (const frame_line& frame : found->second) key += frame_key(frame) + '\n';
    return key;
}

// The rows of both tables of one report, one point per site. Rows of the
// same uid repeat the same numbers; different uids with the same frames add up.
std::map<std::string, std::pair<std::uint32_t, site_point>> report_points(const top_report& report) {
    std::map<std::uint32_t, site_point> by_uid;
    for (const auto* rows : {&report.by_count, &report.by_size})
        for (const top_row& row : *rows)
            if (row.count != 0 || row.size != 0) by_uid[row.uid] = {row.count, row.size};
    std::map<std::string, std::pair<std::uint32_t, site_point>> points;
    for (const auto& [uid, point] : by_uid) {
        auto& entry = points[site_key(report, uid)];
        entry.first = uid;
        entry.second.blocks += point.blocks;
        entry.second.bytes += point.bytes;
    }
    return points;
}

// A suspect is listed in the latest report and in at least one before it,
// and its live bytes never fell from one listing to the next but rose overall.
std::optional<leak_suspect> judge(const site_series& series, std::size_t index) {
    leak_suspect suspect;
    suspect.site = index;
    std::optional<std::size_t> before;
    for (std::size_t i = 0; i < series.points.size(); ++i) {
        if (!series.points[i]) continue;
        const site_point& point = *series.points[i];
        if (before) {
            suspect.previous = *series.points[*before];
            suspect.previous_report = *before;
            if (point.bytes < suspect.previous.bytes) return std::nullopt;
        } else {
            suspect.first = point;
        }
        before = i;
        ++suspect.listed;
    }
    if (suspect.listed < 2 || series.points.empty() || !series.points.back()) return std::nullopt;
    suspect.last = *series.points.back();
    if (suspect.last.bytes <= suspect.first.bytes) return std::nullopt;
    return suspect;
}

}  // namespace

top_history follow_top_reports(const parsed_log& log) {
    top_history history;
    for (const any_report& any : log.reports)
        if (const auto* top = std::get_if<top_report>(&any)) history.reports.push_back(top);
    std::map<std::string, std::size_t> index;
    for (std::size_t r = 0; r < history.reports.size(); ++r) {
        const top_report& report = *history.reports[r];
        for (const auto& [key, entry] : report_points(report)) {
            auto [it, fresh] = index.emplace(key, history.sites.size());
            if (fresh) history.sites.push_back({key, 0, nullptr, {}, 0});
            site_series& series = history.sites[it->second];
            series.points.resize(history.reports.size());
            series.points[r] = entry.second;
            series.uid = entry.first;
            auto stack = report.stacks.find(entry.first);
            series.stack = stack == report.stacks.end() ? nullptr : &stack->second;
            series.peak_bytes = std::max(series.peak_bytes, entry.second.bytes);
        }
    }
    for (site_series& series : history.sites) series.points.resize(history.reports.size());
    std::stable_sort(history.sites.begin(), history.sites.end(),
                     [](const site_series& a, const site_series& b) {
                         return a.peak_bytes > b.peak_bytes;
                     });
    for (std::size_t i = 0; i < history.sites.size(); ++i)
        if (auto suspect = judge(history.sites[i], i)) history.suspects.push_back(*suspect);
    std::stable_sort(history.suspects.begin(), history.suspects.end(),
                     [](const leak_suspect& a, const leak_suspect& b) {
                         return a.last.bytes - a.first.bytes > b.last.bytes - b.first.bytes;
                     });
    return history;
}

}  // namespace tarvex::report
