// Faults that meet: one complete report, never two interleaved.
#include <gtest/gtest.h>

#include <regex>

#include "stress.h"

using namespace stress;

namespace {

const std::string k_prog = "stress_races";

// The pointer values printed by the scenario: "a=0x.. b=0x.. c=0x..".
std::map<std::string, std::string> pointers(const std::string& err) {
    std::map<std::string, std::string> out;
    std::string first = err.substr(0, err.find('\n'));
    static const std::regex item("([a-z])=(0x[0-9a-f]+)");
    for (std::sregex_iterator it(first.begin(), first.end(), item), end; it != end; ++it)
        out[(*it)[1]] = (*it)[2];
    return out;
}

// Checks that stdout holds exactly one complete report and returns the
// pointer it is about and its kind: "unknown", "double" or "footer".
std::pair<std::string, std::string> one_report(const std::string& out) {
    static const std::regex unknown("Failed to find block info for 0x(0x[0-9a-f]+)\n");
    static const std::regex frame("[^\n]*\\[0x[0-9a-f]+\\]");
    std::vector<std::string> l = lines(out);
    EXPECT_FALSE(l.empty());
    if (l.empty()) return {};
    std::smatch m;
    std::string ptr, kind;
    size_t i = 0;
    std::string first = l[0] + "\n";
    if (std::regex_match(first, m, unknown)) {
        ptr = m[1];
        if (l.size() == 1) return {ptr, "unknown"};
        EXPECT_EQ(l[1], "*** Double free ***") << out;
        kind = "double";
        i = 2;
    } else {
        EXPECT_EQ(l[0], "*** Failed to verify the footer ***") << out;
        kind = "footer";
        i = 1;
        EXPECT_GE(l.size(), 2u) << out;
        if (l.size() < 2) return {};
        static const std::regex block("block: 0x(0x[0-9a-f]+), len: \\d+");
        EXPECT_TRUE(std::regex_match(l[1], m, block)) << out;
        ptr = m[1];
    }
    // block line, magic line, alloc stack, free stack; every frame line is a
    // symbol line, nothing else is mixed in.
    EXPECT_EQ(l[i].rfind("block: 0x" + ptr + ", len: ", 0), 0u) << out;
    EXPECT_EQ(l[i + 1], kind == "footer" ? "magic1: 0xcafeba41, magic2: 0xcafebabe" : "magic1: 0xcafebabe, magic2: 0xcafebabe")
        << out;
    EXPECT_EQ(l[i + 2], "alloc call stack:") << out;
    size_t j = i + 3, alloc_frames = 0, free_frames = 0;
    for (; j < l.size() && l[j] != "free call stack:"; ++j, ++alloc_frames) EXPECT_TRUE(std::regex_match(l[j], frame)) << l[j];
    EXPECT_LT(j, l.size()) << out;
    for (++j; j < l.size(); ++j, ++free_frames) EXPECT_TRUE(std::regex_match(l[j], frame)) << l[j];
    EXPECT_GE(alloc_frames, 3u) << out;
    EXPECT_GE(free_frames, 3u) << out;
    EXPECT_EQ(count(out, "call stack:"), 2u) << out;
    return {ptr, kind};
}

unsigned line_of(const std::string& kind) { return kind == "footer" ? 125 : 113; }

options target_options() { return scenario_options(tracked_env(k_prog), 60); }

// Two threads release the same block at once: one release succeeds, the
// other is reported (as an unknown pointer, or as a double free when the
// block already waits in the quarantine), once.
TEST(Races, TwoThreadsReleaseOneBlockAtOnce) {
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        result r = run({built(k_prog), "same-block"}, target_options());
        ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
        std::string a = pointers(r.err)["a"];
        ASSERT_FALSE(a.empty()) << r.err;
        auto report = one_report(r.out);
        EXPECT_EQ(report.first, a) << r.out;
        EXPECT_NE(report.second, "footer") << r.out;
        EXPECT_EQ(r.err, "a=" + a + "\n" + assertion(k_prog, 113, k_free));
    }
}

// Four threads hit four different faults at once: exactly one of them is
// reported, completely, and the process stops once.
TEST(Races, FourThreadsFaultAtOnce) {
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        result r = run({built(k_prog), "four-faults"}, target_options());
        ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
        auto ptrs = pointers(r.err);
        ASSERT_EQ(ptrs.size(), 3u) << r.err;
        auto report = one_report(r.out);
        if (report.second == "unknown") {
            EXPECT_NE(report.first, ptrs["a"]);  // the stack pointer
            EXPECT_NE(report.first, ptrs["b"]);
            EXPECT_NE(report.first, ptrs["c"]);
        } else if (report.second == "double") {
            EXPECT_TRUE(report.first == ptrs["a"] || report.first == ptrs["b"]) << r.out;
        } else {
            EXPECT_EQ(report.first, ptrs["c"]) << r.out;
        }
        std::string first_line = r.err.substr(0, r.err.find('\n') + 1);
        EXPECT_EQ(r.err, first_line + assertion(k_prog, line_of(report.second), k_free));
    }
}

}  // namespace
