// The statistics store: registry and per-uid counters, the quarantine, trace
// recording and the trace dump.
#include <algorithm>
#include <cstdio>
#include <thread>

#include "unit_support.h"

namespace {

using tarvex::block_info;
using tarvex::mem_stats;
using unit::fake_addr;
using unit::make_block;

class Store : public unit::seams {
protected:
    mem_stats stats;

    std::pair<uint64_t, uint64_t> counters(uint32_t uid) {
        uint64_t count = 0, size = 0;
        stats.uid_counters(uid, count, size);
        return {count, size};
    }
    void insert(void* addr, size_t size, uint32_t uid) {
        block_info bi = make_block(addr, size, uid);
        stats.insert_block_info(bi);
    }
    // Releases into the quarantine and drains it, as the release path does;
    // returns what was given back, oldest first.
    std::vector<void*> release(void* addr, size_t size, uint32_t alloc_uid = 1, uint32_t free_uid = 2) {
        block_info bi = make_block(addr, size, alloc_uid, free_uid);
        stats.delayed_free(bi);
        std::vector<void*> given_back;
        while (void* p = stats.get_next_to_free()) given_back.push_back(p);
        return given_back;
    }
};

void expect_same_record(const block_info& a, const block_info& b) {
    EXPECT_EQ(a.m_addr, b.m_addr);
    EXPECT_EQ(a.m_size, b.m_size);
    EXPECT_EQ(a.m_alloc_size, b.m_alloc_size);
    EXPECT_EQ(a.m_alloc_uid, b.m_alloc_uid);
    EXPECT_EQ(a.m_free_uid, b.m_free_uid);
}

// Registration counts per uid; removal counts down (the count of
// registrations stays); an unknown address changes nothing, not even the
// record passed in; after the counters were cleared a removal still lowers
// the total and leaves its site at zero.
TEST_F(Store, RegistrationAndRemovalAreCounted) {
    block_info bi = make_block(fake_addr(1), 100, 0x77);
    stats.insert_block_info(bi);
    insert(fake_addr(2), 20, 0x77);
    EXPECT_EQ(counters(0x77), std::make_pair(uint64_t(2), uint64_t(120)));
    EXPECT_EQ(stats.live_block_count(), 2u);
    block_info out = make_block(fake_addr(99), 99, 0x99, 0x99);
    for (void* unknown : {fake_addr(3), static_cast<void*>(static_cast<char*>(fake_addr(1)) + 1), (void*)nullptr})
        EXPECT_FALSE(stats.find_and_remove_block_info(unknown, out));
    expect_same_record(out, make_block(fake_addr(99), 99, 0x99, 0x99));
    ASSERT_TRUE(stats.find_and_remove_block_info(fake_addr(1), out));
    expect_same_record(out, bi);
    EXPECT_FALSE(stats.find_and_remove_block_info(fake_addr(1), out));
    EXPECT_EQ(counters(0x77), std::make_pair(uint64_t(1), uint64_t(20)));
    EXPECT_EQ(stats.total_size(), 20u);
    EXPECT_EQ(stats.total_count(), 2u);
    EXPECT_EQ(stats.live_block_count(), 1u);

    stats.clear_alloc_stats();
    ASSERT_TRUE(stats.find_and_remove_block_info(fake_addr(2), out));
    EXPECT_EQ(counters(0x77), std::make_pair(uint64_t(0), uint64_t(0)));
    EXPECT_EQ(stats.total_size(), 0u);
    insert(fake_addr(3), 5, 0x77);
    EXPECT_EQ(counters(0x77), std::make_pair(uint64_t(1), uint64_t(5)));
}

// Records that the registry's compact entry cannot hold come back whole, and
// re-registering an address in the compact form forgets the unusual one.
TEST_F(Store, UnusualRecordsRoundTripThroughTheRegistry) {
    block_info rows[3] = {make_block(fake_addr(1), 10, 0x1), make_block(fake_addr(2), (uint64_t(1) << 32) + 5, 0x2),
                          make_block(fake_addr(3), 7, 0x3, 0xF3)};
    rows[0].m_alloc_size = 4096;
    for (block_info& bi : rows) stats.insert_block_info(bi);
    for (const block_info& bi : rows) {
        block_info out;
        ASSERT_TRUE(stats.find_block_info(bi.m_addr, out));
        expect_same_record(out, bi);
    }
    insert(fake_addr(1), 12, 0x4);
    block_info out;
    ASSERT_TRUE(stats.find_and_remove_block_info(fake_addr(1), out));
    expect_same_record(out, make_block(fake_addr(1), 12, 0x4));
    ASSERT_TRUE(stats.find_and_remove_block_info(fake_addr(2), out));
    expect_same_record(out, rows[1]);
}

// Many sites, uid 0 among them (the uid of every stack when stacks are not
// captured): each keeps its own counter while the counters' table grows.
TEST_F(Store, EverySiteKeepsItsCounterAsTheTableGrows) {
    for (uint32_t uid = 0; uid < 3000; ++uid) {
        insert(fake_addr(uid), uid + 1, uid);
        if (uid % 2 == 0) insert(fake_addr(100000 + uid), 7, uid);
    }
    for (uint32_t uid = 0; uid < 3000; ++uid)
        EXPECT_EQ(counters(uid), std::make_pair(uint64_t(uid % 2 ? 1 : 2), uint64_t(uid + 1 + (uid % 2 ? 0 : 7))))
            << uid;
    EXPECT_EQ(stats.m_uid_stats.size(), 3000u);
    uint64_t count = 0, size = 0;
    EXPECT_FALSE(stats.uid_counters(3000, count, size));
}

// ---------------------------------------------------------------- quarantine

TEST_F(Store, QuarantineHoldsTenMebibytesOldestFirst) {
    const int fit = 8192;  // 8192 blocks of 1000 + 280 bytes are exactly 10485760
    for (int i = 0; i < fit; ++i) ASSERT_TRUE(release(fake_addr(i), 1000).empty()) << i;
    EXPECT_EQ(stats.quarantine_bytes(), tarvex::k_quarantine_limit);
    EXPECT_EQ(stats.quarantine_block_count(), size_t(fit));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(release(fake_addr(fit + i), 1000), std::vector<void*>{fake_addr(i)});
    EXPECT_EQ(stats.quarantine_bytes(), tarvex::k_quarantine_limit);
    EXPECT_EQ(stats.m_delayed_free_queue.own_records().front().bi.m_addr, fake_addr(3));
}

// Ten large blocks and then many small ones: the queue grows while its
// oldest records sit in the middle of its array, and the order holds.
TEST_F(Store, ReleaseOrderHoldsWhileTheQueueGrows) {
    std::vector<void*> released, given_back;
    for (int i = 0; i < 10; ++i) released.push_back(fake_addr(i));
    for (int i = 0; i < 20000; ++i) released.push_back(fake_addr(100 + i));
    for (size_t i = 0; i < released.size(); ++i) {
        std::vector<void*> out = release(released[i], i < 10 ? (1u << 20) - 280 : 1000);
        given_back.insert(given_back.end(), out.begin(), out.end());
    }
    ASSERT_EQ(given_back.size(), released.size() - 8192);
    EXPECT_TRUE(std::equal(given_back.begin(), given_back.end(), released.begin()));
    block_info out;
    EXPECT_TRUE(stats.find_in_freed_list(released.back(), out));
    EXPECT_TRUE(stats.find_in_freed_list(released[released.size() - 8192], out));
    EXPECT_FALSE(stats.find_in_freed_list(released[released.size() - 8193], out));

    // A block of exactly the limit pushes out everything older and stays;
    // the emptied array shrinks on the way, and the order holds after it.
    std::vector<void*> rest(released.end() - 8192, released.end());
    EXPECT_EQ(release(fake_addr(50000), tarvex::k_quarantine_limit - 280), rest);
    EXPECT_EQ(release(fake_addr(50001), 1000), std::vector<void*>{fake_addr(50000)});
    EXPECT_TRUE(release(fake_addr(50002), 1000).empty());
    EXPECT_TRUE(stats.find_in_freed_list(fake_addr(50001), out));
    EXPECT_EQ(stats.quarantine_block_count(), 2u);
}

// A block larger than the limit pushes out everything and then itself; one
// of exactly the limit stays until one more byte follows.
TEST_F(Store, QuarantineLimitBoundaries) {
    EXPECT_EQ(stats.get_next_to_free(), nullptr);
    for (int i = 0; i < 3; ++i) release(fake_addr(i), 1000);
    EXPECT_EQ(release(fake_addr(10), 10485481),
              (std::vector<void*>{fake_addr(0), fake_addr(1), fake_addr(2), fake_addr(10)}));
    EXPECT_EQ(stats.quarantine_bytes(), 0u);
    EXPECT_EQ(stats.quarantine_block_count(), 0u);
    EXPECT_EQ(stats.get_next_to_free(), nullptr);
    EXPECT_TRUE(release(fake_addr(20), 10485480).empty());
    EXPECT_EQ(stats.quarantine_bytes(), tarvex::k_quarantine_limit);
    EXPECT_EQ(release(fake_addr(21), 1), std::vector<void*>{fake_addr(20)});
    EXPECT_EQ(stats.quarantine_bytes(), 281u);
}

// The released-bytes count wraps around after 2^64 bytes: the limit holds
// across the wrap as it does anywhere else.
TEST_F(Store, QuarantineHoldsItsLimitAcrossTheCountsWrap) {
    EXPECT_EQ(release(fake_addr(0), ~uint64_t(0) - tarvex::k_quarantine_limit / 2 - 280 + 1),
              std::vector<void*>{fake_addr(0)});
    for (int i = 1; i <= 8192; ++i) ASSERT_TRUE(release(fake_addr(i), 1000).empty()) << i;
    EXPECT_EQ(release(fake_addr(8193), 1000), std::vector<void*>{fake_addr(1)});
    EXPECT_EQ(stats.quarantine_bytes(), tarvex::k_quarantine_limit);
}

// Another thread's releases wait in a lane of their own, yet they leave in
// the one release order: once newer releases of any thread pass the limit,
// they are out of the quarantine (a second release is no double free any
// more), whether the releasing thread or a later drain gives them back.
TEST_F(Store, BlocksOfAQuietThreadLeaveInTheGlobalReleaseOrder) {
    std::thread([&] {
        for (int i = 0; i < 4; ++i) EXPECT_TRUE(release(fake_addr(i), 1000).empty());
    }).join();
    for (int i = 0; i < 8188; ++i) ASSERT_TRUE(release(fake_addr(100 + i), 1000).empty()) << i;
    EXPECT_EQ(stats.quarantine_bytes(), tarvex::k_quarantine_limit);

    // One more block: the other thread's oldest is due, and out of the
    // quarantine even before anyone gives it back.
    block_info bi = make_block(fake_addr(99), 1000, 1, 2);
    stats.delayed_free(bi);
    block_info out;
    EXPECT_FALSE(stats.find_in_freed_list(fake_addr(0), out));
    EXPECT_TRUE(stats.find_in_freed_list(fake_addr(1), out));
    EXPECT_EQ(stats.quarantine_bytes(), tarvex::k_quarantine_limit);
    EXPECT_EQ(stats.quarantine_block_count(), 8192u);
    std::vector<void*> given_back;
    while (void* p = stats.get_next_to_free()) given_back.push_back(p);
    EXPECT_EQ(given_back, std::vector<void*>{fake_addr(0)});

    // Three more, as the release path enters them: the other thread's next
    // three leave, each once, by this release or by the drain after it.
    given_back.clear();
    for (int i = 0; i < 3; ++i) {
        bi = make_block(fake_addr(90 + i), 1000, 1, 2);
        void* due[16];
        given_back.insert(given_back.end(), due, due + stats.delayed_free_and_take(bi, due, 16));
    }
    while (void* p = stats.get_next_to_free()) given_back.push_back(p);
    EXPECT_EQ(given_back, (std::vector<void*>{fake_addr(1), fake_addr(2), fake_addr(3)}));
}

// Nobody drains here: the release path alone gives back the quiet thread's
// blocks, a little after they are due, once each and in their order.
TEST_F(Store, ReleasesOfOtherThreadsSweepAQuietThreadsDueBlocks) {
    std::thread([&] {
        for (int i = 0; i < 4; ++i) {
            block_info bi = make_block(fake_addr(i), 1000, 1, 2);
            stats.delayed_free(bi);
        }
    }).join();
    std::vector<void*> given_back;
    for (int i = 0; i < 8192 + 1000; ++i) {
        block_info bi = make_block(fake_addr(100 + i), 1000, 1, 2);
        void* due[16];
        given_back.insert(given_back.end(), due, due + stats.delayed_free_and_take(bi, due, 16));
    }
    std::vector<void*> theirs;
    for (void* p : given_back)
        if (p < fake_addr(100)) theirs.push_back(p);
    EXPECT_EQ(theirs, (std::vector<void*>{fake_addr(0), fake_addr(1), fake_addr(2), fake_addr(3)}));
    EXPECT_EQ(given_back.size(), 4 + 1000u);
}

TEST_F(Store, FindInFreedListFindsExactAddressesWhileQuarantined) {
    block_info first = make_block(fake_addr(5), 10485000, 0xA, 0xF1);
    stats.delayed_free(first);
    block_info out = make_block(nullptr, 0, 0);
    ASSERT_TRUE(stats.find_in_freed_list(fake_addr(5), out));
    expect_same_record(out, first);
    block_info untouched = out;
    EXPECT_FALSE(stats.find_in_freed_list(static_cast<char*>(fake_addr(5)) + 16, out));
    expect_same_record(out, untouched);
    release(fake_addr(6), 1000);  // pushes the first block out
    EXPECT_FALSE(stats.find_in_freed_list(fake_addr(5), out));
    EXPECT_TRUE(stats.find_in_freed_list(fake_addr(6), out));
}

// ---------------------------------------------------------------- trace

// Runs f on a thread of its own and waits for it.
template <class F>
void on_other_thread(F f) {
    std::thread(f).join();
}

std::vector<std::pair<uint32_t, uint32_t>> uids_of(const mem_stats& stats) {
    std::vector<std::pair<uint32_t, uint32_t>> v;
    for (const block_info& r : stats.m_trace_list) v.emplace_back(r.m_alloc_uid, r.m_free_uid);
    return v;
}

// The trace records the thread that started it last, keeping the records
// of the one before; any thread may stop it; a clear empties the list and
// the trace goes on. (Which calls of the tracing thread are recorded, and in
// what order, is the reports tests' part.)
TEST_F(Store, TraceFollowsTheThreadThatStartedItLast) {
    typedef std::vector<std::pair<uint32_t, uint32_t>> records;
    stats.trace_start();
    insert(fake_addr(1), 8, 0x11);
    on_other_thread([&] {
        stats.trace_start();
        insert(fake_addr(2), 8, 0x12);
    });
    insert(fake_addr(3), 8, 0x13);
    EXPECT_EQ(uids_of(stats), (records{{0x11, 0}, {0x12, 0}}));
    on_other_thread([&] { stats.trace_stop(); });
    stats.trace_start();
    insert(fake_addr(4), 8, 0x14);
    stats.trace_clear();
    insert(fake_addr(5), 8, 0x15);
    EXPECT_EQ(uids_of(stats), (records{{0x15, 0}}));
    stats.trace_stop();
    insert(fake_addr(6), 8, 0x16);
    EXPECT_EQ(stats.trace_length(), 1u);
}

std::string uid_entry(uint32_t uid, const std::string& frame_text) {
    char head[32];
    snprintf(head, sizeof head, "uid: %08x, bt: ", uid);
    return head + frame_text + "\n\n";
}

TEST_F(Store, TraceDumpIsWrittenByteForByte) {
    const std::string uid_header = "\n----------uid to bt----------\n";
    const std::string trace_header = "\n----------trace----------\n";
    stats.trace_dump();
    EXPECT_EQ(unit::read_file(unit::log_path()), uid_header + trace_header);
    unit::remove_file(unit::log_path());

    // Stacks of 5, 2 and 3 frames: the first two lines are skipped only when
    // there are three or more.
    tarvex::backtrace s5(unit::fake_frames(5, 31)), s2(unit::fake_frames(2, 32)), s3(unit::fake_frames(3, 33));
    for (tarvex::backtrace* bt : {&s5, &s2, &s3}) g_ctx->m_symbols.update_bt_cache(*bt);
    const uint32_t u5 = s5.get_cookie(), u2 = s2.get_cookie(), u3 = s3.get_cookie();
    std::map<uint32_t, std::string> frame_text = {{u5, "\nL2\nL3\nL4"}, {u2, "\nL0\nL1"}, {u3, "\nL2"}, {0, ""}};

    stats.trace_start();
    insert(fake_addr(1), 24, u5);
    insert(fake_addr(2), 4096, u5);
    release(fake_addr(1), 24, u5, u2);
    insert(fake_addr(3), 7, 0);
    release(fake_addr(4), 1, u2, u3);
    std::string expected = uid_header;
    for (const auto& e : frame_text) expected += uid_entry(e.first, e.second);  // ascending uids
    expected += trace_header;
    char line[128];
    const struct {
        uint32_t alloc, free;
        int size;
    } records[] = {{u5, 0, 24}, {u5, 0, 4096}, {u5, u2, 24}, {0, 0, 7}, {u2, u3, 1}};
    for (const auto& r : records) {
        snprintf(line, sizeof line, "alloc_uid: %08x, free_uid: %08x, size: %d\n", r.alloc, r.free, r.size);
        expected += line;
    }
    stats.trace_dump();
    stats.trace_dump();  // the list is not consumed
    EXPECT_EQ(unit::read_file(unit::log_path()), expected + expected);
    EXPECT_TRUE(stats.m_trace_on);
}

}  // namespace
