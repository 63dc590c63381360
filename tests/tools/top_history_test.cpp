// Following call sites across top reports and picking the leak suspects.
#include <gtest/gtest.h>

#include "top_history.h"

namespace tarvex::report {
namespace {

call_stack stack_at(const std::string& offset) {
    return {parse_frame_line("/app/prog(+" + offset + ") [0x55550000" + offset.substr(2) + "]")};
}

// One top report; each site is (uid, frame offset, blocks, bytes).
struct site { std::uint32_t uid; std::string offset; std::uint64_t blocks, bytes; };

top_report report_of(std::initializer_list<site> sites) {
    top_report report;
    for (const site& s : sites) {
        report.stacks[s.uid] = stack_at(s.offset);
        report.by_count.push_back({s.uid, s.blocks, s.bytes});
        report.by_size.push_back({s.uid, s.blocks, s.bytes});
    }
    report.by_count.push_back({0, 0, 0});  // the zero row of a short table
    report.stacks[0];
    return report;
}

parsed_log log_of(std::initializer_list<top_report> reports) {
    parsed_log log;
    log.reports.emplace_back(trace_dump{});  // other kinds are passed over
    for (const top_report& r : reports) log.reports.emplace_back(r);
    return log;
}

const site_series* find_site(const top_history& h, std::uint32_t uid) {
    for (const site_series& s : h.sites)
        if (s.uid == uid) return &s;
    return nullptr;
}

TEST(TopHistory, SeriesPerSiteInReportOrder) {
    parsed_log log = log_of({report_of({{1, "0x10", 1, 100}, {2, "0x20", 5, 50}}),
                             report_of({{2, "0x20", 6, 60}})});
    top_history h = follow_top_reports(log);
    ASSERT_EQ(h.reports.size(), 2u);
    ASSERT_EQ(h.sites.size(), 2u);  // the zero row is no site
    EXPECT_EQ(h.sites[0].uid, 1u);  // most peak bytes first
    const site_series* two = find_site(h, 2);
    ASSERT_NE(two, nullptr);
    ASSERT_EQ(two->points.size(), 2u);
    EXPECT_EQ(two->points[1]->bytes, 60u);
    const site_series* one = find_site(h, 1);
    ASSERT_EQ(one->points.size(), 2u);
    EXPECT_FALSE(one->points[1].has_value());
}

TEST(TopHistory, SameFramesUnderAnotherUidIsTheSameSite) {
    // A second run of the program: other load addresses, other uids.
    parsed_log log = log_of({report_of({{0x1111, "0x10", 1, 100}}),
                             report_of({{0x2222, "0x10", 2, 200}})});
    top_history h = follow_top_reports(log);
    ASSERT_EQ(h.sites.size(), 1u);
    EXPECT_EQ(h.sites[0].uid, 0x2222u);
    ASSERT_EQ(h.suspects.size(), 1u);
}

TEST(TopHistory, SuspectsOnlyGrow) {
    parsed_log log = log_of({
        report_of({{1, "0x10", 1, 100}, {2, "0x20", 1, 100}, {3, "0x30", 1, 100},
                   {4, "0x40", 1, 100}, {5, "0x50", 3, 300}}),
        report_of({{1, "0x10", 2, 200}, {2, "0x20", 1, 100}, {3, "0x30", 3, 300},
                   {4, "0x40", 2, 200}, {5, "0x50", 2, 200}}),
        report_of({{1, "0x10", 4, 400}, {2, "0x20", 1, 100}, {3, "0x30", 2, 250},
                   {5, "0x50", 2, 250}}),
    });
    top_history h = follow_top_reports(log);
    // 1 grows; 2 stays flat; 3 dips at the end; 4 is not in the latest
    // report; 5 rises again after a fall.
    ASSERT_EQ(h.suspects.size(), 1u);
    const leak_suspect& s = h.suspects[0];
    EXPECT_EQ(h.sites[s.site].uid, 1u);
    EXPECT_EQ(s.listed, 3u);
    EXPECT_EQ(s.first.bytes, 100u);
    EXPECT_EQ(s.previous.bytes, 200u);
    EXPECT_EQ(s.previous_report, 1u);
    EXPECT_EQ(s.last.bytes, 400u);
    EXPECT_EQ(s.last.blocks - s.previous.blocks, 2u);
}

TEST(TopHistory, GrowthAcrossAGapComparesWithTheLastListing) {
    parsed_log log = log_of({report_of({{1, "0x10", 1, 100}}), report_of({{2, "0x20", 1, 1}}),
                             report_of({{1, "0x10", 3, 300}})});
    top_history h = follow_top_reports(log);
    ASSERT_EQ(h.suspects.size(), 1u);
    EXPECT_EQ(h.suspects[0].previous_report, 0u);
    EXPECT_EQ(h.suspects[0].listed, 2u);
}

TEST(TopHistory, OneReportHasNoSuspects) {
    top_history h = follow_top_reports(log_of({report_of({{1, "0x10", 1, 100}})}));
    EXPECT_EQ(h.sites.size(), 1u);
    EXPECT_TRUE(h.suspects.empty());
    EXPECT_TRUE(follow_top_reports(parsed_log{}).sites.empty());
}

TEST(TopHistory, MostGrowthFirst) {
    parsed_log log = log_of({report_of({{1, "0x10", 1, 100}, {2, "0x20", 1, 100}}),
                             report_of({{1, "0x10", 1, 150}, {2, "0x20", 1, 900}})});
    top_history h = follow_top_reports(log);
    ASSERT_EQ(h.suspects.size(), 2u);
    EXPECT_EQ(h.sites[h.suspects[0].site].uid, 2u);
}

TEST(TopHistory, SitesWithoutStacksAreKeptApartByUid) {
    top_report first, second;
    first.by_size = {{7, 1, 10}, {8, 1, 10}};
    second.by_size = {{7, 2, 20}, {8, 1, 10}};
    top_history h = follow_top_reports(log_of({first, second}));
    EXPECT_EQ(h.sites.size(), 2u);
    ASSERT_EQ(h.suspects.size(), 1u);
    EXPECT_EQ(h.sites[h.suspects[0].site].uid, 7u);
    EXPECT_EQ(h.sites[h.suspects[0].site].stack, nullptr);
}

}  // namespace
}  // namespace tarvex::report
