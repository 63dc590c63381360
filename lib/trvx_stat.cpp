#include "trvx_stat.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "trvx_lock.h"

namespace tarvex {

// ---------------------------------------------------------------- footer

uint32_t footer_read32(const block_info_footer* f, size_t offset) {
    uint32_t v;
    memcpy(&v, reinterpret_cast<const char*>(f) + offset, sizeof v);
    return v;
}

void footer_write32(block_info_footer* f, size_t offset, uint32_t value) {
    memcpy(reinterpret_cast<char*>(f) + offset, &value, sizeof value);
}

block_info_footer* block_info::create_footer() {
    block_info_footer* f = footer();
    footer_write32(f, offsetof(block_info_footer, m_magic1), k_footer_magic);
    footer_write32(f, offsetof(block_info_footer, m_alloc_uid), m_alloc_uid);
    footer_write32(f, offsetof(block_info_footer, m_free_uid), 0);
    footer_write32(f, offsetof(block_info_footer, m_magic2), k_footer_magic);
    return f;
}

// One fixed-length pass of word stores: a variable-length memcpy and memset
// here compile to string instructions whose start-up costs more than these
// 256 bytes.
void block_info::update_block_info_footer(tarvex::backtrace& bt, block_info_footer* footer) {
    char* frames = reinterpret_cast<char*>(footer) + offsetof(block_info_footer, m_frames);
    int len = bt.get_bt_len();
    size_t stored = len <= 0 ? 0 : (len < k_footer_frames ? size_t(len) : size_t(k_footer_frames));
    const char* src = reinterpret_cast<const char*>(bt.get_bt());
    // Two entries at a time and without a branch per entry (whose outcome
    // would flip at the stack's depth): an entry at or past the count is
    // ORed with an all-ones mask from comparing its index with the count, in
    // 32-bit lanes that SSE2 compares directly. The backtrace's array always
    // has room for 32 entries; those past its length are read but masked.
    typedef int32_t lanes __attribute__((vector_size(16)));
    static_assert(backtrace::k_capacity >= k_footer_frames, "the masked reads stay inside the array");
    const int32_t last_index = int32_t(stored) - 1;
    const lanes last = {last_index, last_index, last_index, last_index};
    lanes index = {0, 0, 1, 1};  // entry i in the low half, i + 1 in the high half
#pragma GCC unroll 16
    for (size_t i = 0; i < size_t(k_footer_frames); i += 2) {
        lanes v;
        memcpy(&v, src + i * 8, sizeof v);
        v |= index > last;
        memcpy(frames + i * 8, &v, sizeof v);
        index += 2;
    }
}

bool block_info::verify_footer() {
    block_info_footer* f = footer();
    bool ok = footer_read32(f, offsetof(block_info_footer, m_magic1)) == k_footer_magic &&
              footer_read32(f, offsetof(block_info_footer, m_magic2)) == k_footer_magic;
    footer_write32(f, offsetof(block_info_footer, m_alloc_uid), m_alloc_uid);
    footer_write32(f, offsetof(block_info_footer, m_free_uid), m_free_uid);
    return ok;
}

namespace {
void append_stack(std::vector<std::string>& out, unsigned int uid) {
    std::vector<std::string> lines;
    if (g_ctx != nullptr) g_ctx->m_symbols.find_and_update_bt_sym(lines, uid);
    for (std::string& line : lines) out.push_back(std::move(line));
}
}  // namespace

void block_info::format_block_info(std::vector<std::string>& out) {
    out.clear();
    char buf[256];
    snprintf(buf, sizeof buf, "block: 0x%p, len: %zu", m_addr, m_size);
    out.emplace_back(buf);
    const block_info_footer* f = footer();
    snprintf(buf, sizeof buf, "magic1: 0x%x, magic2: 0x%x", footer_read32(f, offsetof(block_info_footer, m_magic1)),
             footer_read32(f, offsetof(block_info_footer, m_magic2)));
    out.emplace_back(buf);
    out.emplace_back("alloc call stack:");
    append_stack(out, m_alloc_uid);
    out.emplace_back("free call stack:");
    append_stack(out, m_free_uid);
}

// ---------------------------------------------------------------- store

namespace {
env_value g_top_env("TARVEX_TOP");
env_value g_log_env("TARVEX_LOG_FILE_NAME");
env_value g_clear_env("TARVEX_CLEAR_STATS_FILE_NAME");

// Serialises the output of reports: a trace dump and a top report written
// at the same moment never interleave their lines. It is taken before the
// store's mutex and never while the store's mutex is held, so the lock order
// (report output, store, symbol cache, guard) has no cycle.
pthread_mutex_t g_report_mutex = PTHREAD_MUTEX_INITIALIZER;
// At most one top report at a time; a request while one runs returns.
bool g_report_in_progress;
}  // namespace

mem_stats::clock_fn mem_stats::s_clock = ::time;

mem_stats::mem_stats()
    : m_trace_on(false),
      m_trace_thread(0),
      m_total_size(0),
      m_total_count(0) {
    pthread_mutex_init(&m_mutex, nullptr);
    m_last_dump_time = s_clock(nullptr);
}

bool mem_stats::get_alloc_stat_on() { return g_top_env.get() != nullptr; }
const char* mem_stats::get_log_file_name() { return g_log_env.get(); }
const char* mem_stats::get_clear_stats_file_name() { return g_clear_env.get(); }

bool mem_stats::tracing_this_thread() const {
    return m_trace_on && pthread_equal(m_trace_thread, pthread_self());
}

// Registers the block; on a failure to get memory nothing stays changed, so
// the caller can give the block back and report the request as failed.
// Without tracing the store's mutex is not taken: counting takes the
// counters' lock around the registry's shard, and the periodic report the
// mutex only when it is due.
void mem_stats::insert_block_info(tarvex::block_info& bi) {
    bool counting = get_alloc_stat_on();
    if (!may_trace()) {
        insert_counted(bi, counting);
        if (counting) periodic_check();
        return;
    }
    scoped_lock lock(&m_mutex);
    bool traced = false;
    if (tracing_this_thread()) {
        m_trace_list.push_back(bi);
        traced = true;
    }
    try {
        insert_counted(bi, counting);
    } catch (...) {
        if (traced) m_trace_list.pop_back();
        throw;
    }
    periodic_trigger(lock);
}

// The registry entry and, when counting, the site's and the process's
// counters, changed together under the counters' lock. While counting, every
// use of the registry holds that lock, which then stands for the shards'
// (a process counts from its start or never).
void mem_stats::insert_counted(const tarvex::block_info& bi, bool counting) {
    if (!counting) {
        m_block_info_map.insert(bi);
        return;
    }
    spin_guard lock(m_counters_lock);
    uid_counter& c = m_uid_stats[bi.m_alloc_uid];
    m_block_info_map.insert_held(bi);
    c.first += 1;
    c.second += bi.m_size;
    m_total_count += 1;
    m_total_size += bi.m_size;
}

void mem_stats::periodic_check() {
    if (s_clock(nullptr) - __atomic_load_n(&m_last_dump_time, __ATOMIC_RELAXED) <= 10) return;
    scoped_lock lock(&m_mutex);
    periodic_trigger(lock);
}

// A report that fails (memory exhausted) is dropped: the registration that
// triggered it has succeeded and stays.
void mem_stats::periodic_trigger(scoped_lock& lock) {
    if (!get_alloc_stat_on()) return;
    if (s_clock(nullptr) - m_last_dump_time <= 10) return;
    lock.unlock();
    // The report writes files, and file operations are cancellation points:
    // a thread cancelled while it allocates must not be cancelled inside it.
    int cancel_state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    bool done = true;
    try {
        done = dump_alloc_stats_periodic(20);
    } catch (...) {
    }
    pthread_setcancelstate(cancel_state, nullptr);
    lock.lock();
    // A report kept out by a trace dump being written stays due: the next
    // registration after the dump writes it.
    if (done) __atomic_store_n(&m_last_dump_time, s_clock(nullptr), __ATOMIC_RELAXED);
}

// Never allocates: a site without a counter entry (cleared since) has
// nothing to count down, and an entry of count 0 is never reported, so
// none is created.
bool mem_stats::find_and_remove_block_info(void* addr, tarvex::block_info& out) {
    if (!get_alloc_stat_on()) return m_block_info_map.remove(addr, out);
    spin_guard lock(m_counters_lock);
    if (!m_block_info_map.remove_held(addr, out)) return false;
    auto c = m_uid_stats.find(out.m_alloc_uid);
    if (c != m_uid_stats.end() && c->second.first != 0) {
        c->second.first -= 1;
        c->second.second -= out.m_size;
    }
    m_total_size -= out.m_size;
    return true;
}

bool mem_stats::find_block_info(void* addr, tarvex::block_info& out) {
    if (!get_alloc_stat_on()) return m_block_info_map.find(addr, out);
    spin_guard lock(m_counters_lock);
    return m_block_info_map.find_held(addr, out);
}

// ---------------------------------------------------------------- quarantine

// The tracing thread's release record goes into the trace before the block
// enters the quarantine, so that a failure of either leaves neither.
void mem_stats::quarantine(const block_info& bi) {
    void* none[1];
    quarantine_and_take(bi, none, 0);
}

// On a failure to get memory nothing stays changed and the exception goes to
// the caller, which then gives the block back at once.
size_t mem_stats::quarantine_and_take(const block_info& bi, void** due, size_t max) {
    bool traced = false;
    if (may_trace()) {
        scoped_lock lock(&m_mutex);
        if (tracing_this_thread()) {
            m_trace_list.push_back(bi);
            traced = true;
        }
    }
    size_t n;
    quarantine::next_block next;
    try {
        n = m_delayed_free_queue.enter_and_take(bi, due, max, next);
    } catch (...) {
        // The trace may have been cleared or added to since the mutex was
        // dropped: only this release's own record is taken back.
        if (traced) {
            scoped_lock trace_lock(&m_mutex);
            if (!m_trace_list.empty() && m_trace_list.back().m_addr == bi.m_addr &&
                m_trace_list.back().m_free_uid == bi.m_free_uid)
                m_trace_list.pop_back();
        }
        throw;
    }
    // The oldest block left is the next to be given back, 10 MiB of
    // releases after it went cold: fetch its chunk header now, so that the
    // next allocator's free finds it in the cache, and its first lines,
    // which the allocator is likely to hand out again soon.
    if (max != 0 && next.addr != nullptr)
        prefetch_lines(static_cast<char*>(next.addr) - 16, next.alloc_size + 16, 1024);
    return n;
}

void mem_stats::delayed_free(tarvex::block_info& bi) { quarantine(bi); }

void* mem_stats::get_next_to_free() { return m_delayed_free_queue.take_due(); }

void* mem_stats::get_next_own_to_free() { return m_delayed_free_queue.take_own_due(); }

size_t mem_stats::delayed_free_and_take(tarvex::block_info& bi, void** due, size_t max) {
    return quarantine_and_take(bi, due, max);
}

bool mem_stats::find_in_freed_list(void* addr, tarvex::block_info& out) {
    return m_delayed_free_queue.find(addr, out);
}

// ---------------------------------------------------------------- trace

void mem_stats::trace_start() {
    scoped_lock lock(&m_mutex);
    // Stored atomically: may_trace() reads the flag without the mutex.
    __atomic_store_n(&m_trace_on, true, __ATOMIC_RELAXED);
    m_trace_thread = pthread_self();
}

void mem_stats::trace_stop() {
    scoped_lock lock(&m_mutex);
    __atomic_store_n(&m_trace_on, false, __ATOMIC_RELAXED);
    m_trace_thread = 0;
}

void mem_stats::trace_clear() {
    scoped_lock lock(&m_mutex);
    m_trace_list.clear();
}

FILE* mem_stats::open_report_stream() {
    const char* name = get_log_file_name();
    FILE* out = name ? fopen(name, "ae") : nullptr;
    return out ? out : stdout;
}

void mem_stats::close_report_stream(FILE* out) {
    if (out != stdout) fclose(out);
}

namespace {
struct report_stream {
    FILE* f;
    ~report_stream() {
        if (f != stdout) fclose(f);
    }
};

void sort_unique(std::vector<uint32_t>& uids) {
    std::sort(uids.begin(), uids.end());
    uids.erase(std::unique(uids.begin(), uids.end()), uids.end());
}
}  // namespace

void mem_stats::write_uid_section(FILE* out, const std::vector<uint32_t>& uids) {
    fputs("\n----------uid to bt----------\n", out);
    for (uint32_t uid : uids) {
        std::vector<std::string> lines;
        if (g_ctx != nullptr) g_ctx->m_symbols.find_and_update_bt_sym(lines, uid);
        size_t n = lines.size();
        size_t first = n >= 3 ? 2 : 0;
        size_t end = std::min(n, first + 100);
        std::string text;
        for (size_t i = first; i < end; ++i) {
            text += '\n';
            text += lines[i];
        }
        fprintf(out, "uid: %08x, bt: %s\n\n", uid, text.c_str());
    }
}

// The records are copied under the store's mutex and written without it:
// symbolising takes the dynamic loader's lock and writing may wait for the
// stream's lock, and a thread holding either of those may be registering a
// block, which needs the store's mutex when tracing or counting. The dump
// shows the list as it stood when the dump started.
void mem_stats::trace_dump() {
    scoped_lock report(&g_report_mutex);
    std::vector<block_info> records;
    {
        scoped_lock lock(&m_mutex);
        records.assign(m_trace_list.begin(), m_trace_list.end());
    }
    report_stream out{open_report_stream()};
    std::vector<uint32_t> uids;
    uids.reserve(records.size() * 2);
    for (const block_info& r : records) {
        uids.push_back(r.m_alloc_uid);
        if (r.m_free_uid != 0) uids.push_back(r.m_free_uid);
    }
    sort_unique(uids);
    write_uid_section(out.f, uids);
    fputs("\n----------trace----------\n", out.f);
    for (const block_info& r : records)
        fprintf(out.f, "alloc_uid: %08x, free_uid: %08x, size: %zd\n", r.m_alloc_uid, r.m_free_uid,
                static_cast<ssize_t>(r.m_size));
}

// Not called by the reports, which write every uid; kept for programs and
// tools that want to leave out the stacks of the two certificate handlers.
bool mem_stats::check_filter_list(unsigned uid) {
    static const char* const k_filter[] = {"ssl3_get_server_certificate", "ssl3_get_client_certificate"};
    std::vector<std::string> lines;
    if (g_ctx == nullptr || !g_ctx->m_symbols.find_bt_sym(lines, uid)) return false;
    for (const std::string& line : lines)
        for (const char* name : k_filter)
            if (line.find(name) != std::string::npos) return true;
    return false;
}

// ---------------------------------------------------------------- top report

void mem_stats::dump_alloc_stats(unsigned long n) {
    if (__atomic_exchange_n(&g_report_in_progress, true, __ATOMIC_ACQ_REL)) return;
    struct clear_flag {
        ~clear_flag() { __atomic_store_n(&g_report_in_progress, false, __ATOMIC_RELEASE); }
    } clear;
    log_top(n);
}

// The periodic report runs on whatever thread registered a block, which may
// hold a lock of its own (a stream's, the dynamic loader's) that a trace
// dump being written needs: it never waits for the report output. Returns
// false when a trace dump holds the output, so that the report is not
// written now but stays due; true when it was written or when another top
// report runs or waits for the output. The output lock is tried before the
// flag is set, so that these attempts never turn away an on-demand report.
bool mem_stats::dump_alloc_stats_periodic(unsigned long n) {
    scoped_lock report(&g_report_mutex, scoped_lock::try_only{});
    if (!report.held()) return __atomic_load_n(&g_report_in_progress, __ATOMIC_ACQUIRE);
    if (__atomic_exchange_n(&g_report_in_progress, true, __ATOMIC_ACQ_REL)) return true;
    struct clear_flag {
        ~clear_flag() { __atomic_store_n(&g_report_in_progress, false, __ATOMIC_RELEASE); }
    } clear;
    write_top(n);
    return true;
}

void mem_stats::log_top(unsigned long n) {
    scoped_lock report(&g_report_mutex);
    write_top(n);
}

void mem_stats::write_top(unsigned long n) {
    time_t now = s_clock(nullptr);
    uint64_t total_count;
    time_t last;
    {
        scoped_lock lock(&m_mutex);
        last = m_last_dump_time;
    }
    {
        spin_guard lock(m_counters_lock);
        total_count = m_total_count;
    }
    uint64_t elapsed = static_cast<uint64_t>(now - last);
    uint64_t rate = total_count / (elapsed == 0 ? 1 : elapsed);

    const char* clear_name = get_clear_stats_file_name();
    struct stat st;
    if (clear_name != nullptr && stat(clear_name, &st) == 0) {
        unlink(clear_name);
        clear_alloc_stats();
        return;
    }
    report_stream out{open_report_stream()};
    {
        spin_guard lock(m_counters_lock);
        m_total_count = 0;
    }
    std::vector<mem_stat_top> by_count, by_size;
    find_top(n, by_count, by_size);
    std::vector<uint32_t> uids;
    for (const mem_stat_top& r : by_count) uids.push_back(r.uid);
    for (const mem_stat_top& r : by_size) uids.push_back(r.uid);
    sort_unique(uids);
    write_uid_section(out.f, uids);

    uint64_t total_size;
    {
        spin_guard lock(m_counters_lock);
        total_size = m_total_size;
    }
    std::string short_form;
    format_str_bytes(short_form, total_size);
    fprintf(out.f, "\nMem usage: %s (%lu bytes) (alloc/sec: %ld)\n", short_form.c_str(),
            static_cast<unsigned long>(total_size), static_cast<long>(rate));
    fputs("----------top by count----------\n", out.f);
    for (const mem_stat_top& r : by_count)
        fprintf(out.f, "uid: %08x, count: %ld, size: %ld\n", r.uid, static_cast<long>(r.count),
                static_cast<long>(r.size));
    fputs("----------top by size----------\n", out.f);
    for (const mem_stat_top& r : by_size)
        fprintf(out.f, "uid: %08x, size: %ld, count: %ld\n", r.uid, static_cast<long>(r.size),
                static_cast<long>(r.count));
    fputs("-------------------------------\n", out.f);
}

namespace {
// One table of the report: the sites with a non-zero key by descending key,
// equal keys in ascending uid order, followed by the zero row, cut to n rows
// (at least one). This is the list that inserting each site in ascending uid
// order in front of the first row with a smaller key, starting from the zero
// row and dropping the last row whenever the list outgrows n, arrives at;
// sorting a copy gets there without the quadratic insertions.
void rank(const std::vector<mem_stats::mem_stat_top>& sites, uint64_t mem_stats::mem_stat_top::*key, unsigned long n,
          std::vector<mem_stats::mem_stat_top>& out) {
    size_t rows = n == 0 ? 1 : n;
    out.clear();
    for (const mem_stats::mem_stat_top& s : sites)
        if (s.*key != 0) out.push_back(s);
    auto before = [key](const mem_stats::mem_stat_top& a, const mem_stats::mem_stat_top& b) {
        return a.*key != b.*key ? a.*key > b.*key : a.uid < b.uid;
    };
    if (out.size() > rows) {
        std::partial_sort(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(rows), out.end(), before);
        out.resize(rows);
    } else {
        std::sort(out.begin(), out.end(), before);
        if (out.size() < rows) out.push_back(mem_stats::mem_stat_top{0, 0, 0});
    }
}
}  // namespace

void mem_stats::find_top(unsigned long n, std::vector<mem_stat_top>& by_count, std::vector<mem_stat_top>& by_size) {
    std::vector<mem_stat_top> sites;
    {
        spin_guard lock(m_counters_lock);
        sites.reserve(m_uid_stats.size());
        for (const auto& e : m_uid_stats) sites.push_back(mem_stat_top{e.first, e.second.first, e.second.second});
    }
    rank(sites, &mem_stat_top::count, n, by_count);
    rank(sites, &mem_stat_top::size, n, by_size);
}

void mem_stats::clear_alloc_stats() {
    spin_guard lock(m_counters_lock);
    m_uid_stats.clear();
}

void mem_stats::format_str_bytes(std::string& out, unsigned long bytes) {
    static const char k_units[] = "BKMGT";
    unsigned long value = bytes;
    int unit = 0;
    while (value > 1024 && unit < 4) {
        value >>= 10;
        ++unit;
    }
    out = std::to_string(value);
    out += k_units[unit];
}

// ---------------------------------------------------------------- fork and views

void mem_stats::lock_for_fork() {
    pthread_mutex_lock(&g_report_mutex);
    pthread_mutex_lock(&m_mutex);
    m_counters_lock.lock();
    m_delayed_free_queue.lock_all();
    m_block_info_map.lock_all();
}

void mem_stats::unlock_after_fork(bool child) {
    if (child) m_delayed_free_queue.mark_fork_child();
    m_block_info_map.unlock_all();
    m_delayed_free_queue.unlock_all();
    m_counters_lock.unlock();
    pthread_mutex_unlock(&m_mutex);
    pthread_mutex_unlock(&g_report_mutex);
    // A report that another thread of the parent was writing does not go on
    // in the child; without this the child could never report again.
    if (child) __atomic_store_n(&g_report_in_progress, false, __ATOMIC_RELEASE);
}

size_t mem_stats::live_block_count() {
    if (!get_alloc_stat_on()) return m_block_info_map.size();
    spin_guard lock(m_counters_lock);
    return m_block_info_map.size_held();
}

uint64_t mem_stats::quarantine_bytes() { return m_delayed_free_queue.bytes(); }

size_t mem_stats::quarantine_block_count() { return m_delayed_free_queue.count(); }

bool mem_stats::uid_counters(uint32_t uid, uint64_t& count, uint64_t& size) {
    spin_guard lock(m_counters_lock);
    auto it = m_uid_stats.find(uid);
    if (it == m_uid_stats.end()) return false;
    count = it->second.first;
    size = it->second.second;
    return true;
}

uint64_t mem_stats::total_size() {
    spin_guard lock(m_counters_lock);
    return m_total_size;
}

uint64_t mem_stats::total_count() {
    spin_guard lock(m_counters_lock);
    return m_total_count;
}

size_t mem_stats::trace_length() {
    scoped_lock lock(&m_mutex);
    return m_trace_list.size();
}

}  // namespace tarvex
