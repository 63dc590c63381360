// The single lines of the reports: the four forms of a frame line that glibc
// writes and the other report lines, in their exact forms only, so that
// program output around the reports is not taken for part of them.
#include <gtest/gtest.h>

#include "frame_line.h"
#include "report_lines.h"

namespace tarvex::report {
namespace {

using form = frame_line::form;

TEST(FrameLine, TheFormsGlibcWrites) {
    const struct {
        const char* line;
        form kind;
        const char *object, *symbol;
        bool negative;
        std::uint64_t offset, address;
    } rows[] = {
        {"/lib/x86_64-linux-gnu/libc.so.6(__libc_start_main+0x85) [0x7f49aec25305]", form::symbol_offset,
         "/lib/x86_64-linux-gnu/libc.so.6", "__libc_start_main", false, 0x85, 0x7f49aec25305},
        {"/opt/app/bin/server(main-0x10) [0x4f2a]", form::symbol_offset, "/opt/app/bin/server", "main", true, 0x10,
         0x4f2a},
        {"build/bin/tarvex_demo(+0x1255) [0x55a5713fe255]", form::file_offset, "build/bin/tarvex_demo", "", false,
         0x1255, 0x55a5713fe255},
        {"/opt/app/bin/server [0x4f2a]", form::object_only, "/opt/app/bin/server", "", false, 0, 0x4f2a},
        {"/opt/app/bin/server() [0x4f2a]", form::object_only, "/opt/app/bin/server", "", false, 0, 0x4f2a},
        {"[0xffffffffffffffff]", form::address_only, "", "", false, 0, ~0ull},
        {"/opt/my app (old)/lib/libx.so(f+0x1) [0x10]", form::symbol_offset, "/opt/my app (old)/lib/libx.so", "f",
         false, 1, 0x10},
        {"/opt/g++/lib/libx.so(_ZN1a1bEv+0xAb) [0x1000]", form::symbol_offset, "/opt/g++/lib/libx.so", "_ZN1a1bEv",
         false, 0xab, 0x1000},
    };
    for (const auto& r : rows) {
        frame_line f = parse_frame_line(r.line);
        EXPECT_EQ(f.kind, r.kind) << r.line;
        EXPECT_EQ(f.object, r.object) << r.line;
        EXPECT_EQ(f.symbol, r.symbol) << r.line;
        EXPECT_EQ(f.negative, r.negative) << r.line;
        EXPECT_EQ(f.offset, r.offset) << r.line;
        EXPECT_EQ(f.address, r.address) << r.line;
        EXPECT_EQ(f.text, r.line);
    }
}

TEST(FrameLine, RejectsWhatIsNoFrame) {
    for (const char* line : {"", "[]", "[0x]", "[4f2a]", "x [0xzz]", "/a/b(+0x1)[0x2]", "/a/b(+0x1) [0x2] trailing",
                             "/a/b(sym) [0x2]", "/a/b(-0x1) [0x2]", "(f+0x1) [0x2]", "round 2 done",
                             "uid: 0012abcd, bt: ", "/a/b(+0x1) [0x11112222333344445]"}) {
        frame_line f = parse_frame_line(line);
        EXPECT_EQ(f.kind, form::unparsed) << line;
        EXPECT_EQ(f.text, line);
        EXPECT_FALSE(looks_like_frame(line)) << line;
    }
}

TEST(ReportLines, ExactFormsOnly) {
    std::uint32_t uid = 0;
    ASSERT_TRUE(parse_uid_entry("uid: 0012abcd, bt: ", uid));
    EXPECT_EQ(uid, 0x0012abcdu);
    EXPECT_TRUE(parse_uid_entry("uid: ffffffff, bt:", uid));
    trace_record r;
    ASSERT_TRUE(parse_trace_record("alloc_uid: 0012abcd, free_uid: deadbeef, size: 4096", r));
    EXPECT_EQ(r.alloc_uid, 0x0012abcdu);
    EXPECT_EQ(r.free_uid, 0xdeadbeefu);
    EXPECT_EQ(r.size, 4096);
    top_row row;
    ASSERT_TRUE(parse_count_row("uid: 00000b02, count: 5, size: 100", row));
    EXPECT_EQ(row.count, 5u);
    EXPECT_EQ(row.size, 100u);
    ASSERT_TRUE(parse_size_row("uid: 00000000, size: 18446744073709551615, count: 3", row));
    EXPECT_EQ(row.size, 18446744073709551615u);
    EXPECT_EQ(row.count, 3u);
    top_report report;
    ASSERT_TRUE(parse_usage("Mem usage: 1K (1300 bytes) (alloc/sec: 2)", report));
    EXPECT_EQ(report.usage_short, "1K");
    EXPECT_EQ(report.usage_bytes, 1300u);
    EXPECT_EQ(report.alloc_rate, 2);
    EXPECT_TRUE(is_fault_assertion("myserver: lib/trvx_hook:113: void free(void*): Assertion `0' failed."));

    for (const char* line : {"uid: 0012abc, bt: ", "uid: 0012ABCD, bt: ", "uid: 0012abcd, bt:  ", "uid: 0012abcd, bt: x"})
        EXPECT_FALSE(parse_uid_entry(line, uid)) << line;
    for (const char* line : {"alloc_uid: 0012abcd, free_uid: 00000000, size: ",
                             "alloc_uid: 0012abcd, free_uid: 00000000, size: 4096 ",
                             "alloc_uid: 0012abcd, free_uid: 0000000, size: 1", "alloc_uid: 0012abcd, free_ui"})
        EXPECT_FALSE(parse_trace_record(line, r)) << line;
    EXPECT_FALSE(parse_count_row("uid: 00000c03, size: 900, count: 3", row));
    EXPECT_FALSE(parse_size_row("uid: 00000b02, count: 5, size: 100", row));
    top_report other;
    EXPECT_FALSE(parse_usage("Mem usage:  (1300 bytes) (alloc/sec: 2)", other));
    EXPECT_FALSE(parse_usage("Mem usage: 1K (1300 bytes) (alloc/sec: 2", other));
    EXPECT_FALSE(is_fault_assertion("x: other.c:1: f: Assertion `0' failed."));
}

}  // namespace
}  // namespace tarvex::report
