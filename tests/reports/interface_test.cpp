// The public header in C and C++ programs, the library's exported symbols,
// and the exported parsers and demangler called from a linked program.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "support.h"

namespace reports {
namespace {

// Runs without tarvex (every call does nothing) and with it preloaded
// (a trace of three records and a top report).
TEST(PublicHeader, ProgramsRunWithAndWithoutTarvex) {
    for (const char* path : {TRVX_HEADER_C_PROG, TRVX_HEADER_CXX_PROG}) {
        SCOPED_TRACE(path);
        temp_dir dir;
        child::options o = preloaded(child::tracked_env(base_name(path), dir / "log"));
        o.preload.clear();
        child::result plain = child::run({path}, o);
        ASSERT_TRUE(plain.exited_ok()) << plain.describe();
        EXPECT_EQ(plain.out + plain.err, "");
        EXPECT_FALSE(file_exists(dir / "log"));

        o.preload = TRVX_LIB;
        child::result traced = child::run({path}, o);
        ASSERT_TRUE(traced.exited_ok()) << traced.describe();
        EXPECT_EQ(traced.out, "");
        std::vector<parsed_report> reports;
        std::string error;
        ASSERT_TRUE(parse_log(read_file(dir / "log"), reports, error)) << error;
        ASSERT_EQ(reports.size(), 2u);
        ASSERT_TRUE(reports[0].is_trace);
        EXPECT_FALSE(reports[1].is_trace);
        const std::vector<record>& rec = reports[0].records;
        ASSERT_EQ(rec.size(), 3u);
        EXPECT_EQ(rec[0].size, 64u);
        EXPECT_EQ(rec[0].free_uid, 0u);
        EXPECT_EQ(rec[1], (record{rec[1].alloc_uid, 0, 128}));
        EXPECT_EQ(rec[2], (record{rec[1].alloc_uid, rec[2].free_uid, 128}));
        EXPECT_NE(rec[2].free_uid, 0u);
        std::set<uint32_t> uids{rec[0].alloc_uid, rec[1].alloc_uid, rec[2].free_uid};
        EXPECT_EQ(uids.size(), 3u);
        EXPECT_EQ(reports[0].uids, std::vector<uint32_t>(uids.begin(), uids.end()));
    }
}

TEST(ExportedSymbols, ExactlyTheInterface) {
    child::result r = child::run({TRVX_NM, "-D", "--defined-only", "-C", TRVX_LIB});
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    // dlopen drops RTLD_DEEPBIND in the target process, dlclose forgets
    // the unwinder's cached rules of the unloaded object.
    const std::set<std::string> c_names{
        "malloc", "calloc", "valloc", "realloc", "free", "__strdup", "reallocarray", "memalign", "aligned_alloc",
        "posix_memalign", "pvalloc", "malloc_usable_size", "dlopen", "dlclose", "trvx_trace_start", "trvx_trace_stop",
        "trvx_trace_clear", "trvx_trace_dump", "trvx_dump_alloc_stats", "trvx_clear_alloc_stats", "g_ctx"};
    const std::string extract = "tarvex::backtrace_symbols_cache::extract_";
    std::set<std::string> found;
    std::istringstream lines(r.out);
    std::string line;
    while (std::getline(lines, line)) {
        // "address type name", the demangled name with its parameter list.
        std::string name = line.substr(line.find(' ', line.find(' ') + 1) + 1);
        std::string base = name.substr(0, name.find('('));
        bool allowed = c_names.count(name) != 0 || base.rfind(extract, 0) == 0 || base.rfind("trvx_backtrace::", 0) == 0;
        EXPECT_TRUE(allowed) << "unexpected export: " << line;
        found.insert(base);
    }
    for (const std::string& name : c_names) EXPECT_EQ(found.count(name), 1u) << name;
    for (const char* name : {"symbol", "address", "function_name", "lib"})
        EXPECT_EQ(found.count(extract + name), 1u) << name;
    for (const char* name : {"trvx_backtrace::trvx_backtrace", "trvx_backtrace::~trvx_backtrace",
                             "trvx_backtrace::my_demangle", "trvx_backtrace::backtrace_symbols"})
        EXPECT_EQ(found.count(name), 1u) << name;
}

// Requests of the linked program: "function<TAB>argument" and the answer.
struct call_case {
    const char* fn;
    const char* arg;
    const char* result;
};

struct line_case {
    const char* line;
    const char *symbol, *address, *function, *lib;
};

// A few rows of each table: they prove that the exported symbols are the
// ones a program declares and links against; every row of the tables is
// checked in process by the unit tests.
const line_case k_lines[] = {
    {"/opt/app/lib/libwidget.so.2(_ZN6widget4drawEv+0x1c) [0xa3c4]", "_ZN6widget4drawEv+0x1c", "0xa3c4",
     "_ZN6widget4drawEv", "libwidget.so.2(_ZN6widget4drawEv+0x1c)"},
    {"/opt/app/bin/server(main-0x10) [0x4f2a]", "main-0x10", "0x4f2a", "0x4f2a", "server(main-0x10)"},
    {"", "", "", "", ""},
};

const call_case k_demangle[] = {
    {"demangle", "_ZN6widget5panel6resizeEii", "widget::panel::resize"},
    {"demangle", "_ZNK6widget5panel4sizeEv", ""},
    {"demangle", "malloc", "malloc"},
    {"symbols", "first", "unchanged"},
};

TEST(ExportedSymbols, LinkedProgramCallsParsersAndDemangler) {
    std::vector<call_case> calls(std::begin(k_demangle), std::end(k_demangle));
    for (const line_case& l : k_lines) {
        calls.push_back({"symbol", l.line, l.symbol});
        calls.push_back({"address", l.line, l.address});
        calls.push_back({"function", l.line, l.function});
        calls.push_back({"lib", l.line, l.lib});
    }
    child::options o;
    std::string expected;
    for (const call_case& c : calls) {
        o.input += std::string(c.fn) + "\t" + c.arg + "\n";
        expected += std::string(c.result) + "\n";
    }
    child::result r = child::run({TRVX_LINKED_PROG}, o);
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    std::istringstream got(r.out), want(expected);
    std::string g, w;
    for (const call_case& c : calls) {
        std::getline(got, g);
        std::getline(want, w);
        EXPECT_EQ(g, w) << c.fn << "(\"" << c.arg << "\")";
    }
    EXPECT_EQ(r.out, expected);
}

}  // namespace
}  // namespace reports
