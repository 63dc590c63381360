// The periodic top report for real: the program runs 13 seconds, so these
// run with the slow tests only.
#include <future>

#include <gtest/gtest.h>

#include "support.h"

namespace reports {
namespace {

child::result run_periodic(const std::string& log, bool counting) {
    return child::run({TRVX_PERIODIC_PROG},
                      preloaded(child::tracked_env(base_name(TRVX_PERIODIC_PROG), log, counting)));
}

// Allocations once a second for 13 s with 25 live sites: the first one more
// than 10 s after the start writes the one periodic report, 20 rows a
// table. Without TARVEX_TOP no allocation ever triggers a report. Both
// programs run side by side.
TEST(SlowPeriodicReport, OnceWithTwentyRowsOnlyWhenCounting) {
    temp_dir dir;
    auto counting = std::async(std::launch::async, run_periodic, dir / "on", true);
    child::result off = run_periodic(dir / "off", false);
    child::result on = counting.get();

    ASSERT_TRUE(off.exited_ok()) << off.describe();
    EXPECT_FALSE(file_exists(dir / "off"));
    EXPECT_EQ(off.out, "");

    ASSERT_TRUE(on.exited_ok()) << on.describe();
    std::vector<parsed_report> reports;
    std::string error;
    ASSERT_TRUE(parse_log(read_file(dir / "on"), reports, error)) << error;
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_FALSE(reports[0].is_trace);
    EXPECT_EQ(reports[0].by_count.size(), 20u);
    EXPECT_EQ(reports[0].by_size.size(), 20u);
    for (const top_row& row : reports[0].by_count) EXPECT_NE(row.count, 0u);
}

}  // namespace
}  // namespace reports
