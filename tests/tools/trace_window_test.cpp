// What a traced window kept: matching releases to allocations.
#include <gtest/gtest.h>

#include "trace_window.h"

namespace tarvex::report {
namespace {

trace_dump dump_of(std::initializer_list<trace_record> records) {
    trace_dump dump;
    dump.records = records;
    return dump;
}

const window_site& site_of(const window_summary& s, std::uint32_t uid) {
    for (const window_site& site : s.sites)
        if (site.alloc_uid == uid) return site;
    ADD_FAILURE() << "no site " << uid;
    static const window_site none;
    return none;
}

TEST(TraceWindow, ReleasesMatchAllocationsByUidAndSize) {
    window_summary s = summarise_window(dump_of({
        {1, 0, 47}, {1, 0, 47}, {1, 0, 8},  // three blocks of site 1
        {1, 9, 47},                          // one 47-byte block released
        {2, 0, 16}, {2, 9, 16},              // site 2 keeps nothing
    }));
    const window_site& one = site_of(s, 1);
    EXPECT_EQ(one.allocated.blocks, 3u);
    EXPECT_EQ(one.allocated.bytes, 102u);
    EXPECT_EQ(one.released.blocks, 1u);
    EXPECT_EQ(one.kept.blocks, 2u);
    EXPECT_EQ(one.kept.bytes, 55u);
    const window_site& two = site_of(s, 2);
    EXPECT_EQ(two.kept.blocks, 0u);
    EXPECT_EQ(s.sites.front().alloc_uid, 1u);  // most kept bytes first
    EXPECT_EQ(s.total.kept.bytes, 55u);
    EXPECT_EQ(s.total.allocated.blocks, 4u);
}

TEST(TraceWindow, ReleaseOfABlockFromBeforeTheWindow) {
    // Size differs from the window's block of the same site: no match.
    window_summary s = summarise_window(dump_of({{3, 0, 10}, {3, 9, 12}, {4, 9, 64}}));
    EXPECT_EQ(site_of(s, 3).kept.blocks, 1u);
    EXPECT_EQ(site_of(s, 3).released_older.bytes, 12u);
    EXPECT_EQ(site_of(s, 4).allocated.blocks, 0u);
    EXPECT_EQ(site_of(s, 4).released_older.blocks, 1u);
    EXPECT_EQ(s.total.released_older.blocks, 2u);
}

TEST(TraceWindow, ReleaseBeforeItsAllocationDoesNotMatch) {
    window_summary s = summarise_window(dump_of({{5, 9, 10}, {5, 0, 10}}));
    EXPECT_EQ(site_of(s, 5).released_older.blocks, 1u);
    EXPECT_EQ(site_of(s, 5).kept.blocks, 1u);
}

TEST(TraceWindow, EmptyAndStacklessWindows) {
    window_summary empty = summarise_window(trace_dump{});
    EXPECT_TRUE(empty.sites.empty());
    EXPECT_FALSE(empty.without_stacks);
    window_summary off = summarise_window(dump_of({{0, 0, 10}, {0, 0, 10}}));
    EXPECT_TRUE(off.without_stacks);
    EXPECT_EQ(off.total.kept.blocks, 2u);
}

}  // namespace
}  // namespace tarvex::report
