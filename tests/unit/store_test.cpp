// The block record and its 280-byte footer, the block report, and the
// statistics store: registry and per-uid counters, the quarantine, trace
// recording and the trace dump.
#include <algorithm>
#include <cstring>
#include <future>
#include <map>
#include <thread>

#include "unit_support.h"

namespace {

using tarvex::block_info;
using tarvex::mem_stats;
using unit::fake_addr;
using unit::make_block;

const uint32_t k_alloc_uid = 0x11223344;

// A block of `size` bytes at `offset` into a buffer of a known pattern, with
// room for the footer and a tail that must stay untouched.
struct block_in_buffer {
    std::vector<unsigned char> buf, original;
    block_info bi;
    block_in_buffer(size_t offset, size_t size) : buf(offset + size + tarvex::k_footer_size + 16) {
        for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<unsigned char>(i * 7 + 3);
        original = buf;
        bi = make_block(buf.data() + offset, size, k_alloc_uid);
    }
    size_t footer_start() const { return static_cast<unsigned char*>(bi.m_addr) - buf.data() + bi.m_size; }
    unsigned char& at(size_t footer_offset) { return buf[footer_start() + footer_offset]; }
    template <class T>
    T read(size_t footer_offset) {
        T v;
        memcpy(&v, &at(footer_offset), sizeof v);
        return v;
    }
    // Every byte outside the footer range [from, to) is as it was.
    void expect_untouched_except(size_t from, size_t to) {
        for (size_t i = 0; i < buf.size(); ++i)
            if (i < footer_start() + from || i >= footer_start() + to) {
                EXPECT_EQ(buf[i], original[i]) << "byte " << i;
            }
    }
};

// Offsets and sizes that put the footer at odd, even and 8-aligned places.
// Creating writes the magic words and the uids (the free uid cleared) and
// nothing else; the frames are 32 entries padded with all-ones; verifying
// tests only the magic words and always writes the uids.
TEST(BlockFooter, WritesItsFieldsAtAnyAlignmentAndVerifiesTheMagics) {
    for (auto layout : {std::make_pair(0, 13), {1, 12}, {5, 7}, {2, 1}, {0, 16}}) {
        block_in_buffer b(size_t(layout.first), size_t(layout.second));
        ASSERT_NE(b.read<uint32_t>(268), 0u);
        EXPECT_EQ(reinterpret_cast<unsigned char*>(b.bi.create_footer()), &b.at(0));
        EXPECT_EQ(b.read<uint32_t>(0), 0xcafebabeu);
        EXPECT_EQ(b.read<uint32_t>(272), 0xcafebabeu);
        EXPECT_EQ(b.read<uint32_t>(264), k_alloc_uid);
        EXPECT_EQ(b.read<uint32_t>(268), 0u);
        b.expect_untouched_except(0, 276);
        for (size_t i = 4; i < 264; ++i) ASSERT_EQ(b.at(i), b.original[b.footer_start() + i]) << i;

        for (int corrupt : {-1, 0, 3, 272, 275, 4, 7, 8, 263, 264, 271, 276, 279}) {
            block_in_buffer c(size_t(layout.first), size_t(layout.second));
            c.bi.create_footer();
            if (corrupt >= 0) c.at(size_t(corrupt)) ^= 0xFF;
            c.bi.m_alloc_uid = 0xAAAA0001;
            c.bi.m_free_uid = 0xBBBB0002;
            EXPECT_EQ(c.bi.verify_footer(), corrupt < 0 || (corrupt > 3 && corrupt < 272) || corrupt > 275) << "byte " << corrupt;
            EXPECT_EQ(c.read<uint32_t>(264), 0xAAAA0001u);
            EXPECT_EQ(c.read<uint32_t>(268), 0xBBBB0002u);
        }
    }
    for (int n : {0, 1, 5, 31, 32, 33, 64}) {
        block_in_buffer b(1, 12);
        std::vector<void*> frames = unit::fake_frames(n, 3);
        tarvex::backtrace bt(frames);
        block_info::update_block_info_footer(bt, b.bi.footer());
        for (int i = 0; i < tarvex::k_footer_frames; ++i)
            EXPECT_EQ(b.read<uint64_t>(8 + 8 * size_t(i)),
                      i < n ? reinterpret_cast<uint64_t>(frames[size_t(i)]) : ~uint64_t(0))
                << n << " frames, entry " << i;
        b.expect_untouched_except(8, 264);
    }
}

// A uid whose stack is not known (here the allocating one) shows no lines.
// (The report with both stacks known is the end-to-end tests' part.)
TEST(BlockReport, ShowsNoLinesForAnUnknownUid) {
    tarvex::backtrace_symbols_cache::s_symbolizer = unit::fake_symbolizer;
    tarvex::backtrace bt(unit::fake_frames(3, 21));
    g_ctx->m_symbols.update_bt_cache(bt);
    block_in_buffer b(0, 16);
    b.bi.create_footer();
    b.at(0) = 0x41;
    b.bi.m_alloc_uid = 0x5eed;
    b.bi.m_free_uid = bt.get_cookie();
    std::vector<std::string> out = {"stale", "lines"};
    b.bi.format_block_info(out);
    char line[256];
    snprintf(line, sizeof line, "block: 0x%p, len: 16", b.bi.m_addr);
    EXPECT_EQ(out, (std::vector<std::string>{line, "magic1: 0xcafeba41, magic2: 0xcafebabe", "alloc call stack:",
                                             "free call stack:", "L0", "L1", "L2"}));
    tarvex::backtrace_symbols_cache::s_symbolizer = nullptr;
}

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

// Removal counts down (the count of registrations stays); an unknown
// address changes nothing, not even the record passed in; after the
// counters were cleared a removal leaves its site at zero.
TEST_F(Store, RegistrationAndRemovalAreCounted) {
    block_info bi = make_block(fake_addr(1), 100, 0x77);
    stats.insert_block_info(bi);
    insert(fake_addr(2), 20, 0x77);
    EXPECT_EQ(counters(0x77), std::make_pair(uint64_t(2), uint64_t(120)));
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
}

// Records that the registry's compact entry cannot hold come back whole, and
// re-registering an address in the compact form forgets the unusual one.
// Many sites, uid 0 among them, keep their counters while the table grows.
TEST_F(Store, UnusualRecordsAndManySites) {
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

    stats.m_uid_stats.clear();
    for (uint32_t uid = 0; uid < 3000; ++uid) insert(fake_addr(100 + uid), uid + 1, uid);
    for (uint32_t uid = 0; uid < 3000; ++uid) EXPECT_EQ(counters(uid), std::make_pair(uint64_t(1), uint64_t(uid + 1)));
    EXPECT_EQ(stats.m_uid_stats.size(), 3000u);
    uint64_t count = 0, size = 0;
    EXPECT_FALSE(stats.uid_counters(3000, count, size));
}

// Random registrations, re-registrations and removals of addresses packed
// into one region, against a map: long runs of colliding entries form and
// wrap around the tables' ends, and every removal closes its gap by moving
// later entries back. Every address then is found exactly when the map has
// it, with its record (unusual ones included).
TEST(Registry, AgreesWithAMapThroughLongCollidingRunsAndRemovals) {
    tarvex::block_registry registry;
    std::map<void*, block_info> model;
    uint64_t state = 12345;
    auto next = [&state] {
        state ^= state << 13, state ^= state >> 7, state ^= state << 17;
        return state;
    };
    auto check = [&](void* addr) {
        block_info out;
        auto it = model.find(addr);
        ASSERT_EQ(registry.find(addr, out), it != model.end()) << addr;
        if (it != model.end()) expect_same_record(out, it->second);
    };
    for (int op = 0; op < 200000; ++op) {
        void* addr = fake_addr(next() % 6000);
        uint64_t r = next();
        if (r % 5 < 3) {
            block_info bi = make_block(addr, 1 + r % 900, uint32_t(r >> 32));
            if (r % 97 == 0) bi.m_alloc_size += 16;
            registry.insert(bi);
            model[addr] = bi;
        } else {
            block_info out;
            auto it = model.find(addr);
            ASSERT_EQ(registry.remove(addr, out), it != model.end());
            if (it != model.end()) {
                expect_same_record(out, it->second);
                model.erase(it);
            }
        }
        if (op % 1000 == 0)
            for (uintptr_t n = 0; n < 6000; ++n) check(fake_addr(n));
    }
    EXPECT_EQ(registry.size(), model.size());
    for (uintptr_t n = 0; n < 6000; ++n) check(fake_addr(n));
}

// Ten large blocks and then many small ones: the queue grows while its
// oldest records sit in the middle of its array, and the order holds. A
// block of exactly the limit pushes out everything older and stays; the
// emptied array shrinks on the way, and the order holds after it.
TEST_F(Store, ReleaseOrderHoldsWhileTheQueueGrowsAndShrinks) {
    std::vector<void*> released, given_back;
    for (int i = 0; i < 10; ++i) released.push_back(fake_addr(i));
    for (int i = 0; i < 20000; ++i) released.push_back(fake_addr(100 + i));
    for (size_t i = 0; i < released.size(); ++i) {
        std::vector<void*> out = release(released[i], i < 10 ? (1u << 20) - 280 : 1000);
        given_back.insert(given_back.end(), out.begin(), out.end());
    }
    ASSERT_EQ(given_back.size(), released.size() - 8192);
    EXPECT_TRUE(std::equal(given_back.begin(), given_back.end(), released.begin()));
    std::vector<void*> rest(released.end() - 8192, released.end());
    EXPECT_EQ(release(fake_addr(50000), tarvex::k_quarantine_limit - 280), rest);
    EXPECT_EQ(release(fake_addr(50001), 1000), std::vector<void*>{fake_addr(50000)});
    EXPECT_TRUE(release(fake_addr(50002), 1000).empty());
    EXPECT_EQ(stats.quarantine_block_count(), 2u);
}

// A block larger than the limit pushes out everything and then itself; one
// of exactly the limit stays until one more byte follows. (The released-bytes
// count wraps around after 2^64 bytes: the limit holds across the wrap.)
TEST_F(Store, QuarantineLimitBoundaries) {
    EXPECT_EQ(stats.get_next_to_free(), nullptr);
    for (int i = 0; i < 3; ++i) release(fake_addr(i), 1000);
    EXPECT_EQ(release(fake_addr(10), 10485481),
              (std::vector<void*>{fake_addr(0), fake_addr(1), fake_addr(2), fake_addr(10)}));
    EXPECT_EQ(stats.quarantine_bytes(), 0u);
    EXPECT_EQ(stats.quarantine_block_count(), 0u);
    EXPECT_TRUE(release(fake_addr(20), 10485480).empty());
    EXPECT_EQ(stats.quarantine_bytes(), tarvex::k_quarantine_limit);
    EXPECT_EQ(release(fake_addr(21), 1), std::vector<void*>{fake_addr(20)});
    EXPECT_EQ(stats.quarantine_bytes(), 281u);
}

TEST_F(Store, QuarantineHoldsItsLimitAcrossTheCountsWrap) {
    EXPECT_EQ(release(fake_addr(0), ~uint64_t(0) - tarvex::k_quarantine_limit / 2 - 280 + 1),
              std::vector<void*>{fake_addr(0)});
    for (int i = 1; i <= 8192; ++i) ASSERT_TRUE(release(fake_addr(i), 1000).empty()) << i;
    EXPECT_EQ(release(fake_addr(8193), 1000), std::vector<void*>{fake_addr(1)});
    EXPECT_EQ(stats.quarantine_bytes(), tarvex::k_quarantine_limit);
}

// Another thread's releases wait in a lane of their own. Nobody drains here:
// the release path alone gives back (release_as_the_path_does) the blocks
// of a thread that is quiet but alive a little after they are due, once each
// and in their order; those of a thread that has exited at the very release
// that pushes them out, in release order with the releasing thread's own.
TEST_F(Store, ReleasesOfOtherThreadsGiveBackQuietAndExitedThreadsBlocks) {
    auto release_as_the_path_does = [&](void* addr, size_t size) {
        block_info bi = make_block(addr, size, 1, 2);
        void* due[16];
        std::vector<void*> out(due, due + stats.delayed_free_and_take(bi, due, 16));
        if (out.size() == 16)
            while (void* p = stats.get_next_own_to_free()) out.push_back(p);
        return out;
    };
    std::promise<void> released, done;
    std::thread quiet([&] {
        for (int i = 0; i < 4; ++i) release_as_the_path_does(fake_addr(i), 1000);
        released.set_value();
        done.get_future().wait();
    });
    released.get_future().wait();
    std::vector<void*> given_back, theirs;
    for (int i = 0; i < 8192 + 1000; ++i) {
        std::vector<void*> out = release_as_the_path_does(fake_addr(100 + i), 1000);
        given_back.insert(given_back.end(), out.begin(), out.end());
    }
    done.set_value();
    quiet.join();
    for (void* p : given_back)
        if (p < fake_addr(100)) theirs.push_back(p);
    EXPECT_EQ(theirs, (std::vector<void*>{fake_addr(0), fake_addr(1), fake_addr(2), fake_addr(3)}));
    EXPECT_EQ(given_back.size(), 4 + 1000u);

    // One block over the limit pushes out everything, and then itself.
    EXPECT_EQ(release_as_the_path_does(fake_addr(20000), tarvex::k_quarantine_limit).back(), fake_addr(20000));
    std::vector<void*> order{fake_addr(30000)};  // 1280 bytes, like all but the last
    ASSERT_TRUE(release_as_the_path_does(order.back(), 1000).empty());
    std::thread([&] {
        for (int i = 0; i < 8190; ++i) {
            order.push_back(fake_addr(40000 + i));
            release_as_the_path_does(order.back(), 1000);
        }
    }).join();
    for (int i = 0; i < 3; ++i) order.push_back(fake_addr(30001 + i));
    EXPECT_TRUE(release_as_the_path_does(order[8191], 1000).empty());  // exactly 10 MiB
    EXPECT_EQ(release_as_the_path_does(order[8192], 1000), std::vector<void*>{order[0]});
    EXPECT_EQ(release_as_the_path_does(order[8193], 1000), std::vector<void*>{order[1]});
    order.push_back(fake_addr(30004));
    std::vector<void*> rest(order.begin() + 2, order.end());
    EXPECT_EQ(release_as_the_path_does(order.back(), tarvex::k_quarantine_limit), rest);
}

std::vector<uint32_t> traced_uids(const mem_stats& stats) {
    std::vector<uint32_t> v;
    for (const block_info& r : stats.m_trace_list) v.push_back(r.m_alloc_uid);
    return v;
}

// The trace records the thread that started it last, keeping the records
// of the one before; any thread may stop it; a clear empties the list and
// the trace goes on.
TEST_F(Store, TraceFollowsTheThreadThatStartedItLast) {
    stats.trace_start();
    insert(fake_addr(1), 8, 0x11);
    std::thread([&] {
        stats.trace_start();
        insert(fake_addr(2), 8, 0x12);
    }).join();
    insert(fake_addr(3), 8, 0x13);
    EXPECT_EQ(traced_uids(stats), (std::vector<uint32_t>{0x11, 0x12}));
    std::thread([&] { stats.trace_stop(); }).join();
    stats.trace_start();
    insert(fake_addr(4), 8, 0x14);
    stats.trace_clear();
    insert(fake_addr(5), 8, 0x15);
    stats.trace_stop();
    insert(fake_addr(6), 8, 0x16);
    EXPECT_EQ(traced_uids(stats), (std::vector<uint32_t>{0x15}));
}

// With stacks of 5, 2 and 3 frames: the first two lines are skipped only
// when there are three or more; uids ascend; the list is not consumed.
TEST_F(Store, TraceDumpIsWrittenByteForByte) {
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
    std::string expected = "\n----------uid to bt----------\n";
    char line[128];
    for (const auto& e : frame_text) {
        snprintf(line, sizeof line, "uid: %08x, bt: ", e.first);
        expected += line + e.second + "\n\n";
    }
    expected += "\n----------trace----------\n";
    const uint32_t records[][3] = {{u5, 0, 24}, {u5, 0, 4096}, {u5, u2, 24}, {0, 0, 7}, {u2, u3, 1}};
    for (const auto& r : records) {
        snprintf(line, sizeof line, "alloc_uid: %08x, free_uid: %08x, size: %u\n", r[0], r[1], r[2]);
        expected += line;
    }
    stats.trace_dump();
    stats.trace_dump();
    EXPECT_EQ(unit::read_file(unit::log_path()), expected + expected);
}

}  // namespace
