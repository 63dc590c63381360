// Finding reports in logs: complete, mixed with other output, cut short.
#include <gtest/gtest.h>

#include <sstream>

#include "log_parser.h"

namespace tarvex::report {
namespace {

const char* const k_trace =
    "\n----------uid to bt----------\n"
    "uid: 0000000a, bt: \n/app/prog(+0x1255) [0x55a5713fe255]\n/app/prog(main+0x10) [0x5]\n\n"
    "uid: 0000000b, bt: \n\n"
    "\n----------trace----------\n"
    "alloc_uid: 0000000a, free_uid: 00000000, size: 47\n"
    "alloc_uid: 0000000a, free_uid: 0000000b, size: 47\n";

const char* const k_top =
    "\n----------uid to bt----------\n"
    "uid: 00000000, bt: \n\n"
    "uid: 00000a01, bt: \n[0x4f2a]\n\n"
    "\nMem usage: 1K (1300 bytes) (alloc/sec: 2)\n"
    "----------top by count----------\n"
    "uid: 00000a01, count: 3, size: 300\n"
    "uid: 00000000, count: 0, size: 0\n"
    "----------top by size----------\n"
    "uid: 00000a01, size: 300, count: 3\n"
    "uid: 00000000, size: 0, count: 0\n"
    "-------------------------------\n";

const char* const k_double_free =
    "Failed to find block info for 0x0x55d0c2a4b2a0\n"
    "*** Double free ***\n"
    "block: 0x0x55d0c2a4b2a0, len: 24\n"
    "magic1: 0xcafebabe, magic2: 0xcafebabe\n"
    "alloc call stack:\n"
    "/lib/libtarvex.so(+0x6f36) [0x7f0000006f36]\n"
    "/lib/libtarvex.so(malloc+0x14f) [0x7f0000007000]\n"
    "./prog(+0x1182) [0x555555555182]\n"
    "free call stack:\n"
    "/lib/libtarvex.so(+0x6f36) [0x7f0000006f36]\n"
    "./prog(+0x1190) [0x555555555190]\n";

parsed_log parse(const std::string& text) {
    std::istringstream in(text);
    return parse_log(in, "test.log");
}

template <typename T>
const T& report_at(const parsed_log& log, std::size_t i) {
    EXPECT_LT(i, log.reports.size());
    const T* report = std::get_if<T>(&log.reports.at(i));
    EXPECT_NE(report, nullptr) << "report " << i << " has another kind";
    static const T none{};
    return report ? *report : none;
}

TEST(LogParser, ReportsBetweenProgramOutput) {
    std::string text = std::string("starting\n") + k_top + "round 1 done\n" + k_trace +
                       "uid: 12345678, count: 1, size: 1\n" + k_top + "bye\n";
    parsed_log log = parse(text);
    ASSERT_EQ(log.reports.size(), 3u);
    const auto& top = report_at<top_report>(log, 0);
    EXPECT_FALSE(top.truncated);
    EXPECT_EQ(top.at.line, 3u);
    EXPECT_EQ(top.usage_bytes, 1300u);
    EXPECT_EQ(top.by_count.size(), 2u);
    EXPECT_EQ(top.by_size.size(), 2u);
    EXPECT_EQ(top.stacks.at(0xa01).at(0).kind, frame_line::form::address_only);
    const auto& dump = report_at<trace_dump>(log, 1);
    EXPECT_FALSE(dump.truncated);
    ASSERT_EQ(dump.stacks.size(), 2u);
    ASSERT_EQ(dump.stacks.at(0xa).size(), 2u);
    EXPECT_EQ(dump.stacks.at(0xa)[1].symbol, "main");
    EXPECT_TRUE(dump.stacks.at(0xb).empty());
    ASSERT_EQ(dump.records.size(), 2u);
    EXPECT_EQ(dump.records[1].free_uid, 0xbu);
    EXPECT_FALSE(report_at<top_report>(log, 2).truncated);
    EXPECT_EQ(report_at<top_report>(log, 2).at.line, 33u);
    EXPECT_EQ(log.other_lines, 4u);
}

TEST(LogParser, TopReportCutAtEveryLine) {
    std::string full = k_top;
    std::size_t cuts = 0;
    for (std::size_t end = full.find('\n', 1); end + 1 < full.size(); end = full.find('\n', end + 1)) {
        parsed_log log = parse(full.substr(0, end + 1));
        ASSERT_EQ(log.reports.size(), 1u) << "cut after byte " << end;
        const any_report& any = log.reports[0];
        bool cut = std::holds_alternative<partial_report>(any) ||
                   std::get<top_report>(any).truncated;
        EXPECT_TRUE(cut) << "cut after byte " << end;
        ++cuts;
    }
    EXPECT_EQ(cuts, 14u);
}

TEST(LogParser, LineCutInTheMiddle) {
    std::string text = k_trace;
    text += "alloc_uid: 0000000a, free_ui";
    parsed_log log = parse(text);
    ASSERT_EQ(log.reports.size(), 1u);
    const auto& dump = report_at<trace_dump>(log, 0);
    EXPECT_TRUE(dump.truncated);
    EXPECT_EQ(dump.records.size(), 2u);
    // Cut inside a record line that still parses: the number may be short.
    text = k_trace;
    text.pop_back();
    EXPECT_TRUE(report_at<trace_dump>(parse(text), 0).truncated);
}

TEST(LogParser, NewReportStartsInsideACutOne) {
    std::string text = "\n----------uid to bt----------\nuid: 0000000a, bt: \n/app/prog(+0x1) [0x2]\n";
    text += k_top;
    parsed_log log = parse(text);
    ASSERT_EQ(log.reports.size(), 2u);
    EXPECT_EQ(report_at<partial_report>(log, 0).stacks.size(), 1u);
    EXPECT_FALSE(report_at<top_report>(log, 1).truncated);
}

TEST(LogParser, UnrelatedLineInsideStacksEndsTheReport) {
    std::string text = "\n----------uid to bt----------\nuid: 0000000a, bt: \n"
                       "/app/prog(+0x1) [0x2]\nsomething else\n";
    parsed_log log = parse(text);
    ASSERT_EQ(log.reports.size(), 1u);
    report_at<partial_report>(log, 0);
    EXPECT_EQ(log.other_lines, 1u);
}

TEST(LogParser, EmptyTraceDumpAndWindowsLineEndings) {
    parsed_log log = parse("\r\n----------uid to bt----------\r\n\r\n----------trace----------\r\n");
    ASSERT_EQ(log.reports.size(), 1u);
    const auto& dump = report_at<trace_dump>(log, 0);
    EXPECT_TRUE(dump.records.empty());
    EXPECT_FALSE(dump.truncated);
}

TEST(LogParser, FaultReports) {
    const std::string assertion = "prog: lib/trvx_hook:113: void free(void*): Assertion `0' failed.\n";
    const std::string cut = std::string(k_double_free).substr(0, std::string(k_double_free).find("free call stack:"));
    const struct {
        std::string text;
        fault_report::kind what;
        bool has_block, truncated, has_assertion;
        std::size_t alloc_frames, free_frames;
    } rows[] = {
        {k_double_free + assertion, fault_report::kind::double_free, true, false, true, 3, 2},
        {"Failed to find block info for 0x0x1234\n" + assertion, fault_report::kind::unknown_pointer, false, false,
         true, 0, 0},
        {"*** Failed to verify the footer ***\nblock: 0x0x10, len: 16\nmagic1: 0xcafeba41, magic2: 0xcafebabe\n"
         "alloc call stack:\nfree call stack:\n",
         fault_report::kind::bad_footer, true, false, false, 0, 0},
        {cut, fault_report::kind::double_free, true, true, false, 3, 0},
    };
    for (const auto& r : rows) {
        parsed_log log = parse(r.text);
        ASSERT_EQ(log.reports.size(), 1u) << r.text;
        const auto& fault = report_at<fault_report>(log, 0);
        EXPECT_EQ(fault.what, r.what) << r.text;
        EXPECT_EQ(fault.has_block, r.has_block) << r.text;
        EXPECT_EQ(fault.truncated, r.truncated) << r.text;
        EXPECT_EQ(fault.assertion.empty(), !r.has_assertion) << r.text;
        EXPECT_EQ(fault.alloc_stack.size(), r.alloc_frames) << r.text;
        EXPECT_EQ(fault.free_stack.size(), r.free_frames) << r.text;
        EXPECT_EQ(log.other_lines, 0u) << r.text;
    }
    parsed_log log = parse(k_double_free);
    const auto& fault = report_at<fault_report>(log, 0);
    EXPECT_EQ(fault.pointer, "0x0x55d0c2a4b2a0");
    EXPECT_EQ(fault.block, "block: 0x0x55d0c2a4b2a0, len: 24");
}

TEST(LogParser, AssertionWithoutFaultIsOtherOutput) {
    parsed_log log = parse("prog: lib/trvx_hook:113: void free(void*): Assertion `0' failed.\n");
    EXPECT_TRUE(log.reports.empty());
    EXPECT_EQ(log.other_lines, 1u);
}

}  // namespace
}  // namespace tarvex::report
