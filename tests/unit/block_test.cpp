// The block record, its 280-byte footer at unaligned addresses, and the
// block report.
#include <cstring>

#include "unit_support.h"

namespace {

using tarvex::block_info;

const uint32_t k_alloc_uid = 0x11223344;

// A block of `size` bytes at `offset` into a buffer filled with a known
// pattern, with room for the footer and a tail that must stay untouched.
struct block_in_buffer {
    std::vector<unsigned char> buf, original;
    block_info bi;
    block_in_buffer(size_t offset, size_t size) : buf(offset + size + tarvex::k_footer_size + 16) {
        for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<unsigned char>(i * 7 + 3);
        original = buf;
        bi = unit::make_block(buf.data() + offset, size, k_alloc_uid);
    }
    size_t footer_start() const { return static_cast<unsigned char*>(bi.m_addr) - buf.data() + bi.m_size; }
    unsigned char& at(size_t footer_offset) { return buf[footer_start() + footer_offset]; }
    uint32_t word(size_t footer_offset) {
        uint32_t v;
        memcpy(&v, &at(footer_offset), 4);
        return v;
    }
    uint64_t frame(int i) {
        uint64_t v;
        memcpy(&v, &at(8 + 8 * size_t(i)), 8);
        return v;
    }
    // Every byte outside the footer ranges [from, to) is as it was.
    void expect_untouched_except(std::initializer_list<std::pair<size_t, size_t>> written) {
        for (size_t i = 0; i < buf.size(); ++i) {
            bool in_written = false;
            for (auto r : written)
                in_written |= i >= footer_start() + r.first && i < footer_start() + r.second;
            if (!in_written) {
                EXPECT_EQ(buf[i], original[i]) << "byte " << i;
            }
        }
    }
};

// Offsets and sizes that put the footer at odd, even and 8-aligned places.
const std::pair<size_t, size_t> k_layouts[] = {{0, 13}, {1, 12}, {5, 7}, {2, 1}, {0, 16}};

TEST(BlockFooter, CreateWritesMagicsAndUidsOnly) {
    for (auto layout : k_layouts) {
        block_in_buffer b(layout.first, layout.second);
        ASSERT_NE(b.word(268), 0u);  // the free uid must be cleared, not just left at 0
        tarvex::block_info_footer* f = b.bi.create_footer();
        EXPECT_EQ(reinterpret_cast<unsigned char*>(f), &b.at(0));
        const unsigned char magic[] = {0xBE, 0xBA, 0xFE, 0xCA};
        EXPECT_EQ(memcmp(&b.at(0), magic, 4), 0);
        EXPECT_EQ(memcmp(&b.at(272), magic, 4), 0);
        EXPECT_EQ(b.word(264), k_alloc_uid);
        EXPECT_EQ(b.word(268), 0u);
        b.expect_untouched_except({{0, 4}, {264, 276}});
    }
}

TEST(BlockFooter, UpdateWritesThirtyTwoFramesPaddedWithAllOnes) {
    for (int n : {0, 1, 5, 31, 32, 33, 64}) {
        block_in_buffer b(1, 12);
        std::vector<void*> frames = unit::fake_frames(n, 3);
        tarvex::backtrace bt(frames);
        block_info::update_block_info_footer(bt, b.bi.footer());
        for (int i = 0; i < tarvex::k_footer_frames; ++i)
            EXPECT_EQ(b.frame(i), i < n ? reinterpret_cast<uint64_t>(frames[size_t(i)]) : ~uint64_t(0))
                << n << " frames, entry " << i;
        b.expect_untouched_except({{8, 264}});
    }
}

TEST(BlockFooter, VerifyTestsOnlyTheMagicsAndAlwaysWritesTheUids) {
    const struct {
        int corrupt;  // footer offset of the flipped byte, -1 for none
        bool intact;
    } rows[] = {{-1, true}, {0, false}, {3, false}, {272, false}, {275, false}, {4, true},
                {7, true},  {8, true},  {263, true}, {264, true}, {271, true}, {276, true}, {279, true}};
    for (auto layout : k_layouts)
        for (auto r : rows) {
            block_in_buffer b(layout.first, layout.second);
            b.bi.create_footer();
            if (r.corrupt >= 0) b.at(size_t(r.corrupt)) ^= 0xFF;
            b.bi.m_alloc_uid = 0xAAAA0001;
            b.bi.m_free_uid = 0xBBBB0002;
            EXPECT_EQ(b.bi.verify_footer(), r.intact) << "byte " << r.corrupt;
            EXPECT_EQ(b.word(264), 0xAAAA0001u);
            EXPECT_EQ(b.word(268), 0xBBBB0002u);
        }
}

class BlockReport : public unit::seams {};

TEST_F(BlockReport, ShowsTheMagicsAndBothStacks) {
    tarvex::backtrace bt(unit::fake_frames(3, 21));
    g_ctx->m_symbols.update_bt_cache(bt);
    block_in_buffer b(0, 16);
    b.bi.create_footer();
    b.at(0) = 0x41;
    char line[256];
    snprintf(line, sizeof line, "block: 0x%p, len: 16", b.bi.m_addr);

    const struct {
        uint32_t alloc_uid, free_uid;
        std::vector<std::string> stacks;  // lines after the magic line
    } rows[] = {
        {bt.get_cookie(), bt.get_cookie(),
         {"alloc call stack:", "L0", "L1", "L2", "free call stack:", "L0", "L1", "L2"}},
        {bt.get_cookie(), 0, {"alloc call stack:", "L0", "L1", "L2", "free call stack:"}},
        {0x5eed, bt.get_cookie(), {"alloc call stack:", "free call stack:", "L0", "L1", "L2"}},
    };
    for (const auto& r : rows) {
        b.bi.m_alloc_uid = r.alloc_uid;
        b.bi.m_free_uid = r.free_uid;
        std::vector<std::string> out = {"stale", "lines"};
        b.bi.format_block_info(out);
        std::vector<std::string> expected = {line, "magic1: 0xcafeba41, magic2: 0xcafebabe"};
        expected.insert(expected.end(), r.stacks.begin(), r.stacks.end());
        EXPECT_EQ(out, expected);
    }
}

}  // namespace
