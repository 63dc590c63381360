// The top report: byte-count formatting, the selection of the top rows, the
// report text and its periodic trigger.
#include "unit_support.h"

namespace {

using tarvex::mem_stats;
using row = mem_stats::mem_stat_top;

TEST(FormatStrBytes, ShortFormOfByteCounts) {
    const std::pair<unsigned long, const char*> rows[] = {
        {0, "0B"},
        {1024, "1024B"},
        {1025, "1K"},
        {2047, "1K"},
        {1048576, "1024K"},
        {1049600, "1M"},
        {5368709120, "5G"},
        {1099511627776 + 1073741824, "1T"},
        {18446744073709551615ul, "16777215T"},
    };
    for (const auto& r : rows) {
        std::string out = "previous text";
        mem_stats::format_str_bytes(out, r.first);
        EXPECT_EQ(out, r.second) << r.first;
    }
}

class TopReport : public unit::seams {
protected:
    mem_stats stats;  // created at the fake time 1000

    void set_sites(const std::vector<row>& sites) {
        stats.m_uid_stats.clear();
        for (const row& s : sites) stats.m_uid_stats[s.uid] = {s.count, s.size};
    }
    // The worked example: the counters are reached by real registrations
    // and releases, 26 registrations in all, 1300 live bytes.
    void build_worked_example() {
        int n = 0;
        auto add = [&](uint32_t uid, int blocks, size_t size, bool release) {
            for (int i = 0; i < blocks; ++i, ++n) {
                tarvex::block_info bi = unit::make_block(unit::fake_addr(n), size, uid);
                stats.insert_block_info(bi);
                if (release) stats.find_and_remove_block_info(bi.m_addr, bi);
            }
        };
        add(0xa01, 3, 100, false);
        add(0xb02, 5, 20, false);
        add(0xc03, 3, 300, false);
        add(0xd04, 15, 64, true);
    }
};

std::vector<uint32_t> uids(const std::vector<row>& rows) {
    std::vector<uint32_t> v;
    for (const row& r : rows) v.push_back(r.uid);
    return v;
}

std::vector<row> sites_with_counts(int n) {
    std::vector<row> v;
    for (int i = 1; i <= n; ++i) v.push_back(row{uint32_t(i), uint64_t(i), uint64_t(100 * i)});
    return v;
}

std::vector<uint32_t> descending(int from, int count) {
    std::vector<uint32_t> v;
    for (int i = 0; i < count; ++i) v.push_back(uint32_t(from - i));
    return v;
}

TEST_F(TopReport, SelectionOrdersByKeyThenUidAndCutsAtN) {
    const std::vector<row> example = {{0xa01, 3, 300}, {0xb02, 5, 100}, {0xc03, 3, 900}, {0xd04, 0, 0}};
    const std::vector<row> ties = {{1, 2, 7}, {2, 2, 7}, {3, 2, 7}};
    std::vector<uint32_t> with_zero = descending(19, 19);
    with_zero.push_back(0);
    const struct {
        const char* name;
        std::vector<row> sites;
        unsigned long n;
        std::vector<uint32_t> by_count, by_size;
    } cases[] = {
        {"example", example, 20, {0xb02, 0xa01, 0xc03, 0}, {0xc03, 0xa01, 0xb02, 0}},
        {"example n=2", example, 2, {0xb02, 0xa01}, {0xc03, 0xa01}},
        {"example n=1", example, 1, {0xb02}, {0xc03}},
        {"example n=0", example, 0, {0xb02}, {0xc03}},
        {"no sites", {}, 5, {0}, {0}},
        {"no sites n=0", {}, 0, {0}, {0}},
        {"released sites", {{7, 0, 0}, {8, 0, 0}}, 5, {0}, {0}},
        {"ties", ties, 5, {1, 2, 3, 0}, {1, 2, 3, 0}},
        {"ties at the cut", ties, 2, {1, 2}, {1, 2}},
        {"19 sites", sites_with_counts(19), 20, with_zero, with_zero},
        {"20 sites", sites_with_counts(20), 20, descending(20, 20), descending(20, 20)},
        {"21 sites", sites_with_counts(21), 20, descending(21, 20), descending(21, 20)},
    };
    for (const auto& c : cases) {
        set_sites(c.sites);
        std::vector<row> by_count = {{9, 9, 9}}, by_size;
        stats.find_top(c.n, by_count, by_size);
        EXPECT_EQ(uids(by_count), c.by_count) << c.name;
        EXPECT_EQ(uids(by_size), c.by_size) << c.name;
        for (const std::vector<row>* list : {&by_count, &by_size})
            for (const row& r : *list) {
                auto it = stats.m_uid_stats.find(r.uid);
                uint64_t count = it == stats.m_uid_stats.end() ? 0 : it->second.first;
                uint64_t size = it == stats.m_uid_stats.end() ? 0 : it->second.second;
                EXPECT_EQ(r.count, count) << c.name;
                EXPECT_EQ(r.size, size) << c.name;
            }
    }
}

TEST_F(TopReport, WorkedExampleIsWrittenByteForByte) {
    build_worked_example();
    EXPECT_EQ(stats.total_count(), 26u);
    unit::g_now = 1013;
    stats.dump_alloc_stats(20);
    EXPECT_EQ(unit::read_file(unit::log_path()),
              "\n----------uid to bt----------\n"
              "uid: 00000000, bt: \n\n"
              "uid: 00000a01, bt: \n\n"
              "uid: 00000b02, bt: \n\n"
              "uid: 00000c03, bt: \n\n"
              "\nMem usage: 1K (1300 bytes) (alloc/sec: 2)\n"
              "----------top by count----------\n"
              "uid: 00000b02, count: 5, size: 100\n"
              "uid: 00000a01, count: 3, size: 300\n"
              "uid: 00000c03, count: 3, size: 900\n"
              "uid: 00000000, count: 0, size: 0\n"
              "----------top by size----------\n"
              "uid: 00000c03, size: 900, count: 3\n"
              "uid: 00000a01, size: 300, count: 3\n"
              "uid: 00000b02, size: 100, count: 5\n"
              "uid: 00000000, size: 0, count: 0\n"
              "-------------------------------\n");
    EXPECT_EQ(stats.total_count(), 0u);        // reset by the written report
    EXPECT_EQ(stats.m_last_dump_time, 1000);  // only the periodic trigger stamps it

    unit::remove_file(unit::log_path());
    stats.dump_alloc_stats(2);
    EXPECT_EQ(unit::read_file(unit::log_path()),
              "\n----------uid to bt----------\n"
              "uid: 00000a01, bt: \n\n"
              "uid: 00000b02, bt: \n\n"
              "uid: 00000c03, bt: \n\n"
              "\nMem usage: 1K (1300 bytes) (alloc/sec: 0)\n"
              "----------top by count----------\n"
              "uid: 00000b02, count: 5, size: 100\n"
              "uid: 00000a01, count: 3, size: 300\n"
              "----------top by size----------\n"
              "uid: 00000c03, size: 900, count: 3\n"
              "uid: 00000a01, size: 300, count: 3\n"
              "-------------------------------\n");
}

TEST_F(TopReport, AllocationRateDividesByTheElapsedSeconds) {
    const struct {
        time_t elapsed;
        const char* rate;
    } rows[] = {{13, "2"}, {1, "26"}, {0, "26"}, {-5, "0"}};
    for (const auto& r : rows) {
        unit::remove_file(unit::log_path());
        stats.m_total_count = 26;
        unit::g_now = 1000 + r.elapsed;
        stats.dump_alloc_stats(3);
        std::string expected = std::string("\nMem usage: 0B (0 bytes) (alloc/sec: ") + r.rate + ")\n";
        EXPECT_NE(unit::read_file(unit::log_path()).find(expected), std::string::npos) << r.elapsed;
    }
}

size_t occurrences(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
    return n;
}

size_t count_rows(const std::string& log) {
    size_t begin = log.find("----------top by count----------\n"), end = log.find("----------top by size");
    return occurrences(log.substr(begin, end - begin), "uid: ");
}

TEST_F(TopReport, PeriodicTriggerFiresAfterMoreThanTenSeconds) {
    for (int i = 0; i < 25; ++i) {
        tarvex::block_info bi = unit::make_block(unit::fake_addr(i), 10, uint32_t(100 + i));
        stats.insert_block_info(bi);
    }
    int next = 25;
    auto register_at = [&](time_t t) {
        unit::g_now = t;
        tarvex::block_info bi = unit::make_block(unit::fake_addr(next++), 10, 1);
        stats.insert_block_info(bi);
        return unit::read_file(unit::log_path());
    };
    EXPECT_EQ(register_at(1010), "");
    std::string log = register_at(1011);
    EXPECT_EQ(occurrences(log, "----------top by count"), 1u);
    EXPECT_EQ(count_rows(log), 20u);
    EXPECT_EQ(stats.m_last_dump_time, 1011);
    EXPECT_EQ(register_at(1021), log);
    EXPECT_EQ(occurrences(register_at(1022), "----------top by count"), 2u);
}

mem_stats* g_nested_stats;
time_t clock_that_requests_a_report(time_t*) {
    if (mem_stats* s = g_nested_stats) {
        g_nested_stats = nullptr;
        s->dump_alloc_stats(5);  // runs while a report is in progress
    }
    return unit::g_now;
}

TEST_F(TopReport, RequestWhileAReportRunsWritesNothing) {
    g_nested_stats = &stats;
    mem_stats::s_clock = clock_that_requests_a_report;
    stats.dump_alloc_stats(5);
    EXPECT_EQ(g_nested_stats, nullptr);
    EXPECT_EQ(occurrences(unit::read_file(unit::log_path()), "----------top by count"), 1u);
}

}  // namespace
