// Block bookkeeping and reports: the record of a tracked block and its
// footer, the statistics store with the registry of live blocks, the per-uid
// counters, the quarantine, the trace and the top report.
#pragma once

#include <pthread.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "trvx_lock.h"
#include "trvx_next.h"
#include "trvx_registry.h"
#include "trvx_ring.h"
#include "trvx_uid_map.h"
#include "trvx_util.h"

namespace tarvex {

constexpr uint32_t k_footer_magic = 0xCAFEBABE;
constexpr size_t k_footer_size = 280;
constexpr int k_footer_frames = 32;
constexpr uint64_t k_quarantine_limit = 10485760;

// The guard record behind each tracked block's bytes. It sits at an address
// with no alignment guarantee, so it is only ever accessed through the
// byte-wise accessors of block_info, never through a pointer to this type.
struct block_info_footer {
    uint32_t m_magic1;
    uint32_t m_reserved1;
    uint64_t m_frames[k_footer_frames];
    uint32_t m_alloc_uid;
    uint32_t m_free_uid;
    uint32_t m_magic2;
    uint32_t m_reserved2;
};
static_assert(sizeof(block_info_footer) == k_footer_size, "footer is 280 bytes");
static_assert(offsetof(block_info_footer, m_frames) == 8, "frames at offset 8");
static_assert(offsetof(block_info_footer, m_alloc_uid) == 264, "alloc uid at offset 264");
static_assert(offsetof(block_info_footer, m_free_uid) == 268, "free uid at offset 268");
static_assert(offsetof(block_info_footer, m_magic2) == 272, "magic2 at offset 272");

class block_info {
public:
    void* m_addr = nullptr;
    size_t m_size = 0;
    size_t m_alloc_size = 0;
    uint32_t m_alloc_uid = 0;
    uint32_t m_free_uid = 0;

    block_info_footer* create_footer();
    static void update_block_info_footer(tarvex::backtrace& bt, block_info_footer* footer);
    bool verify_footer();
    void format_block_info(std::vector<std::string>& out);

    block_info_footer* footer() const {
        return reinterpret_cast<block_info_footer*>(static_cast<char*>(m_addr) + m_size);
    }
};

// Unaligned access to a field of a footer.
uint32_t footer_read32(const block_info_footer* f, size_t offset);
void footer_write32(block_info_footer* f, size_t offset, uint32_t value);

class mem_stats {
public:
    struct mem_stat_top {
        uint32_t uid;
        uint64_t count;
        uint64_t size;
    };

    mem_stats();
    mem_stats(const mem_stats&) = delete;
    mem_stats& operator=(const mem_stats&) = delete;

    // Registry.
    void insert_block_info(tarvex::block_info& bi);
    bool find_and_remove_block_info(void* addr, tarvex::block_info& out);
    bool find_block_info(void* addr, tarvex::block_info& out);

    // Quarantine.
    void delayed_free(tarvex::block_info& bi);
    void* get_next_to_free();
    bool find_in_freed_list(void* addr, tarvex::block_info& out);
    // delayed_free and then get_next_to_free up to max times, under one hold
    // of the mutex; the addresses due go to due[], oldest first. Returns
    // their count (max means more may be due).
    size_t delayed_free_and_take(tarvex::block_info& bi, void** due, size_t max);

    // Trace.
    void trace_start();
    void trace_stop();
    void trace_clear();
    void trace_dump();
    bool check_filter_list(unsigned uid);

    // Top report.
    void dump_alloc_stats(unsigned long n);
    void log_top(unsigned long n);
    void find_top(unsigned long n, std::vector<mem_stat_top>& by_count, std::vector<mem_stat_top>& by_size);
    void clear_alloc_stats();
    static void format_str_bytes(std::string& out, unsigned long bytes);

    // Environment.
    static bool get_alloc_stat_on();
    static const char* get_log_file_name();
    static const char* get_clear_stats_file_name();

    // Test seam: the clock of the periodic trigger and of the allocation rate.
    typedef time_t (*clock_fn)(time_t*);
    static clock_fn s_clock;

    // fork support: the report lock and m_mutex are held across fork.
    void lock_for_fork();
    void unlock_after_fork(bool child);

    // Read-only views for tests and tools.
    size_t live_block_count();
    uint64_t quarantine_bytes();
    size_t quarantine_block_count();
    bool uid_counters(uint32_t uid, uint64_t& count, uint64_t& size);
    uint64_t total_size();
    uint64_t total_count();
    size_t trace_length();

private:
    typedef uid_map::counter uid_counter;

    void insert_counted(const tarvex::block_info& bi, bool counting);
    void periodic_check();
    void periodic_trigger(class scoped_lock& lock);
    void dump_alloc_stats_periodic(unsigned long n);
    void write_top(unsigned long n);
    void quarantine_locked(const block_info& bi);
    void quarantine(const block_info& bi);
    size_t quarantine_and_take(const block_info& bi, void** due, size_t max);
    bool may_trace() const { return __atomic_load_n(&m_trace_on, __ATOMIC_RELAXED); }
    void* take_due_locked();
    void append_trace(const block_info& bi);
    bool tracing_this_thread() const;
    void write_uid_section(FILE* out, const std::vector<uint32_t>& uids);
    static FILE* open_report_stream();
    static void close_report_stream(FILE* out);

public:
    // Lock order: m_mutex, m_counters_lock, m_quarantine_mutex, the
    // registry's shards; the symbol cache's mutex after all of them.
    // m_mutex guards the trace and the report times; m_counters_lock the
    // per-site counters and the totals, for a few instructions at a time.
    pthread_mutex_t m_mutex;
    spin_lock m_counters_lock;
    bool m_trace_on;
    pthread_t m_trace_thread;
    uint64_t m_total_size;
    uint64_t m_total_count;
    block_registry m_block_info_map;
    // The quarantine: the released blocks' records, oldest release first.
    // Its lock, sum and ends share one cache line, the only one that every
    // release of every thread writes.
    alignas(64) spin_lock m_quarantine_mutex;
    uint64_t m_delayed_free_size;
    ring<block_info> m_delayed_free_queue;
    alignas(64) uid_map m_uid_stats;
    time_t m_last_dump_time;
    std::vector<block_info, raw_allocator<block_info>> m_trace_list;
};

}  // namespace tarvex
