// Symbolising frames of this very test program, written the way glibc
// writes them, and frames that cannot be resolved.
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

TEST(Symboliser, SymbolPlusOffsetMatchesTheOffsetForm) {
    own_frame own = frame_in_marker();
    symboliser symbols;
    const resolved_frame by_symbol = symbols.resolve(parse_frame_line(
        own.path + "(tvx_marker+0x4) [" + hex(own.address) + "]"));
    const resolved_frame by_offset = symbols.resolve(parse_frame_line(
        own.path + "(+" + hex(own.address - own.bias) + ") [" + hex(own.address) + "]"));
    ASSERT_TRUE(by_symbol.resolved);
    EXPECT_EQ(by_symbol.address, by_offset.address);
    EXPECT_EQ(by_symbol.locations.back().function, "tvx_marker");
    EXPECT_EQ(by_symbol.locations.front().line, by_offset.locations.front().line);
}

TEST(Symboliser, DemangledNamesFromTheCxxLibrary) {
    Dl_info info;
    void* handle = dlopen("libstdc++.so.6", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr);
    void* nw = dlsym(handle, "_Znwm");
    ASSERT_NE(dladdr(nw, &info), 0);
    dlclose(handle);
    symboliser symbols;
    const resolved_frame& r =
        symbols.resolve(parse_frame_line(std::string(info.dli_fname) + "(_Znwm+0x1c) [0x1]"));
    ASSERT_TRUE(r.resolved);
    EXPECT_EQ(r.locations.back().function, "operator new(unsigned long)");
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

TEST(Symboliser, FindsObjectsInSearchDirectories) {
    own_frame own = frame_in_marker();
    std::string dir = own.path.substr(0, own.path.rfind('/'));
    std::string name = own.path.substr(own.path.rfind('/') + 1);
    symboliser symbols({"/nonexistent", dir});
    const resolved_frame& r = symbols.resolve(
        parse_frame_line("elsewhere/" + name + "(tvx_marker+0x4) [0x1]"));
    EXPECT_TRUE(r.resolved);
    EXPECT_EQ(symbols.objects_seen(), 1u);
}

TEST(Symboliser, FrameKeysLeaveOutTheAbsoluteAddress) {
    EXPECT_EQ(frame_key(parse_frame_line("/a/b(+0x10) [0x5555]")), "/a/b(+0x10)");
    EXPECT_EQ(frame_key(parse_frame_line("/a/b(f+0x10) [0x5555]")), "/a/b(f+0x10)");
    EXPECT_EQ(frame_key(parse_frame_line("/a/b [0x5555]")), "/a/b [0x5555]");
}

}  // namespace
}  // namespace tarvex::report
