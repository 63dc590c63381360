// End-to-end tests: the programs in programs/ run as child processes with
// libtarvex.so preloaded and named as the target, once per optimisation
// level. Clean scenarios must print exactly their expected facts and exit 0
// with nothing from the library; fault scenarios must print exactly the
// library's report on standard output, the assertion on standard error, and
// die by SIGABRT. The stack lines of an expected report come from the
// program itself: it symbolises the frames that the library left in the
// block's footer and sends them on descriptor 3.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "child.h"

namespace {

// Standard output is a pipe for the -O0 build and a file for the -O2 one:
// both are fully buffered, so output not flushed before the process stops
// would be lost.
struct build {
    const char* opt;
    const char* heap_c;
    const char* heap_cxx;
    bool stdout_to_file;
};
const build k_builds[] = {
    {"O0", TVX_HEAP_C_O0, TVX_HEAP_CXX_O0, false},
    {"O2", TVX_HEAP_C_O2, TVX_HEAP_CXX_O2, true},
};

child::result run(const build& b, const std::string& prog, const std::vector<std::string>& args,
                  const char* target = nullptr) {
    child::options opt;
    opt.preload = TVX_LIB;
    opt.env = child::tracked_env(target ? target : child::base_name(prog));
    opt.stdout_to_file = b.stdout_to_file;
    opt.capture_fd3 = true;
    std::vector<std::string> argv{prog};
    argv.insert(argv.end(), args.begin(), args.end());
    return child::run(argv, opt);
}

// Records of the side channel: "@key" followed by its lines.
typedef std::map<std::string, std::string> records;

records parse_records(const std::string& text) {
    records r;
    std::string* current = nullptr;
    for (const std::string& line : child::lines(text)) {
        if (!line.empty() && line[0] == '@')
            current = &r[line.substr(1)];
        else if (current != nullptr)
            *current += line + "\n";
    }
    return r;
}

std::string assertion(const std::string& prog, unsigned line, bool in_realloc) {
    return child::assertion(prog, line, in_realloc ? child::k_realloc : child::k_free);
}

// The block report, from the records "<tag>ptr", "<tag>alloc", "<tag>free".
// Each stack has at least the library's two frames, the program's and the C
// library's start.
std::string block_report(const records& r, const std::string& tag, size_t len, const char* magic1) {
    for (const char* which : {"alloc", "free"}) {
        const std::string& stack = r.count(tag + which) ? r.at(tag + which) : "";
        EXPECT_GE(child::count(stack, "\n"), 4u) << tag << which << ":\n" << stack;
        EXPECT_NE(stack.substr(0, stack.find('\n')).find("libtarvex.so"), std::string::npos) << stack;
    }
    return "block: 0x" + r.at(tag + "ptr").substr(0, r.at(tag + "ptr").size() - 1) + ", len: " +
           std::to_string(len) + "\nmagic1: " + magic1 + ", magic2: 0xcafebabe\nalloc call stack:\n" +
           (r.count(tag + "alloc") ? r.at(tag + "alloc") : "") + "free call stack:\n" +
           (r.count(tag + "free") ? r.at(tag + "free") : "");
}

std::string unknown_pointer(const records& r, const std::string& tag) {
    return "Failed to find block info for 0x" + r.at(tag + "ptr");
}

void PrintTo(const build& b, std::ostream* os) { *os << b.opt; }

std::string param_name(const build& b, const std::string& name) { return std::string(b.opt) + "_" + name; }

struct clean_case {
    const char* name;
    bool cxx;
    std::vector<std::string> args;
    const char* expected;
    const char* target;  // nullptr: the program itself
};

void PrintTo(const clean_case& c, std::ostream* os) { *os << c.name; }

// clang-format off
#define FOOTER(label, top, caller) \
    label ": m1=bebafeca m2=bebafeca alloc=set free=0 frames=ok top=" top " caller=" caller "\n"

const clean_case k_clean[] = {
    // Tracked allocation: fill, footer layout, uids, errors.
    {"malloc", false, {"malloc"},
     "byte0=de usable=1 usable(NULL)=0\n" FOOTER("malloc(1)", "malloc", "self")
     "same call site, same uid: 1\n", nullptr},
    {"calloc", false, {"calloc"}, "zeros=15 usable=15\n" FOOTER("calloc(3,5)", "calloc", "self"), nullptr},
    {"valloc", false, {"valloc"},
     "page aligned=1 fresh=100 usable=100\n" FOOTER("valloc(100)", "valloc", "self"), nullptr},
    {"strdup", false, {"strdup"}, "copy=tarvex usable=7\n" FOOTER("__strdup", "malloc", "libc.so.6"), nullptr},
    {"aligned", false, {"aligned"},
     "posix_memalign rc=0\n"
     "posix_memalign(64,40): aligned=1 usable=40 fresh=40\n"
     FOOTER("posix_memalign(64,40)", "posix_memalign", "self")
     "memalign(128,40): aligned=1 usable=40 fresh=40\n"
     FOOTER("memalign(128,40)", "memalign", "self")
     "aligned_alloc(256,512): aligned=1 usable=512 fresh=512\n"
     FOOTER("aligned_alloc(256,512)", "aligned_alloc", "self")
     "pvalloc rounds to a page: 1\n"
     "pvalloc(100): aligned=1 usable=4096 fresh=4096\n"
     FOOTER("pvalloc(100)", "pvalloc", "self")
     "posix_memalign(0,16): rc=EINVAL memptr untouched=1 errno=EDOM\n"
     "posix_memalign(4,16): rc=EINVAL memptr untouched=1 errno=EDOM\n"
     "posix_memalign(24,16): rc=EINVAL memptr untouched=1 errno=EDOM\n"
     "posix_memalign(48,16): rc=EINVAL memptr untouched=1 errno=EDOM\n"
     "posix_memalign(64,SIZE_MAX): rc=ENOMEM memptr untouched=1\n"
     "memalign(24,10): aligned to 32=1\n"
     "aligned_alloc(3,16): block errno=0\n"  // rounded up, as the C library does
     "memalign(64,SIZE_MAX): null errno=ENOMEM\n"
     "pvalloc(SIZE_MAX): null errno=ENOMEM\n", nullptr},
    {"enomem", false, {"enomem"},
     "malloc(SIZE_MAX): null errno=ENOMEM\n"
     "malloc(SIZE_MAX-279): null errno=ENOMEM\n"
     "malloc(SIZE_MAX-280): null errno=ENOMEM\n"
     "calloc(2^63,2): null errno=ENOMEM\n"
     "calloc(1,SIZE_MAX-279): null errno=ENOMEM\n"
     "valloc(SIZE_MAX): null errno=ENOMEM\n"
     "realloc(NULL,SIZE_MAX): null errno=ENOMEM\n"
     "reallocarray(NULL,2^63,2): null errno=ENOMEM\n"
     "realloc(p,SIZE_MAX): null errno=ENOMEM old kept=1 usable=8\n"
     "reallocarray(p,2^63,2): null errno=ENOMEM old kept=1\n", nullptr},
    {"errno", false, {"errno"}, "errno changed by: none (posix_memalign rc=0, realloc(p,0) null)\n", nullptr},
    {"untracked", false, {"tracking"}, "tracked=0 same address after release=1\n", "someone_else"},

    // Tracked release and resize.
    {"release", false, {"release"},
     "released bytes 0xdd: 10 of 10\n"
     "after free: m1=bebafeca m2=bebafeca alloc=set free=set frames=ok top=free caller=self\n"
     "alloc uid kept=1 free uid differs=1\n", nullptr},
    {"realloc", false, {"realloc"},
     "grow 4->8: moved=1 head=abcd tail=dededede usable=8 old 0xdd=4\n"
     FOOTER("grown", "realloc", "self")
     "one stack: new alloc uid = old free uid: 1, same frames: 1, old alloc uid kept: 1\n"
     "shrink 8->2: moved=1 head=ab usable=2 footer=1\n"
     "realloc(NULL,32): fresh=32 usable=32\n"
     FOOTER("realloc(NULL,32)", "realloc", "self")
     "realloc(NULL,0): null\n"
     "realloc(p,0): null, released bytes 0xdd=2, free uid=set\n"
     "reallocarray(s,4,5): moved=1 head=0123456789abcdefghij usable=20\n"
     FOOTER("reallocarray", "reallocarray", "self"), nullptr},

    // Quarantine.
    {"tracked", false, {"tracking"}, "tracked=1 same address after release=0\n", nullptr},
    {"quarantine", false, {"quarantine"},
     "after 8192 releases: 8192 still allocated\n"
     "after 8193: oldest given back=1, next kept=1\n"
     "after 8194: next given back=1, third kept=1\n", nullptr},
    {"quarantine_thread", false, {"quarantine_thread"},
     "after 8192 releases: 8192 still allocated\n"
     "after 8193: oldest given back=1, next kept=1\n"
     "after 8194: next given back=1, third kept=1\n", nullptr},

    // No false alarm.
    {"zero", false, {"zero"}, "released quietly: 10 blocks, posix_memalign rc=0, reallocarray(NULL,0,8) block=1\n",
     nullptr},
    {"untracked_realloc", false, {"untracked_realloc"},
     "malloc(0) -> realloc 100: usable=100 footer=1\n"
     "posix_memalign(64,0) rc=0 -> realloc 50: usable=50 footer=1\n"
     "calloc(0,1) -> reallocarray 3x4: usable=12 footer=1\n"
     "released quietly\n", nullptr},
    {"cxx_forms", true, {"forms"},
     "new int: tracked=1 usable=4\n"
     "new int[10]: tracked=1 usable=40\n"
     "new alignas(64): tracked=1 aligned=1\n"
     "new alignas(64)[3]: tracked=1 aligned=1\n"
     "operator new(100, align 128): tracked=1 aligned=1\n"
     "operator new[](100, align 256): tracked=1 aligned=1\n"
     "operator new(24): tracked=1 usable=24\n"
     "new (nothrow) int: tracked=1\n"
     "operator new(24, align 32, nothrow): tracked=1 aligned=1\n"
     "operator new(SIZE_MAX, nothrow): null\n"
     "operator new(SIZE_MAX): bad_alloc\n"
     "exception message length 100\n"
     "released quietly\n", nullptr},
};
#undef FOOTER
// clang-format on

class Clean : public ::testing::TestWithParam<std::tuple<build, clean_case>> {};

TEST_P(Clean, PrintsExactlyItsFactsAndExitsZero) {
    const build& b = std::get<0>(GetParam());
    const clean_case& c = std::get<1>(GetParam());
    child::result r = run(b, c.cxx ? b.heap_cxx : b.heap_c, c.args, c.target);
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, c.expected);
}

INSTANTIATE_TEST_SUITE_P(Builds, Clean, ::testing::Combine(::testing::ValuesIn(k_builds), ::testing::ValuesIn(k_clean)),
                         [](const ::testing::TestParamInfo<Clean::ParamType>& info) {
                             return param_name(std::get<0>(info.param), std::get<1>(info.param).name);
                         });

// Standard output's buffer is created inside a report and released by the
// program's fclose(stdout).
class Builds : public ::testing::TestWithParam<build> {};

TEST_P(Builds, StdoutBufferFromReportIsReleasedQuietly) {
    child::result r = run(GetParam(), GetParam().heap_c, {"stdout_report"});
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("----------top by count----------\n"), std::string::npos) << r.out;
    const std::string tail = "-------------------------------\nprogram output\n";
    ASSERT_GE(r.out.size(), tail.size()) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
}

enum class shape { unknown, double_free, bad_footer };

struct fault_case {
    const char* name;
    std::vector<std::string> args;
    shape kind;
    bool in_realloc;
    size_t len;  // of the reported block
};

// Each fault through free and through realloc; unknown pointers that were
// given back by the quarantine (also from a lane whose thread is gone), that
// point inside a block and that never came from the heap; the overwritten
// footer of a plain and of an aligned block.
const fault_case k_faults[] = {
    {"double_free", {"double", "free"}, shape::double_free, false, 24},
    {"double_realloc", {"double", "realloc"}, shape::double_free, true, 24},
    {"realloc0_free", {"realloc0", "free"}, shape::double_free, false, 24},
    {"after_quarantine_free", {"after_quarantine", "free"}, shape::unknown, false, 0},
    {"after_quarantine_thread_free", {"after_quarantine_thread", "free"}, shape::unknown, false, 0},
    {"interior_realloc", {"interior", "realloc"}, shape::unknown, true, 0},
    {"stack_free", {"stack", "free"}, shape::unknown, false, 0},
    {"overflow_malloc_free", {"overflow", "free", "malloc"}, shape::bad_footer, false, 13},
    {"overflow_aligned_realloc", {"overflow", "realloc", "aligned"}, shape::bad_footer, true, 40},
};

void PrintTo(const fault_case& f, std::ostream* os) { *os << f.name; }

class Fault : public ::testing::TestWithParam<std::tuple<build, fault_case>> {};

TEST_P(Fault, ReportsExactlyAndStopsWithSigabrt) {
    const build& b = std::get<0>(GetParam());
    const fault_case& f = std::get<1>(GetParam());
    std::vector<std::string> args{"fault"};
    args.insert(args.end(), f.args.begin(), f.args.end());
    child::result r = run(b, b.heap_c, args);
    ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
    records side = parse_records(r.fd3);
    ASSERT_EQ(side.count("ptr"), 1u) << r.fd3;
    std::string expected;
    switch (f.kind) {
        case shape::unknown: expected = unknown_pointer(side, ""); break;
        case shape::double_free:
            expected = unknown_pointer(side, "") + "*** Double free ***\n" + block_report(side, "", f.len, "0xcafebabe");
            break;
        case shape::bad_footer:
            // The byte behind the block was set to 'A' (0x41), the lowest
            // byte of the first magic word.
            expected = "*** Failed to verify the footer ***\n" + block_report(side, "", f.len, "0xcafeba41");
            break;
    }
    EXPECT_EQ(r.out, expected);
    unsigned line = f.kind == shape::bad_footer ? (f.in_realloc ? 245 : 125) : (f.in_realloc ? 230 : 113);
    EXPECT_EQ(r.err, assertion(b.heap_c, line, f.in_realloc));
}

INSTANTIATE_TEST_SUITE_P(Builds, Fault,
                         ::testing::Combine(::testing::ValuesIn(k_builds), ::testing::ValuesIn(k_faults)),
                         [](const ::testing::TestParamInfo<Fault::ParamType>& info) {
                             return param_name(std::get<0>(info.param), std::get<1>(info.param).name);
                         });

// Six threads allocate and release without pause while two threads release
// their own block a second time at once: exactly one report, of one of the
// faulting threads' blocks, and the process stops.
TEST_P(Builds, DoubleFreeAmongBusyThreadsStopsWithOneReport) {
    child::result r = run(GetParam(), GetParam().heap_c, {"threads"});
    ASSERT_TRUE(r.killed_by(SIGABRT)) << r.describe();
    EXPECT_EQ(r.err, assertion(GetParam().heap_c, 113, false));
    records side = parse_records(r.fd3);
    std::string matched;
    for (std::string tag : {"t0.", "t1."})
        if (r.out.rfind(unknown_pointer(side, tag), 0) == 0) matched = tag;
    ASSERT_FALSE(matched.empty()) << "report of no faulting thread's block:\n" << r.out << "\n" << r.fd3;
    EXPECT_EQ(r.out, unknown_pointer(side, matched) + "*** Double free ***\n" +
                         block_report(side, matched, 40, "0xcafebabe"));
}

INSTANTIATE_TEST_SUITE_P(Opt, Builds, ::testing::ValuesIn(k_builds),
                         [](const ::testing::TestParamInfo<build>& info) { return std::string(info.param.opt); });

}  // namespace
