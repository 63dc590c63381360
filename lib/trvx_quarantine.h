// The quarantine of released blocks: 10 MiB of them, given back oldest
// release first once the sum of their allocation sizes exceeds the limit.
//
// Which blocks are in the quarantine follows from one number, the count of
// bytes released into it so far (every entry adds its allocation size). A
// block that entered when the count was `start` has as many bytes released
// after and including it as the count has grown since, so it is due exactly
// when count - start > limit: the quarantine always holds the longest run of
// newest releases that together take at most the limit, as a queue drained
// oldest first while its sum exceeds the limit would.
//
// The count is the only word that every release of every thread writes. The
// records themselves wait in lanes, one per group of threads, each in
// release order under its own lock: a thread writes and gives back its own
// records in memory of its own, and threads that release at the same time
// do not take turns on one lock or on one array. A thread gives back the due
// records of its own lane when it releases; the due records of a lane whose
// threads have stopped releasing are given back by the other threads, one
// lane in use every few dozen releases, and by every full drain (take_due).
// A due record that still waits in its lane is out of the quarantine all the
// same: find() does not report it, bytes() and count() do not count it. A
// forked child leaves its parent's due records waiting until its own first
// record is due (holds_inherited).
//
// A lane whose threads have all exited (or, in a forked child, do not exist)
// is an orphan: nobody of its own will give its records back. Every release
// then gives back the due records of the orphan lanes together with those of
// its own lane, oldest release first, as one queue drained by that release
// would: a program whose releasing threads come and go (a worker that is
// joined, a child) gets its blocks back at the release that pushes them out.
#pragma once

#include <cstddef>
#include <cstdint>

#include "trvx_block.h"
#include "trvx_lock.h"
#include "trvx_ring.h"

namespace tarvex {

constexpr uint64_t k_quarantine_limit = 10485760;

class quarantine {
public:
    struct record {
        block_info bi;
        uint64_t start;  // the released-bytes count when the block entered
    };
    static constexpr size_t k_lanes = 64;

    quarantine();
    quarantine(const quarantine&) = delete;
    quarantine& operator=(const quarantine&) = delete;

    // Enters bi and takes up to max due blocks, the calling thread's lane's
    // first, oldest first. The oldest block left in that lane, the next that
    // this thread will give back, goes to next (address null if none).
    // Throws std::bad_alloc when the lane cannot grow; nothing changes then.
    struct next_block {
        void* addr = nullptr;
        size_t alloc_size = 0;
    };
    size_t enter_and_take(const block_info& bi, void** due, size_t max, next_block& next);
    // The oldest due block of any lane; null when none is due.
    void* take_due();
    // The oldest due block of the calling thread's lane and of the orphan
    // lanes, or null.
    void* take_own_due();
    // The record of addr while its block is in the quarantine.
    bool find(void* addr, block_info& out);
    // Asks for the released-bytes count's line, for writing, at the start
    // of a release: with threads releasing on several cores the line is
    // usually in another core's cache, and fetching it takes a few hundred
    // cycles that the capture and the registry's work can hide.
    void prefetch_count() const {
        if (m_prefetchw) asm volatile("prefetchw %0" ::"m"(m_released));
    }
    // Sum of the allocation sizes and count of the blocks in the quarantine.
    uint64_t bytes();
    size_t count();

    // Calls f(record, in_quarantine) for every record still in a lane, each
    // lane under its lock. For fault reports, views and tests.
    template <class F>
    void visit(F f);

    // fork: every lane's lock is held across fork.
    void lock_all();
    void unlock_all();
    // In the child, with every lane's lock still held: the records in the
    // lanes now are the parent's.
    void mark_fork_child();

    // Test seam: the lane of the calling thread.
    ring<record>& own_records() { return own_lane().records; }

private:
    struct alignas(64) lane {
        spin_lock lock;
        ring<record> records;
        // The start of the oldest record, stored under the lock whenever it
        // changes, for releases that look into orphan lanes without it.
        uint64_t front_start = 0;
    };

    lane& own_lane();
    uint64_t orphans_in_use(const lane& own) const;
    size_t take_oldest(uint64_t lanes, uint64_t now, void** due, size_t max, bool all);
    uint64_t lane_bit(const lane& l) const { return uint64_t(1) << (&l - m_lanes); }
    static void publish_front(lane& l);
    uint64_t released() const { return __atomic_load_n(&m_released, __ATOMIC_ACQUIRE); }
    static bool is_due(const record& r, uint64_t released);
    bool holds_inherited(uint64_t released);
    size_t take_locked(lane& l, uint64_t released, void** due, size_t max, bool all = false);
    size_t take_from(lane& l, void** due, size_t max);
    size_t sweep_one(void** due, size_t max);
    void mark_in_use(const lane& l, bool in_use);

    alignas(64) uint64_t m_released = 0;
    // Bit i: lane i holds records. Read by the sweeps, written rarely.
    alignas(64) uint64_t m_lanes_in_use = 0;
    // The count at the last fork, in a child whose lanes still hold its
    // parent's records (see holds_inherited). Read by every release.
    uint64_t m_fork_released = 0;
    bool m_inherited_held = false;
    // The processor has the prefetch-for-writing instruction.
    bool m_prefetchw = false;
    lane m_lanes[k_lanes];
};

template <class F>
void quarantine::visit(F f) {
    for (lane& l : m_lanes) {
        spin_guard guard(l.lock);
        uint64_t now = released();
        for (size_t i = 0; i < l.records.size(); ++i) f(l.records[i], !is_due(l.records[i], now));
    }
}

}  // namespace tarvex
