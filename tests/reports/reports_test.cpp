// Trace dumps and top reports of preloaded programs, the control functions
// under concurrency and from a signal handler, the public header and the
// exported symbols. Most runs switch call stacks off (TARVEX_NOBACKTRACE):
// every site is then uid 0, and a whole log is known text. The layout of
// reports with stacks is checked byte for byte by the unit tests.
#include <gtest/gtest.h>
#include <time.h>

#include <future>
#include <regex>
#include <set>
#include <sstream>

#include "child.h"
#include "expected.h"

namespace {

using child::count;
using child::read_file;
using child::temp_dir;

child::options preloaded(const std::string& prog, const child::env_map& env) {
    child::options o;
    o.preload = TRVX_LIB;
    o.env = child::tracked_env(child::base_name(prog));
    for (const auto& kv : env) o.env[kv.first] = kv.second;
    return o;
}

const std::string k_uids = "\n----------uid to bt----------\n";
const std::string k_uid0 = k_uids + "uid: 00000000, bt: \n\n";
const std::string k_trace = "\n----------trace----------\n";

// A trace record without call stacks.
std::string rec(unsigned size) {
    return "alloc_uid: 00000000, free_uid: 00000000, size: " + std::to_string(size) + "\n";
}

// A top report without call stacks whose only site (uid 0) holds count
// blocks of size bytes. Its usage line is "USAGE": see usage_masked.
std::string top_report(unsigned count, unsigned size) {
    std::string c = std::to_string(count), s = std::to_string(size);
    std::string count_rows = count == 0 ? "" : "uid: 00000000, count: " + c + ", size: " + s + "\n";
    std::string size_rows = count == 0 ? "" : "uid: 00000000, size: " + s + ", count: " + c + "\n";
    return k_uid0 + "\nUSAGE\n----------top by count----------\n" + count_rows +
           "uid: 00000000, count: 0, size: 0\n----------top by size----------\n" + size_rows +
           "uid: 00000000, size: 0, count: 0\n-------------------------------\n";
}

const std::string& k_empty_top = expected::k_empty_top_report;

// The usage lines of a log replaced by "USAGE"; their live bytes and rates
// in order. (The short form of a byte count is checked by the unit tests.)
std::string usage_masked(const std::string& log, std::vector<uint64_t>& bytes, std::vector<uint64_t>& rates) {
    static const std::regex usage("Mem usage: [0-9]+[BKMGT] \\(([0-9]+) bytes\\) \\(alloc/sec: ([0-9]+)\\)");
    for (std::sregex_iterator it(log.begin(), log.end(), usage), end; it != end; ++it) {
        bytes.push_back(std::stoull((*it)[1]));
        rates.push_back(std::stoull((*it)[2]));
    }
    return std::regex_replace(log, usage, "USAGE");
}

struct ops_run {
    child::result r;
    time_t seconds;  // an upper bound of the time the program ran
};

ops_run run_ops(const std::vector<std::string>& ops, const child::env_map& env) {
    std::vector<std::string> argv{TRVX_OPS_PROG};
    argv.insert(argv.end(), ops.begin(), ops.end());
    child::options o = preloaded(TRVX_OPS_PROG, env);
    o.env["TARVEX_NOBACKTRACE"] = "";
    time_t before = time(nullptr);
    ops_run run{child::run(argv, o), 0};
    run.seconds = time(nullptr) - before;
    return run;
}

// Only the tracing thread's calls are recorded, in order: an allocation of
// another thread, a block allocated before the start and one after the
// stop are not; a resize records the new block before the old block's
// release; a block from before the start shows by its release alone. A log
// file is appended to; without a usable one the dumps go to standard output.
TEST(TraceDump, RecordsTheTracingThreadsCallsInOrder) {
    const std::vector<std::string> ops{"a:0:24",  "start", "wa:1:32", "a:2:20", "r:2:100", "f:0",
                                       "stop",    "a:3:30", "dump",   "tclear", "dump"};
    const std::string dumps = k_uid0 + k_trace + rec(20) + rec(100) + rec(20) + rec(24) + k_uids + k_trace;
    temp_dir dir;
    child::write_file(dir / "log", "earlier text\n");
    for (const char* log : {"log", "", "missing/log"}) {
        SCOPED_TRACE(log);
        child::env_map env;
        if (*log != '\0') env["TARVEX_LOG_FILE_NAME"] = dir / log;
        ops_run run = run_ops(ops, env);
        ASSERT_TRUE(run.r.exited_ok()) << run.r.describe();
        EXPECT_EQ(run.r.out, std::string(log) == "log" ? "" : dumps);
    }
    EXPECT_EQ(read_file(dir / "log"), "earlier text\n" + dumps);
    EXPECT_FALSE(child::file_exists(dir / "missing"));
}

// The counters follow allocations, releases and resizes; a trace dump
// allocates nothing that is counted; a report that finds the clear-stats
// file deletes it, empties the counters and writes nothing, and alloc/sec
// counts the registrations since the last report written.
TEST(TopReport, CountsWhatTheProgramHolds) {
    const std::vector<std::string> ops{
        "sclear", "report:5",                                                   // baseline
        "a:0:100:3", "a:3:20:5", "f:0", "r:3:50", "start", "stop", "dump", "report:5",  // 7 blocks, 330 bytes
        "a:20:4", "touch", "report:5", "a:30:8:2", "report:1"};  // counters emptied, then 2 blocks of 8
    temp_dir dir;
    ops_run run = run_ops(ops, {{"TARVEX_LOG_FILE_NAME", dir / "log"},
                                {"TARVEX_TOP", ""},
                                {"TARVEX_CLEAR_STATS_FILE_NAME", dir / "clear"}});
    ASSERT_TRUE(run.r.exited_ok()) << run.r.describe();
    std::vector<uint64_t> bytes, rates;
    EXPECT_EQ(usage_masked(read_file(dir / "log"), bytes, rates),
              top_report(0, 0) + k_uids + k_trace + top_report(7, 330) + k_uid0 +
                  "\nUSAGE\n----------top by count----------\nuid: 00000000, count: 2, size: 16\n"
                  "----------top by size----------\nuid: 00000000, size: 16, count: 2\n"
                  "-------------------------------\n");
    EXPECT_FALSE(child::file_exists(dir / "clear"));
    ASSERT_EQ(bytes.size(), 3u);
    // What the program held at the first report (the C++ runtime's pool, a
    // thread's memory) stays.
    EXPECT_EQ(bytes[1] - bytes[0], 330u);
    EXPECT_EQ(bytes[2] - bytes[0], 330u + 4 + 16);
    // The rate divides by the seconds since the process started, which are
    // 0 or 1 in a run that took at most a second.
    if (run.seconds <= 1) {
        EXPECT_EQ(rates, (std::vector<uint64_t>{rates[0], 3 + 5 + 1, 1 + 2}));
    }
}

// A C program's heap at main already holds the emergency pool for
// exception objects that the C++ runtime takes from malloc while it is
// loaded (72704 bytes with GCC 12 on x86-64), one block, the same as when
// that runtime is the shared library. (The program's only other block at
// that point is its thread's TLS.)
TEST(TopReport, CProgramStartsWithTheRuntimesPool) {
    temp_dir dir;
    child::options o = preloaded(TRVX_OPS_PROG, {{"TARVEX_LOG_FILE_NAME", dir / "log"}, {"TARVEX_TOP", ""}});
    child::result r = child::run({TRVX_OPS_PROG, "report:5"}, o);
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    std::string log = read_file(dir / "log");
    std::smatch total, first;
    ASSERT_TRUE(std::regex_search(log, total, std::regex("\\(([0-9]+) bytes\\)"))) << log;
    ASSERT_TRUE(std::regex_search(log, first, std::regex("top by size-+\nuid: [0-9a-f]{8}, size: ([0-9]+), count: 1\n")))
        << log;
    EXPECT_GE(std::stoull(first[1]), 64u * 1024) << log;
    EXPECT_LT(std::stoull(total[1]) - std::stoull(first[1]), 4096u) << log;
}

// Called from the executable's pre-initialisation, before any allocation:
// the call builds the context and the trace it starts records main's
// allocation (after those of the runtime's initialisers).
TEST(ControlFunctions, BeforeTheFirstAllocation) {
    temp_dir dir;
    child::result r = child::run({TRVX_EARLY_PROG}, preloaded(TRVX_EARLY_PROG, {{"TARVEX_LOG_FILE_NAME", dir / "log"},
                                                                                {"TARVEX_NOBACKTRACE", ""}}));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.err, "context at the first call: none\n");
    std::string log = read_file(dir / "log");
    EXPECT_EQ(log.rfind(k_uid0 + k_trace, 0), 0u) << log;
    EXPECT_EQ(log.substr(log.size() - std::min(log.size(), rec(24).size())), rec(24)) << log;
}

child::result stress(const std::string& scenario, int n, const std::string& log) {
    return child::run({TRVX_STRESS_PROG, scenario, std::to_string(n)},
                      preloaded(TRVX_STRESS_PROG, {{"TARVEX_LOG_FILE_NAME", log},
                                                   {"TARVEX_TOP", ""},
                                                   {"TARVEX_NOBACKTRACE", ""}}));
}

// The dump of reports_stress's trace of n allocations and releases.
std::string stress_dump(int pairs) {
    std::string text = k_uid0 + k_trace;
    for (int i = 0; i < pairs; ++i) text += rec(8 + i % 3) + rec(8 + i % 3);
    return text;
}

// A trace dump and a top report requested at the same moment in two
// threads: both are written, and neither interleaves with the other.
TEST(ControlFunctions, TraceDumpAndTopReportAtOnce) {
    const int rounds = 30;
    temp_dir dir;
    child::result r = stress("pair", rounds, dir / "log");
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    std::string log = read_file(dir / "log");
    const std::string dump = stress_dump(1500);
    EXPECT_EQ(count(log, dump), size_t(rounds));
    for (size_t at; (at = log.find(dump)) != std::string::npos;) log.erase(at, dump.size());
    std::vector<uint64_t> bytes, rates;
    std::string tops = usage_masked(log, bytes, rates);
    static const std::regex top(k_uid0 + "\nUSAGE\n-+top by count-+\nuid: 00000000, count: [0-9]+, size: [0-9]+\n"
                                "uid: 00000000, count: 0, size: 0\n-+top by size-+\nuid: 00000000, size: [0-9]+, "
                                "count: [0-9]+\nuid: 00000000, size: 0, count: 0\n-+\n");
    size_t whole = 0;
    for (size_t at = 0; at < tops.size(); ++whole) {
        size_t next = tops.find(k_uid0, at + 1);
        if (next == std::string::npos) next = tops.size();
        EXPECT_TRUE(std::regex_match(tops.substr(at, next - at), top)) << tops.substr(at, next - at);
        at = next;
    }
    EXPECT_EQ(whole, size_t(rounds));
}

// The handler interrupts a trace dump that is blocked writing to a full FIFO
// (the log file): its control calls (a top report, a trace clear, a second
// dump) must return at once and change nothing. The FIFO then carries the
// one dump, whole.
TEST(ControlFunctions, SignalHandlerInsideTarvexChangesNothing) {
    temp_dir dir;
    child::result r = stress("signal_inside", 6000, dir / "fifo");
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.err, "handled 1, reader gave up 0\n");
    EXPECT_TRUE(r.out == stress_dump(3000)) << r.out.substr(0, 2000);
}

// Runs without tarvex (every call does nothing) and with it preloaded (a
// trace of three records and a top report without counting).
TEST(PublicHeader, ProgramsRunWithAndWithoutTarvex) {
    for (const char* path : {TRVX_HEADER_C_PROG, TRVX_HEADER_CXX_PROG}) {
        SCOPED_TRACE(path);
        temp_dir dir;
        child::options o = preloaded(path, {{"TARVEX_LOG_FILE_NAME", dir / "log"}, {"TARVEX_NOBACKTRACE", ""}});
        o.preload.clear();
        child::result plain = child::run({path}, o);
        ASSERT_TRUE(plain.exited_ok()) << plain.describe();
        EXPECT_EQ(plain.out + plain.err, "");
        EXPECT_FALSE(child::file_exists(dir / "log"));

        o.preload = TRVX_LIB;
        child::result traced = child::run({path}, o);
        ASSERT_TRUE(traced.exited_ok()) << traced.describe();
        EXPECT_EQ(traced.out, "");
        EXPECT_EQ(read_file(dir / "log"), k_uid0 + k_trace + rec(64) + rec(128) + rec(128) + k_empty_top);
    }
}

// The C entry points, the control functions, the context, and the C++
// parsers and demangler that programs may declare themselves and link:
// exactly these, with exactly these parameters.
TEST(ExportedSymbols, ExactlyTheInterface) {
    child::result r = child::run({TRVX_NM, "-D", "--defined-only", "-C", TRVX_LIB});
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    const std::string str = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >";
    std::set<std::string> found;
    for (std::string line : child::lines(r.out)) {
        for (size_t at; (at = line.find(str)) != std::string::npos;) line.replace(at, str.size(), "string");
        found.insert(line.substr(line.find(' ', line.find(' ') + 1) + 1));  // "address type name"
    }
    const std::string extract = "tarvex::backtrace_symbols_cache::extract_";
    std::set<std::string> expected{
        "malloc", "calloc", "valloc", "realloc", "free", "__strdup", "reallocarray", "memalign", "aligned_alloc",
        "posix_memalign", "pvalloc", "malloc_usable_size", "dlopen", "dlclose", "trvx_trace_start", "trvx_trace_stop",
        "trvx_trace_clear", "trvx_trace_dump", "trvx_dump_alloc_stats", "trvx_clear_alloc_stats", "g_ctx",
        "trvx_backtrace::trvx_backtrace()", "trvx_backtrace::~trvx_backtrace()",
        "trvx_backtrace::my_demangle(string)",
        "trvx_backtrace::backtrace_symbols(std::vector<string, std::allocator<string > >&, void**, int)"};
    for (const char* field : {"symbol", "address", "function_name", "lib"})
        expected.insert(extract + field + "(string&, string const&)");
    EXPECT_EQ(found, expected);
}

// The periodic top report for real: the program runs 13 seconds, so this
// runs with the slow tests only. Allocations once a second with 25 live
// sites: the first one more than 10 s after the start writes the one
// periodic report, 20 rows a table. Without TARVEX_TOP no allocation ever
// triggers a report. Both programs run side by side.
TEST(SlowPeriodicReport, OnceWithTwentyRowsOnlyWhenCounting) {
    temp_dir dir;
    auto run_periodic = [](const std::string& log, bool counting) {
        child::options o = preloaded(TRVX_PERIODIC_PROG, {{"TARVEX_LOG_FILE_NAME", log}});
        if (counting) o.env["TARVEX_TOP"] = "";
        return child::run({TRVX_PERIODIC_PROG}, o);
    };
    auto counting = std::async(std::launch::async, run_periodic, dir / "on", true);
    child::result off = run_periodic(dir / "off", false);
    child::result on = counting.get();
    ASSERT_TRUE(off.exited_ok()) << off.describe();
    EXPECT_FALSE(child::file_exists(dir / "off"));
    EXPECT_EQ(off.out, "");
    ASSERT_TRUE(on.exited_ok()) << on.describe();
    std::string log = read_file(dir / "on");
    EXPECT_EQ(count(log, k_uids), 1u) << log;
    EXPECT_EQ(count(log, "-------------------------------\n"), 1u) << log;
    // 20 rows a table, each of a site that holds blocks: no zero row.
    EXPECT_EQ(count(log, ", count: "), 2u * 20) << log;
    EXPECT_EQ(count(log, ", count: 0"), 0u) << log;
}

}  // namespace
