#include "trvx_quarantine.h"

#include <cpuid.h>

#include "trvx_thread_exit.h"
#include "trvx_util.h"

namespace tarvex {

namespace {
// Threads take lanes in the order of their first release; a lane is shared
// only by threads whose numbers are k_lanes apart.
__thread int t_lane = -1;
int g_threads_seen = 0;
// Releases until this thread next looks into another thread's lane, and
// which lane that is.
__thread unsigned t_until_sweep = 0;
__thread unsigned t_sweep_lane = 0;
constexpr unsigned k_sweep_every = 32;
// How long, in bytes released after it was due, a block waits for its own
// thread before a sweep gives it back.
constexpr uint64_t k_sweep_after = 1 << 20;

// Live threads per lane, and the lanes that have none (bit i: lane i). A
// thread counts from its first release until it exits, which a key's
// destructor tells.
int g_lane_threads[quarantine::k_lanes];
uint64_t g_orphan_lanes;

void lane_thread_exits(void* value) {
    int lane = int(reinterpret_cast<uintptr_t>(value) - 1);
    uint64_t bit = uint64_t(1) << lane;
    if (__atomic_fetch_sub(&g_lane_threads[lane], 1, __ATOMIC_ACQ_REL) != 1) return;
    __atomic_fetch_or(&g_orphan_lanes, bit, __ATOMIC_RELEASE);
    // A thread that took the lane meanwhile keeps it its own.
    if (__atomic_load_n(&g_lane_threads[lane], __ATOMIC_ACQUIRE) != 0)
        __atomic_fetch_and(&g_orphan_lanes, ~bit, __ATOMIC_RELEASE);
}

// No lane lock is held here.
void join_lane(int lane) {
    if (__atomic_fetch_add(&g_lane_threads[lane], 1, __ATOMIC_ACQ_REL) == 0)
        __atomic_fetch_and(&g_orphan_lanes, ~(uint64_t(1) << lane), __ATOMIC_RELEASE);
    thread_exit_key<lane_thread_exits>::set(reinterpret_cast<void*>(uintptr_t(lane) + 1));
}

__attribute__((noinline)) void take_a_lane() {
    int lane = __atomic_fetch_add(&g_threads_seen, 1, __ATOMIC_RELAXED) & int(quarantine::k_lanes - 1);
    join_lane(lane);
    t_lane = lane;
}
}  // namespace

quarantine::quarantine() {
    unsigned eax, ebx, ecx, edx;
    m_prefetchw = __get_cpuid(0x80000001, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_PRFCHW) != 0;
}

quarantine::lane& quarantine::own_lane() {
    if (__builtin_expect(t_lane < 0, 0)) take_a_lane();
    return m_lanes[t_lane];
}

// The orphan lanes other than own that hold records.
uint64_t quarantine::orphans_in_use(const lane& own) const {
    uint64_t orphans = __atomic_load_n(&g_orphan_lanes, __ATOMIC_ACQUIRE);
    if (__builtin_expect(orphans == 0, 1)) return 0;
    return orphans & ~lane_bit(own) & __atomic_load_n(&m_lanes_in_use, __ATOMIC_ACQUIRE);
}

// The due records of the given lanes, oldest release first, one at a time
// under each lane's lock in turn (never two locks at once). all: also what
// a forked child holds back.
size_t quarantine::take_oldest(uint64_t lanes, uint64_t now, void** due, size_t max, bool all) {
    if (!all && holds_inherited(now)) return 0;
    size_t n = 0;
    while (n < max && lanes != 0) {
        lane* best = nullptr;
        uint64_t best_age = k_quarantine_limit;
        for (uint64_t rest = lanes; rest != 0; rest &= rest - 1) {
            lane& l = m_lanes[__builtin_ctzll(rest)];
            if (l.records.looks_empty()) continue;
            uint64_t age = now - __atomic_load_n(&l.front_start, __ATOMIC_ACQUIRE);
            if (age > best_age) {
                best_age = age;
                best = &l;
            }
        }
        if (best == nullptr) break;
        spin_guard guard(best->lock);
        size_t taken = take_locked(*best, now, due + n, 1, true);
        publish_front(*best);
        if (taken == 0) lanes &= ~(uint64_t(1) << (best - m_lanes));  // emptied or taken meanwhile
        n += taken;
    }
    return n;
}

// Strictly more than the limit released since the block entered, itself
// included. A difference, so that it holds across the count's wrap-around.
bool quarantine::is_due(const record& r, uint64_t released) { return released - r.start > k_quarantine_limit; }

// A forked child shares its parent's memory until one of them writes a
// page. The blocks that were in the quarantine at the fork lie all over the
// heap, and giving one back writes the allocator's bookkeeping into its
// page: one page copy (and, on most machines, a flush of the other
// processors' address caches) per block. A short-lived child (a subshell,
// a child about to exec) would pay that for every release it makes. So a
// child keeps its parent's due blocks, as they are, until the first block
// that it released itself is due: from then on, it is a process of its own
// and gives back as the parent did. The blocks kept are out of the
// quarantine all the same (find, bytes and count go by the count alone);
// a full drain (take_due) still gives them back.
bool quarantine::holds_inherited(uint64_t released) {
    if (!__atomic_load_n(&m_inherited_held, __ATOMIC_RELAXED)) return false;
    if (released - m_fork_released <= k_quarantine_limit) return true;
    __atomic_store_n(&m_inherited_held, false, __ATOMIC_RELAXED);
    return false;
}

size_t quarantine::take_locked(lane& l, uint64_t released, void** due, size_t max, bool all) {
    if (!all && holds_inherited(released)) return 0;
    size_t n = 0;
    while (n < max && !l.records.empty() && is_due(l.records.front(), released)) {
        void* p = l.records.front().bi.m_addr;
        if (p == nullptr) fail_assert("p", "lib/trvx_stat", 347, "void* tarvex::mem_stats::get_next_to_free()");
        due[n++] = p;
        l.records.pop_front();
    }
    if (n != 0 && l.records.empty()) mark_in_use(l, false);
    return n;
}

// After a take outside the release path, which publishes its own lane's.
void quarantine::publish_front(lane& l) {
    if (!l.records.empty()) __atomic_store_n(&l.front_start, l.records.front().start, __ATOMIC_RELEASE);
}

// Kept under the lane's lock, so that the bit follows the lane's state; the
// word changes only when a lane empties or stops being empty.
void quarantine::mark_in_use(const lane& l, bool in_use) {
    uint64_t bit = lane_bit(l);
    if (in_use)
        __atomic_fetch_or(&m_lanes_in_use, bit, __ATOMIC_RELAXED);
    else
        __atomic_fetch_and(&m_lanes_in_use, ~bit, __ATOMIC_RELAXED);
}

size_t quarantine::take_from(lane& l, void** due, size_t max) {
    // A look without the lock first: most lanes of a process are empty.
    if (l.records.looks_empty()) return 0;
    spin_guard guard(l.lock);
    size_t n = take_locked(l, released(), due, max);
    publish_front(l);
    return n;
}

// Gives back the due records of one other lane that holds records, in turn,
// once they are overdue: a lane whose threads went quiet is emptied of due
// blocks after k_sweep_after more bytes and within k_sweep_every releases of
// each other thread per lane in use.
size_t quarantine::sweep_one(void** due, size_t max) {
    if (t_until_sweep-- != 0) return 0;
    t_until_sweep = k_sweep_every - 1;
    uint64_t others = __atomic_load_n(&m_lanes_in_use, __ATOMIC_RELAXED) & ~(uint64_t(1) << t_lane);
    if (others == 0) return 0;
    // The next lane in use after the one swept last, cyclically.
    unsigned from = t_sweep_lane % k_lanes;
    uint64_t after = from == k_lanes - 1 ? 0 : others & (~uint64_t(0) << (from + 1));
    t_sweep_lane = unsigned(__builtin_ctzll(after != 0 ? after : others));
    // A lane whose threads still release gives back its own due blocks at
    // their next release; only a lane whose oldest block has been due for
    // a while is swept. Giving back another thread's blocks moves them into
    // this thread's cache of free chunks, and this thread's later blocks
    // into that thread's memory.
    lane& l = m_lanes[t_sweep_lane];
    spin_guard guard(l.lock);
    uint64_t now = released();
    if (l.records.empty() || now - l.records.front().start <= k_quarantine_limit + k_sweep_after) return 0;
    size_t n = take_locked(l, now, due, max);
    publish_front(l);
    return n;
}

// While orphan lanes hold records, this lane's due records go back merged
// with theirs, oldest first (take_oldest), after the push.
size_t quarantine::enter_and_take(const block_info& bi, void** due, size_t max, next_block& next) {
    lane& l = own_lane();
    uint64_t orphans = orphans_in_use(l);
    size_t n = 0;
    uint64_t now;
    {
        spin_guard guard(l.lock);
        l.records.reserve_one();
        // The count is taken under the lane's lock, so that the lane's
        // records stay in the order of their start.
        uint64_t start = __atomic_fetch_add(&m_released, bi.m_alloc_size, __ATOMIC_ACQ_REL);
        if (l.records.empty()) mark_in_use(l, true);
        l.records.push_back(record{bi, start});
        now = start + bi.m_alloc_size;
        if (__builtin_expect(orphans == 0, 1)) n = take_locked(l, now, due, max);
        if (!l.records.empty()) {
            const record& front = l.records.front();
            next.addr = front.bi.m_addr;
            next.alloc_size = front.bi.m_alloc_size;
            __atomic_store_n(&l.front_start, front.start, __ATOMIC_RELEASE);
        }
    }
    if (__builtin_expect(orphans != 0, 0)) n = take_oldest(orphans | lane_bit(l), now, due, max, false);
    if (n < max) n += sweep_one(due + n, max - n);
    return n;
}

// The oldest due block of any lane.
void* quarantine::take_due() {
    void* p = nullptr;
    return take_oldest(__atomic_load_n(&m_lanes_in_use, __ATOMIC_ACQUIRE), released(), &p, 1, true) != 0 ? p
                                                                                                        : nullptr;
}

// A thread that never released has no lane of its own yet, and gets none
// here.
void* quarantine::take_own_due() {
    void* p = nullptr;
    if (t_lane < 0) return nullptr;
    lane& l = m_lanes[t_lane];
    if (uint64_t orphans = orphans_in_use(l))
        return take_oldest(orphans | lane_bit(l), released(), &p, 1, false) != 0 ? p : nullptr;
    return take_from(l, &p, 1) != 0 ? p : nullptr;
}

// An address is in the lanes at most once: its block stays allocated until
// its record leaves. A scan from the newest records, for fault reports only.
bool quarantine::find(void* addr, block_info& out) {
    for (lane& l : m_lanes) {
        spin_guard guard(l.lock);
        for (size_t i = l.records.size(); i-- > 0;) {
            const record& r = l.records[i];
            if (r.bi.m_addr != addr) continue;
            if (is_due(r, released())) return false;
            out = r.bi;
            return true;
        }
    }
    return false;
}

uint64_t quarantine::bytes() {
    uint64_t sum = 0;
    visit([&](const record& r, bool in) { sum += in ? r.bi.m_alloc_size : 0; });
    return sum;
}

size_t quarantine::count() {
    size_t n = 0;
    visit([&](const record&, bool in) { n += in; });
    return n;
}

void quarantine::lock_all() {
    for (lane& l : m_lanes) l.lock.lock();
}

void quarantine::unlock_all() {
    for (lane& l : m_lanes) l.lock.unlock();
}

// Only the forking thread goes on in the child: every other lane is an
// orphan there (still held back as inherited, see holds_inherited).
void quarantine::mark_fork_child() {
    m_fork_released = m_released;
    m_inherited_held = m_lanes_in_use != 0;
    uint64_t orphans = ~uint64_t(0);
    for (int& threads : g_lane_threads) threads = 0;
    if (t_lane >= 0) {
        g_lane_threads[t_lane] = 1;
        orphans &= ~(uint64_t(1) << t_lane);
    }
    __atomic_store_n(&g_orphan_lanes, orphans, __ATOMIC_RELEASE);
}

}  // namespace tarvex
