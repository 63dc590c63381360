// Symbolising frames of this very test program, written the way glibc
// writes them, and frames that cannot be resolved. (The sample program's
// reports, symbolised by the tool itself, are report_runs_test.sh's part:
// other build kinds, libraries, C++ names, search directories.)
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstdio>

#include "symboliser.h"

namespace tarvex::report {
namespace {

extern "C" __attribute__((noinline, used)) int tvx_marker(int x) {
    asm volatile("" ::: "memory");
    return x * 3 + 1;  // @marker
}

// The address as glibc's backtrace_symbols would show it: the process's own
// path, the offset from the load bias, and the absolute address.
struct own_frame {
    std::string path;
    std::uintptr_t bias;
    std::uintptr_t address;
};

own_frame frame_in_marker() {
    Dl_info info;
    link_map* map = nullptr;
    auto address = reinterpret_cast<std::uintptr_t>(&tvx_marker) + 4;
    EXPECT_NE(dladdr1(reinterpret_cast<void*>(address), &info, reinterpret_cast<void**>(&map),
                      RTLD_DL_LINKMAP), 0);
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    path[n > 0 ? n : 0] = '\0';
    return {path, map ? map->l_addr : 0, address};
}

std::string hex(std::uintptr_t v) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%lx", static_cast<unsigned long>(v));
    return text;
}

TEST(Symboliser, OffsetFromTheLoadBias) {
    own_frame own = frame_in_marker();
    symboliser symbols;
    const resolved_frame& r = symbols.resolve(parse_frame_line(
        own.path + "(+" + hex(own.address - own.bias) + ") [" + hex(own.address) + "]"));
    ASSERT_TRUE(r.resolved);
    EXPECT_EQ(r.address, own.address - own.bias);
    ASSERT_FALSE(r.locations.empty());
    EXPECT_EQ(r.locations.back().function, "tvx_marker");
    EXPECT_NE(r.locations.front().file.find("symboliser_test.cpp"), std::string::npos);
    EXPECT_GT(r.locations.front().line, 0);
}

TEST(Symboliser, LeavesWhatItCannotResolve) {
    own_frame own = frame_in_marker();
    symboliser symbols({"/nonexistent"});
    for (const std::string& line :
         {std::string("[0x4f2a]"), std::string("/no/such/file(+0x10) [0x10]"),
          own.path + "(no_such_symbol+0x1) [0x1]",
          own.path + " [0x" + std::string("10") + "]",  // a PIE without offset
          std::string("/etc/hostname(+0x10) [0x10]")}) {
        EXPECT_FALSE(symbols.resolve(parse_frame_line(line)).resolved) << line;
    }
}

}  // namespace
}  // namespace tarvex::report
