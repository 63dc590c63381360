// Reports cut at every line and inside a line: whatever was read is kept
// and marked cut short. (Complete and mixed inputs are the golden test's
// part: golden/ and report_runs_test.sh.)
#include <gtest/gtest.h>

#include <sstream>

#include "log_parser.h"

namespace tarvex::report {
namespace {

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

parsed_log parse(const std::string& text) {
    std::istringstream in(text);
    return parse_log(in, "test.log");
}

TEST(LogParser, TopReportCutAtEveryLine) {
    std::string full = k_top;
    std::size_t cuts = 0;
    for (std::size_t end = full.find('\n', 1); end + 1 < full.size(); end = full.find('\n', end + 1), ++cuts) {
        parsed_log log = parse(full.substr(0, end + 1));
        ASSERT_EQ(log.reports.size(), 1u) << "cut after byte " << end;
        const any_report& any = log.reports[0];
        EXPECT_TRUE(std::holds_alternative<partial_report>(any) || std::get<top_report>(any).truncated)
            << "cut after byte " << end;
    }
    EXPECT_EQ(cuts, 14u);
    parsed_log whole = parse(full);
    ASSERT_EQ(whole.reports.size(), 1u);
    EXPECT_FALSE(std::get<top_report>(whole.reports[0]).truncated);
}

// Cut inside a record line that still parses: the number may be short.
TEST(LogParser, LineCutInTheMiddle) {
    std::string text = "\n----------uid to bt----------\n\n----------trace----------\n"
                       "alloc_uid: 0000000a, free_uid: 00000000, size: 47\n";
    text.pop_back();
    parsed_log log = parse(text);
    ASSERT_EQ(log.reports.size(), 1u);
    EXPECT_TRUE(std::get<trace_dump>(log.reports[0]).truncated);
}

}  // namespace
}  // namespace tarvex::report
