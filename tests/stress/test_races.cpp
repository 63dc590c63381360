// Faults that meet: one complete report, never two interleaved.
#include <gtest/gtest.h>

#include <regex>

#include "stress.h"

using namespace stress;

namespace {

// Runs a race and checks that standard output holds exactly one complete
// report; returns its first line and the pointers the program printed.
std::string one_report(const std::string& mode, std::string& pointers) {
    result r = run({built("stress_races"), mode}, scenario_options(tracked_env("stress_races"), 60));
    EXPECT_TRUE(r.killed_by(SIGABRT)) << r.describe();
    pointers = r.err.substr(0, r.err.find('\n') + 1);
    std::vector<std::string> l = lines(r.out);
    if (l.empty()) return "";
    bool footer = l[0] == "*** Failed to verify the footer ***";
    EXPECT_EQ(r.err, pointers + assertion("stress_races", footer ? 125 : 113, k_free));
    EXPECT_EQ(count(r.out, "Failed to find block info") + count(r.out, "*** Failed to verify"), 1u) << r.out;
    if (l.size() == 1) return l[0];  // an unknown pointer
    // The block, both stacks, every frame line a symbol line and nothing
    // else mixed in.
    static const std::regex frame("[^\n]*\\[0x[0-9a-f]+\\]");
    size_t i = footer ? 1 : 2;
    EXPECT_TRUE(footer || l[1] == "*** Double free ***") << r.out;
    EXPECT_EQ(l[i + 1], footer ? "magic1: 0xcafeba41, magic2: 0xcafebabe" : "magic1: 0xcafebabe, magic2: 0xcafebabe");
    EXPECT_EQ(l[i + 2], "alloc call stack:") << r.out;
    size_t frames = 0;
    for (size_t j = i + 3; j < l.size(); ++j) {
        if (l[j] == "free call stack:") continue;
        EXPECT_TRUE(std::regex_match(l[j], frame)) << l[j];
        ++frames;
    }
    EXPECT_EQ(count(r.out, "call stack:\n"), 2u) << r.out;
    EXPECT_GE(frames, 6u) << r.out;
    return l[i].substr(0, l[i].find(','));  // "block: 0x0x..."
}

// Two threads release the same block at once: one release succeeds, the
// other is reported (as an unknown pointer, or as a double free when the
// block already waits in the quarantine).
TEST(Races, TwoThreadsReleaseOneBlockAtOnce) {
    for (int round = 0; round < 10; ++round) {
        std::string pointers, first = one_report("same-block", pointers);
        std::string a = pointers.substr(2, pointers.size() - 3);
        EXPECT_TRUE(first == "Failed to find block info for 0x" + a || first == "block: 0x" + a) << first;
    }
}

// Four threads hit four different faults at once: exactly one of them is
// reported, completely, and the process stops once.
TEST(Races, FourThreadsFaultAtOnce) {
    for (int round = 0; round < 10; ++round) {
        std::string pointers;
        EXPECT_NE(one_report("four-faults", pointers), "") << pointers;
    }
}

}  // namespace
