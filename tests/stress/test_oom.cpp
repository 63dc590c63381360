// Allocation failure: libfailing.so, preloaded behind libtarvex.so, refuses
// the Nth request of a scenario, for every N the scenario makes.
#include <gtest/gtest.h>

#include <regex>

#include "stress.h"

using namespace stress;

namespace {

result run_failing(const std::string& mode, long fail_at, const temp_dir& dir, long fail_run = 1) {
    options o = scenario_options(tracked_env("stress_oom", dir / "log", true), 60);
    o.preload += " " + built("libfailing.so");
    o.env["STRESS_FAIL_AT"] = std::to_string(fail_at);
    o.env["STRESS_FAIL_RUN"] = std::to_string(fail_run);
    return run({built("stress_oom"), mode}, o);
}

std::string refusal(long n) { return "failing: request " + std::to_string(n) + " refused\n"; }

// Addresses change from run to run; everything else of a report does not.
std::vector<std::string> normalised_lines(const std::string& text) {
    static const std::regex hex("(0x)+[0-9a-f]+");
    std::vector<std::string> out;
    for (const std::string& line : lines(text)) out.push_back(std::regex_replace(line, hex, "0x?"));
    return out;
}

bool is_subsequence(const std::vector<std::string>& part, const std::vector<std::string>& whole) {
    size_t j = 0;
    for (const std::string& line : part) {
        while (j < whole.size() && whole[j] != line) ++j;
        if (j == whole.size()) return false;
        ++j;
    }
    return true;
}

// Allocation, resize, release, the aligned family, a trace dump and a top
// report: whichever request fails, the program gets null with ENOMEM or its
// request succeeds, nothing crashes or hangs, and the registry and the
// counters still match what the program holds (the scenario checks this).
// Refusing two requests in a row also refuses the memory for the exception
// that a refused request of the library's bookkeeping throws.
TEST(Oom, EveryRefusedRequestLeavesTheLibraryConsistent) {
    temp_dir dir;
    result reference = run_failing("ops", 0, dir);
    ASSERT_TRUE(reference.exited_ok()) << reference.describe();
    std::smatch m;
    ASSERT_TRUE(std::regex_match(reference.out, m, std::regex("oom: ok \\((\\d+) requests\\)\n"))) << reference.out;
    long requests = std::stol(m[1]);
    ASSERT_GT(requests, 100);
    ASSERT_LT(requests, 1000);
    // A refused request can change the path taken (and the number of
    // requests); a report whose log file could not be opened goes to
    // standard output instead.
    const std::regex ok("oom: ok \\((\\d+) requests\\)\n");
    for (long run : {1, 2}) {
        for (long n = 1; n <= requests; ++n) {
            SCOPED_TRACE("requests " + std::to_string(n) + " to " + std::to_string(n + run - 1) + " refused");
            result r = run_failing("ops", n, dir, run);
            ASSERT_TRUE(r.exited_ok()) << r.describe();
            size_t last = r.out.rfind("oom: ok (");
            ASSERT_NE(last, std::string::npos) << r.out;
            std::string tail = r.out.substr(last), head = r.out.substr(0, last);
            ASSERT_TRUE(std::regex_match(tail, m, ok)) << r.out;
            EXPECT_TRUE(head.empty() || head.rfind("\n----------uid to bt----------\n", 0) == 0) << r.out;
            std::string refusals;
            for (long k = n; k < n + run && k <= std::stol(m[1]); ++k) refusals += refusal(k);
            EXPECT_EQ(r.err, refusals);
        }
    }
}

// A double free whose block report is built while a request is refused:
// the process stops exactly as usual, and the report shows a subset of the
// lines it shows when nothing fails (symbol lines may be missing).
TEST(Oom, FaultReportUnderRefusalStillStopsCleanly) {
    temp_dir dir;
    result reference = run_failing("fault", 0, dir);
    ASSERT_TRUE(reference.killed_by(SIGABRT)) << reference.describe();
    const std::string stop = assertion("stress_oom", 113, k_free);
    ASSERT_EQ(reference.err, stop);
    std::vector<std::string> full = normalised_lines(reference.out);
    ASSERT_GE(full.size(), 6u) << reference.out;
    EXPECT_EQ(full[0], "Failed to find block info for 0x?");
    EXPECT_EQ(full[1], "*** Double free ***");
    EXPECT_EQ(full[2], "block: 0x?, len: 24");

    long n = 1;
    for (;; ++n) {
        ASSERT_LT(n, 500) << "the report never stops making requests";
        result r = run_failing("fault", n, dir);
        ASSERT_TRUE(r.killed_by(SIGABRT)) << "request " << n << " refused: " << r.describe();
        if (r.err.find(refusal(n)) == std::string::npos) {
            // Past the last request: nothing was refused.
            EXPECT_EQ(r.err, stop);
            break;
        }
        // The C library's assertion message needs memory of its own; without
        // it glibc writes a fixed text instead.
        EXPECT_TRUE(r.err == refusal(n) + stop || r.err == refusal(n) + "Unexpected error.\n")
            << "request " << n << ": " << r.err;
        std::vector<std::string> got = normalised_lines(r.out);
        ASSERT_GE(got.size(), 2u) << "request " << n << ": " << r.out;
        EXPECT_EQ(got[0], full[0]) << "request " << n;
        EXPECT_EQ(got[1], full[1]) << "request " << n;
        EXPECT_TRUE(is_subsequence(got, full)) << "request " << n << ":\n" << r.out << "\nreference:\n" << reference.out;
    }
    EXPECT_GT(n, 3);
}

}  // namespace
