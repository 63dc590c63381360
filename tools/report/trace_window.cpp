#include "trace_window.h"

#include <algorithm>
#include <map>

namespace tarvex::report {

namespace {

void add_up(window_site& total, const window_site& site) {
    for (auto [sum, part] : {std::pair{&total.allocated, &site.allocated},
                             std::pair{&total.released, &site.released},
                             std::pair{&total.kept, &site.kept},
                             std::pair{&total.released_older, &site.released_older}}) {
        sum->blocks += part->blocks;
        sum->bytes += part->bytes;
    }
}

}  // namespace

window_summary summarise_window(const trace_dump& dump) {
    std::map<std::uint32_t, window_site> sites;
    // Live blocks of the window, by (alloc uid, size), oldest first.
    std::map<std::pair<std::uint32_t, std::int64_t>, std::uint64_t> live;
    bool any_stack = false;
    for (const trace_record& record : dump.records) {
        window_site& site = sites[record.alloc_uid];
        site.alloc_uid = record.alloc_uid;
        any_stack = any_stack || record.alloc_uid != 0;
        auto key = std::make_pair(record.alloc_uid, record.size);
        if (record.free_uid == 0) {
            site.allocated.add(record.size);
            ++live[key];
        } else if (live[key] > 0) {
            --live[key];
            site.released.add(record.size);
        } else {
            site.released_older.add(record.size);
        }
    }
    window_summary summary;
    summary.without_stacks = !dump.records.empty() && !any_stack;
    for (auto& [uid, site] : sites) {
        site.kept.blocks = site.allocated.blocks - site.released.blocks;
        site.kept.bytes = site.allocated.bytes - site.released.bytes;
        add_up(summary.total, site);
        summary.sites.push_back(site);
    }
    std::stable_sort(summary.sites.begin(), summary.sites.end(),
                     [](const window_site& a, const window_site& b) {
                         return a.kept.bytes > b.kept.bytes;
                     });
    return summary;
}

}  // namespace tarvex::report
