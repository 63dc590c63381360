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

#include "trvx_block.h"
#include "trvx_lock.h"
#include "trvx_next.h"
#include "trvx_registry.h"
#include "trvx_quarantine.h"
#include "trvx_uid_map.h"
#include "trvx_util.h"

namespace tarvex {

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
    // get_next_to_free limited to the calling thread's own releases: what a
    // release gives back beyond its batch, leaving other threads' blocks to
    // them.
    void* get_next_own_to_free();
    bool find_in_freed_list(void* addr, tarvex::block_info& out);
    // delayed_free and then up to max blocks due, the calling thread's
    // lane's first, oldest first, into due[]. Returns their count (max means
    // more may be due).
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
    bool dump_alloc_stats_periodic(unsigned long n);
    void write_top(unsigned long n);
    void quarantine(const block_info& bi);
    size_t quarantine_and_take(const block_info& bi, void** due, size_t max);
    bool may_trace() const { return __atomic_load_n(&m_trace_on, __ATOMIC_RELAXED); }
    void append_trace(const block_info& bi);
    bool tracing_this_thread() const;
    void write_uid_section(FILE* out, const std::vector<uint32_t>& uids);
    static FILE* open_report_stream();
    static void close_report_stream(FILE* out);

public:
    // Lock order: m_mutex, m_counters_lock, the quarantine's lanes, the
    // registry's shards; the symbol cache's mutex after all of them.
    // m_mutex guards the trace and the report times; m_counters_lock the
    // per-site counters and the totals, for a few instructions at a time,
    // and in a process that counts also the registry (whose shards' locks
    // are then not taken).
    pthread_mutex_t m_mutex;
    spin_lock m_counters_lock;
    bool m_trace_on;
    pthread_t m_trace_thread;
    uint64_t m_total_size;
    uint64_t m_total_count;
    block_registry m_block_info_map;
    // The released blocks' records, in release order within each lane.
    tarvex::quarantine m_delayed_free_queue;
    alignas(64) uid_map m_uid_stats;
    time_t m_last_dump_time;
    std::vector<block_info, raw_allocator<block_info>> m_trace_list;
};

}  // namespace tarvex
