// The top report: byte-count formatting, the selection of the top rows, the
// report text and its periodic trigger; the store under many threads while
// reports are written.
#include <map>
#include <set>

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
        {"example n=0", example, 0, {0xb02}, {0xc03}},
        {"no sites", {}, 5, {0}, {0}},
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

// A registration made while a trace dump is being written finds the report
// due but cannot write it then; the report stays due and comes with the next
// registration, not 10 seconds later.
mem_stats* g_stats_during_dump;
char** symbolizer_that_registers(void* const* frames, int n) {
    if (mem_stats* s = g_stats_during_dump) {
        g_stats_during_dump = nullptr;
        unit::g_now = 1011;
        tarvex::block_info bi = unit::make_block(unit::fake_addr(2), 10, 2);
        s->insert_block_info(bi);
    }
    return unit::fake_symbolizer(frames, n);
}

TEST_F(TopReport, PeriodicReportKeptOutByATraceDumpStaysDue) {
    tarvex::backtrace bt(unit::fake_frames(4, 0x7d0d));
    g_ctx->m_symbols.update_bt_cache(bt);
    stats.trace_start();
    tarvex::block_info traced = unit::make_block(unit::fake_addr(1), 10, bt.get_cookie());
    stats.insert_block_info(traced);
    stats.trace_stop();
    g_stats_during_dump = &stats;
    tarvex::backtrace_symbols_cache::s_symbolizer = symbolizer_that_registers;
    stats.trace_dump();
    EXPECT_EQ(g_stats_during_dump, nullptr);
    std::string log = unit::read_file(unit::log_path());
    EXPECT_EQ(occurrences(log, "----------top by count"), 0u);
    EXPECT_EQ(stats.m_last_dump_time, 1000);

    tarvex::block_info next = unit::make_block(unit::fake_addr(3), 10, 3);
    stats.insert_block_info(next);
    log = unit::read_file(unit::log_path());
    EXPECT_EQ(occurrences(log, "----------trace"), 1u);
    EXPECT_EQ(occurrences(log, "----------top by count"), 1u);
    EXPECT_EQ(stats.m_last_dump_time, 1011);
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

// Four workers register, release and drain while a fifth thread writes
// trace dumps and top reports; the first worker traces its first 200
// iterations. Afterwards registry, counters, quarantine, trace and symbol
// cache hold exactly what the workers did.
TEST_F(TopReport, StoreStaysExactWhileReportsAreWritten) {
    const int workers = 4, iterations = 1500, sites = 8;
    struct result {
        std::map<uint32_t, std::pair<uint64_t, uint64_t>> live;  // per uid: count, size
        std::vector<void*> released, given_back;
        size_t traced = 0;
        bool ok = true;
    };
    std::vector<result> results(workers);
    std::atomic<int> running{workers};
    const size_t cached_before = g_ctx->m_symbols.bt_cache_size();
    int dumps = 0;
    // The workers start once the reports do, so that the two overlap however
    // the threads are scheduled.
    std::atomic<bool> reporting{false};
    unit::run_threads(workers + 1, [&](int w) {
        if (w == workers) {
            reporting = true;
            for (; dumps == 0 || (running.load() > 0 && dumps < 50); ++dumps) {
                stats.trace_dump();
                stats.dump_alloc_stats(5);
            }
            return;
        }
        while (!reporting.load()) std::this_thread::yield();
        result& res = results[size_t(w)];
        std::vector<tarvex::backtrace> stacks;
        for (int s = 0; s < sites; ++s) stacks.emplace_back(unit::fake_frames(6, uintptr_t(1000 + w * sites + s)));
        if (w == 0) stats.trace_start();
        for (int i = 0; i < iterations; ++i) {
            if (w == 0 && i == 200) stats.trace_stop();
            int tracing = w == 0 && i < 200;
            g_ctx->m_symbols.update_bt_cache(stacks[size_t(i % sites)]);
            uint32_t uid = stacks[size_t(i % sites)].get_cookie();
            size_t size = 1 + size_t(i) * 7919 % 60000;
            tarvex::block_info bi = unit::make_block(unit::fake_addr(uintptr_t(w) * 1000000 + uintptr_t(i)), size, uid);
            stats.insert_block_info(bi);
            res.traced += tracing;
            if (i % 3 == 0) {  // stays live
                res.live[uid].first += 1;
                res.live[uid].second += size;
                continue;
            }
            tarvex::block_info out;
            res.ok &= stats.find_and_remove_block_info(bi.m_addr, out);
            out.m_free_uid = stacks[size_t((i + 1) % sites)].get_cookie();
            stats.delayed_free(out);
            res.traced += tracing;
            res.released.push_back(out.m_addr);
            while (void* p = stats.get_next_to_free()) res.given_back.push_back(p);
        }
        --running;
    });
    EXPECT_GT(dumps, 0);
    EXPECT_EQ(g_ctx->m_symbols.bt_cache_size() - cached_before, size_t(workers * sites));

    std::map<uint32_t, std::pair<uint64_t, uint64_t>> live;
    std::vector<void*> given_back;
    std::set<void*> released;
    size_t live_blocks = 0;
    uint64_t live_bytes = 0;
    for (const result& r : results) {
        EXPECT_TRUE(r.ok);
        for (const auto& e : r.live) {
            live[e.first] = e.second;
            live_blocks += e.second.first;
            live_bytes += e.second.second;
        }
        given_back.insert(given_back.end(), r.given_back.begin(), r.given_back.end());
        released.insert(r.released.begin(), r.released.end());
    }
    EXPECT_EQ(stats.live_block_count(), live_blocks);
    EXPECT_EQ(stats.total_size(), live_bytes);
    ASSERT_EQ(stats.m_uid_stats.size(), live.size());
    for (const auto& e : live) {
        uint64_t count = 0, size = 0;
        EXPECT_TRUE(stats.uid_counters(e.first, count, size));
        EXPECT_EQ(std::make_pair(count, size), e.second) << std::hex << e.first;
    }

    // Every released block was given back once or is still held, never
    // both; what is held after a full drain is all in the quarantine.
    EXPECT_FALSE(given_back.empty());
    while (void* p = stats.get_next_to_free()) given_back.push_back(p);
    std::set<void*> accounted(given_back.begin(), given_back.end());
    EXPECT_EQ(accounted.size(), given_back.size());
    uint64_t waiting_bytes = 0;
    stats.m_delayed_free_queue.visit([&](const tarvex::quarantine::record& r, bool in_quarantine) {
        EXPECT_TRUE(in_quarantine) << "due after a drain: " << r.bi.m_addr;
        EXPECT_TRUE(accounted.insert(r.bi.m_addr).second) << "held twice: " << r.bi.m_addr;
        waiting_bytes += r.bi.m_alloc_size;
    });
    EXPECT_EQ(accounted, released);
    EXPECT_EQ(stats.quarantine_bytes(), waiting_bytes);
    EXPECT_LE(waiting_bytes, tarvex::k_quarantine_limit);

    // The trace holds the first worker's events while it traced, nothing else.
    EXPECT_EQ(stats.trace_length(), results[0].traced);
    for (const tarvex::block_info& r : stats.m_trace_list) EXPECT_EQ(results[0].live.count(r.m_alloc_uid), 1u);
}

}  // namespace
