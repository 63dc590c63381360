// The single lines of the reports: exact forms only.
#include <gtest/gtest.h>

#include "report_lines.h"

namespace tarvex::report {
namespace {

TEST(ReportLines, UidEntryWithAndWithoutTrailingBlank) {
    std::uint32_t uid = 0;
    EXPECT_TRUE(parse_uid_entry("uid: 0012abcd, bt: ", uid));
    EXPECT_EQ(uid, 0x0012abcdu);
    EXPECT_TRUE(parse_uid_entry("uid: ffffffff, bt:", uid));
    EXPECT_EQ(uid, 0xffffffffu);
    uid = 5;
    for (const char* line : {"uid: 0012abc, bt: ", "uid: 0012ABCD, bt: ", "uid: 0012abcd, bt:  ",
                             "uid: 0012abcd, count: 1, size: 2", "uid: 0012abcd, bt: x"})
        EXPECT_FALSE(parse_uid_entry(line, uid)) << line;
    EXPECT_EQ(uid, 5u);
}

TEST(ReportLines, TraceRecords) {
    trace_record r;
    ASSERT_TRUE(parse_trace_record("alloc_uid: 0012abcd, free_uid: 00000000, size: 4096", r));
    EXPECT_EQ(r.alloc_uid, 0x0012abcdu);
    EXPECT_EQ(r.free_uid, 0u);
    EXPECT_EQ(r.size, 4096);
    ASSERT_TRUE(parse_trace_record("alloc_uid: 00000001, free_uid: deadbeef, size: 0", r));
    EXPECT_EQ(r.free_uid, 0xdeadbeefu);
    EXPECT_EQ(r.size, 0);
    for (const char* line : {"alloc_uid: 0012abcd, free_uid: 00000000, size: ",
                             "alloc_uid: 0012abcd, free_uid: 00000000, size: 4096 ",
                             "alloc_uid: 0012abcd, free_uid: 0000000, size: 1",
                             "alloc_uid: 0012abcd, free_ui"})
        EXPECT_FALSE(parse_trace_record(line, r)) << line;
}

TEST(ReportLines, CountAndSizeRowsKeepTheirOrder) {
    top_row row;
    ASSERT_TRUE(parse_count_row("uid: 00000b02, count: 5, size: 100", row));
    EXPECT_EQ(row.uid, 0xb02u);
    EXPECT_EQ(row.count, 5u);
    EXPECT_EQ(row.size, 100u);
    ASSERT_TRUE(parse_size_row("uid: 00000c03, size: 900, count: 3", row));
    EXPECT_EQ(row.size, 900u);
    EXPECT_EQ(row.count, 3u);
    EXPECT_FALSE(parse_count_row("uid: 00000c03, size: 900, count: 3", row));
    EXPECT_FALSE(parse_size_row("uid: 00000b02, count: 5, size: 100", row));
    ASSERT_TRUE(parse_size_row("uid: 00000000, size: 18446744073709551615, count: 0", row));
    EXPECT_EQ(row.size, 18446744073709551615u);
}

TEST(ReportLines, UsageLine) {
    top_report report;
    ASSERT_TRUE(parse_usage("Mem usage: 1K (1300 bytes) (alloc/sec: 2)", report));
    EXPECT_TRUE(report.has_usage);
    EXPECT_EQ(report.usage_short, "1K");
    EXPECT_EQ(report.usage_bytes, 1300u);
    EXPECT_EQ(report.alloc_rate, 2);
    top_report other;
    EXPECT_FALSE(parse_usage("Mem usage:  (1300 bytes) (alloc/sec: 2)", other));
    EXPECT_FALSE(parse_usage("Mem usage: 1K (1300 bytes) (alloc/sec: 2", other));
    EXPECT_FALSE(other.has_usage);
}

TEST(ReportLines, FaultAssertion) {
    EXPECT_TRUE(is_fault_assertion(
        "myserver: lib/trvx_hook:113: void free(void*): Assertion `0' failed."));
    EXPECT_FALSE(is_fault_assertion("x: other.c:1: f: Assertion `0' failed."));
}

}  // namespace
}  // namespace tarvex::report
