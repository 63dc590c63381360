// Many threads at once: the guard, the symbol cache, and the store with its
// quarantine while reports are written.
#include <map>
#include <set>
#include <thread>

#include "unit_support.h"

namespace {

using tarvex::block_info;
using tarvex::mem_stats;

template <class F>
void run_threads(int n, F body) {
    unit::start_gate gate;
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back([&, i] {
            gate.wait();
            body(i);
        });
    gate.open();
    for (std::thread& t : threads) t.join();
}

TEST(GuardConcurrency, AdmitsMoreThreadsThanSlots) {
    tarvex::thread_map map;
    const int threads = 40, rounds = 500;
    std::atomic<int> inside{0}, failures{0};
    run_threads(threads, [&](int) {
        // All 40 inside at once: 32 in slots, 8 recorded without one.
        if (!map.check_and_set_current_thread()) ++failures;
        ++inside;
        while (inside.load() < threads) std::this_thread::yield();
        if (map.check_and_set_current_thread()) ++failures;
        map.remove_current_thread();
        for (int r = 0; r < rounds; ++r) {
            if (!map.check_and_set_current_thread()) ++failures;
            if (map.check_and_set_current_thread() || !map.is_current_thread_inside()) ++failures;
            map.remove_current_thread();
            if (map.is_current_thread_inside()) ++failures;
        }
    });
    EXPECT_EQ(failures, 0);
    for (int i = 0; i < tarvex::thread_map::k_slots; ++i) EXPECT_EQ(map.slot(i), pthread_t(0));
}

class Concurrency : public unit::seams {};

TEST_F(Concurrency, SymbolCacheBuildsOneEntryForManyThreads) {
    tarvex::backtrace_symbols_cache cache;
    const tarvex::backtrace stack(unit::fake_frames(10, 77));
    const int threads = 16;
    std::vector<std::vector<std::string>> lines(threads);
    std::vector<char> found(threads, 0);
    run_threads(threads, [&](int i) {
        tarvex::backtrace bt = stack;
        cache.update_bt_cache(bt);
        found[size_t(i)] = cache.find_and_update_bt_sym(lines[size_t(i)], bt.get_cookie());
    });
    EXPECT_EQ(cache.bt_cache_size(), 1u);
    std::vector<std::string> expected;
    for (int i = 0; i < 10; ++i) expected.push_back("L" + std::to_string(i));
    for (int i = 0; i < threads; ++i) {
        EXPECT_TRUE(found[size_t(i)]);
        EXPECT_EQ(lines[size_t(i)], expected);
    }
    EXPECT_EQ(unit::last_symbolized(), unit::fake_frames(10, 77));
    EXPECT_GE(unit::g_symbolizer_calls, 1);
    EXPECT_LE(unit::g_symbolizer_calls, threads);
}

TEST_F(Concurrency, StoreAndQuarantineStayExactWhileReportsAreWritten) {
    mem_stats stats;
    const int workers = 4, iterations = 1500, traced_iterations = 200, sites = 8;
    struct result {
        std::map<uint32_t, std::pair<uint64_t, uint64_t>> live;  // per uid: count, size
        size_t live_blocks = 0;
        uint64_t live_bytes = 0;
        std::vector<void*> released, given_back;
        size_t traced = 0;
        std::set<uint32_t> uids;
        bool ok = true;
    };
    std::vector<result> results(workers);
    std::atomic<int> running{workers};
    int dumps = 0;

    run_threads(workers + 1, [&](int w) {
        if (w == workers) {  // the reporting thread
            do {
                stats.trace_dump();
                stats.dump_alloc_stats(5);
                ++dumps;
            } while (running.load() > 0 && dumps < 50);
            return;
        }
        result& res = results[size_t(w)];
        std::vector<tarvex::backtrace> stacks;
        for (int s = 0; s < sites; ++s) stacks.emplace_back(unit::fake_frames(6, uintptr_t(1000 + w * sites + s)));
        if (w == 0) stats.trace_start();
        for (int i = 0; i < iterations; ++i) {
            if (w == 0 && i == traced_iterations) stats.trace_stop();
            bool tracing = w == 0 && i < traced_iterations;
            tarvex::backtrace& alloc_bt = stacks[size_t(i % sites)];
            g_ctx->m_symbols.update_bt_cache(alloc_bt);
            uint32_t uid = alloc_bt.get_cookie();
            res.uids.insert(uid);
            size_t size = 1 + size_t(i) * 7919 % 60000;
            block_info bi = unit::make_block(unit::fake_addr(uintptr_t(w) * 1000000 + uintptr_t(i)), size, uid);
            stats.insert_block_info(bi);
            res.traced += tracing;
            if (i % 3 == 0) {  // stays live
                auto& c = res.live[uid];
                c.first += 1;
                c.second += size;
                res.live_blocks += 1;
                res.live_bytes += size;
                continue;
            }
            block_info out;
            res.ok &= stats.find_and_remove_block_info(bi.m_addr, out);
            out.m_free_uid = stacks[size_t((i + 1) % sites)].get_cookie();
            stats.delayed_free(out);
            res.traced += tracing;
            res.released.push_back(out.m_addr);
            while (void* p = stats.get_next_to_free()) res.given_back.push_back(p);
        }
        --running;
    });

    std::map<uint32_t, std::pair<uint64_t, uint64_t>> live;
    size_t live_blocks = 0;
    uint64_t live_bytes = 0;
    std::multiset<void*> given_back;
    std::set<void*> released;
    for (const result& r : results) {
        EXPECT_TRUE(r.ok);
        for (const auto& e : r.live) live[e.first] = e.second;
        live_blocks += r.live_blocks;
        live_bytes += r.live_bytes;
        given_back.insert(r.given_back.begin(), r.given_back.end());
        released.insert(r.released.begin(), r.released.end());
    }
    EXPECT_GT(dumps, 0);

    // Registry and counters.
    EXPECT_EQ(stats.live_block_count(), live_blocks);
    EXPECT_EQ(stats.total_size(), live_bytes);
    ASSERT_EQ(stats.m_uid_stats.size(), live.size());
    for (const auto& e : live) {
        uint64_t count = 0, size = 0;
        EXPECT_TRUE(stats.uid_counters(e.first, count, size));
        EXPECT_EQ(std::make_pair(count, size), e.second) << std::hex << e.first;
    }

    // Quarantine: every released block was given back once or is still
    // held, never both; what is held is the quarantine's newest 10 MiB and
    // what is due but still waits for a thread to give it back, which a
    // full drain then does.
    EXPECT_FALSE(given_back.empty());
    while (void* p = stats.get_next_to_free()) given_back.insert(p);
    EXPECT_EQ(std::set<void*>(given_back.begin(), given_back.end()).size(), given_back.size());
    uint64_t waiting_bytes = 0;
    std::set<void*> accounted(given_back.begin(), given_back.end());
    stats.m_delayed_free_queue.visit([&](const tarvex::quarantine::record& r, bool in_quarantine) {
        EXPECT_TRUE(in_quarantine) << "due after a drain: " << r.bi.m_addr;
        EXPECT_TRUE(accounted.insert(r.bi.m_addr).second) << "held twice: " << r.bi.m_addr;
        waiting_bytes += r.bi.m_alloc_size;
    });
    EXPECT_EQ(accounted, released);
    EXPECT_EQ(stats.quarantine_bytes(), waiting_bytes);
    EXPECT_LE(waiting_bytes, tarvex::k_quarantine_limit);

    // Trace: the first worker's events while it traced, and nothing else.
    EXPECT_EQ(stats.trace_length(), results[0].traced);
    for (const block_info& r : stats.m_trace_list) EXPECT_EQ(results[0].uids.count(r.m_alloc_uid), 1u);
    EXPECT_NE(unit::read_file(unit::log_path()).find("----------trace----------"), std::string::npos);
}

}  // namespace
