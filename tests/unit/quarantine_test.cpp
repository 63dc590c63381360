// A quarantine lane's queue, and the quarantine of a forked child: the
// blocks it inherited stay where they are until a block that the child
// released itself is due.
#include <vector>

#include "trvx_quarantine.h"
#include "trvx_ring.h"
#include "unit_support.h"

namespace {

// Values keep their order while the queue grows segment by segment, its
// table of segments wraps and grows with the oldest value in the middle,
// and it empties and fills again at a segment's edge and inside one.
TEST(Ring, KeepsOrderAcrossSegmentsAndGrowth) {
    tarvex::ring<size_t> r;
    size_t next_in = 0, next_out = 0;
    auto check = [&] {
        ASSERT_EQ(r.size(), next_in - next_out);
        for (size_t i = 0; i < r.size(); i += 97) ASSERT_EQ(r[i], next_out + i) << i;
        if (!r.empty()) {
            ASSERT_EQ(r.front(), next_out);
        }
    };
    const std::pair<size_t, size_t> steps[] = {{3000, 2000}, {9000, 0}, {0, 10000}, {1024, 1024}, {5, 5}, {4000, 1}};
    for (auto [in, out] : steps) {
        for (size_t i = 0; i < in; ++i) r.push_back(next_in++);
        check();
        for (size_t i = 0; i < out; ++i, ++next_out) {
            ASSERT_EQ(r.front(), next_out);
            r.pop_front();
        }
        check();
        EXPECT_EQ(r.looks_empty(), r.empty());
    }
}

using unit::fake_addr;

class QuarantineFork : public ::testing::Test {
protected:
    tarvex::quarantine q;

    // Enters a block of 1000 + 280 bytes and gives back what is due, as the
    // release path does: a batch, then the rest of the own lane when the
    // batch was full.
    std::vector<void*> release(int i) {
        tarvex::block_info bi = unit::make_block(fake_addr(i), 1000, 1, 2);
        void* due[16];
        tarvex::quarantine::next_block next;
        size_t n = q.enter_and_take(bi, due, 16, next);
        std::vector<void*> out(due, due + n);
        if (n == 16)
            while (void* p = q.take_own_due()) out.push_back(p);
        return out;
    }
    void fork_child() {
        q.lock_all();
        q.mark_fork_child();
        q.unlock_all();
    }
};

std::vector<void*> addrs(int from, int to) {
    std::vector<void*> v;
    for (int i = from; i < to; ++i) v.push_back(fake_addr(i));
    return v;
}

const int k_fit = 8192;  // blocks of 1280 bytes that make exactly the limit

// The parent's 10 MiB become due one by one while the child releases its
// own, and stay; they leave the quarantine all the same. When the child's
// first block is due, everything due goes back, oldest first, and from then
// on one block per release.
TEST_F(QuarantineFork, ChildKeepsInheritedBlocksUntilItsOwnAreDue) {
    for (int i = 0; i < k_fit; ++i) ASSERT_TRUE(release(i).empty()) << i;
    fork_child();
    for (int i = k_fit; i < 2 * k_fit; ++i) ASSERT_TRUE(release(i).empty()) << i;
    EXPECT_EQ(q.count(), size_t(k_fit));
    EXPECT_EQ(q.bytes(), tarvex::k_quarantine_limit);
    tarvex::block_info out;
    EXPECT_FALSE(q.find(fake_addr(k_fit - 1), out));
    EXPECT_TRUE(q.find(fake_addr(k_fit), out));
    EXPECT_EQ(release(2 * k_fit), addrs(0, k_fit + 1));
    EXPECT_EQ(release(2 * k_fit + 1), addrs(k_fit + 1, k_fit + 2));
    EXPECT_EQ(q.count(), size_t(k_fit));
}

// A full drain (the one before an unknown block's usable size is asked)
// gives back the inherited blocks that are due, and only those.
TEST_F(QuarantineFork, FullDrainGivesBackInheritedBlocks) {
    for (int i = 0; i < k_fit; ++i) release(i);
    fork_child();
    for (int i = k_fit; i < k_fit + 3; ++i) ASSERT_TRUE(release(i).empty()) << i;
    std::vector<void*> drained;
    while (void* p = q.take_due()) drained.push_back(p);
    EXPECT_EQ(drained, addrs(0, 3));
}

// A child that forks before it released anything inherits nothing to keep.
TEST_F(QuarantineFork, EmptyQuarantineHoldsNothingBack) {
    fork_child();
    for (int i = 0; i < k_fit; ++i) ASSERT_TRUE(release(i).empty()) << i;
    EXPECT_EQ(release(k_fit), addrs(0, 1));
}

}  // namespace
