// Taking frame lines apart: the four forms glibc writes and what is not one.
#include <gtest/gtest.h>

#include "frame_line.h"

namespace tarvex::report {
namespace {

using form = frame_line::form;

TEST(FrameLine, SymbolPlusOffset) {
    frame_line f = parse_frame_line(
        "/lib/x86_64-linux-gnu/libc.so.6(__libc_start_main+0x85) [0x7f49aec25305]");
    EXPECT_EQ(f.kind, form::symbol_offset);
    EXPECT_EQ(f.object, "/lib/x86_64-linux-gnu/libc.so.6");
    EXPECT_EQ(f.symbol, "__libc_start_main");
    EXPECT_FALSE(f.negative);
    EXPECT_EQ(f.offset, 0x85u);
    EXPECT_EQ(f.address, 0x7f49aec25305u);
}

TEST(FrameLine, SymbolMinusOffset) {
    frame_line f = parse_frame_line("/opt/app/bin/server(main-0x10) [0x4f2a]");
    EXPECT_EQ(f.kind, form::symbol_offset);
    EXPECT_EQ(f.symbol, "main");
    EXPECT_TRUE(f.negative);
    EXPECT_EQ(f.offset, 0x10u);
}

TEST(FrameLine, FileOffsetAndRelativePath) {
    frame_line f = parse_frame_line("build/bin/tarvex_demo(+0x1255) [0x55a5713fe255]");
    EXPECT_EQ(f.kind, form::file_offset);
    EXPECT_EQ(f.object, "build/bin/tarvex_demo");
    EXPECT_TRUE(f.symbol.empty());
    EXPECT_EQ(f.offset, 0x1255u);
    EXPECT_EQ(f.address, 0x55a5713fe255u);
}

TEST(FrameLine, ObjectWithoutSymbolPart) {
    for (const char* line : {"/opt/app/bin/server [0x4f2a]", "/opt/app/bin/server() [0x4f2a]"}) {
        frame_line f = parse_frame_line(line);
        EXPECT_EQ(f.kind, form::object_only) << line;
        EXPECT_EQ(f.object, "/opt/app/bin/server") << line;
        EXPECT_EQ(f.address, 0x4f2au) << line;
    }
}

TEST(FrameLine, AddressOnly) {
    frame_line f = parse_frame_line("[0x4f2a]");
    EXPECT_EQ(f.kind, form::address_only);
    EXPECT_TRUE(f.object.empty());
    EXPECT_EQ(f.address, 0x4f2au);
}

TEST(FrameLine, PathsWithBlanksAndParentheses) {
    frame_line f = parse_frame_line("/opt/my app (old)/lib/libx.so(f+0x1) [0x10]");
    EXPECT_EQ(f.kind, form::symbol_offset);
    EXPECT_EQ(f.object, "/opt/my app (old)/lib/libx.so");
    EXPECT_EQ(f.symbol, "f");
    f = parse_frame_line("/opt/g++/lib/libx.so(_ZN1a1bEv+0x8) [0x1000]");
    EXPECT_EQ(f.object, "/opt/g++/lib/libx.so");
    EXPECT_EQ(f.symbol, "_ZN1a1bEv");
}

TEST(FrameLine, KeepsTheTextOfEveryLine) {
    const std::string line = "/a/b(+0x1) [0x2]";
    EXPECT_EQ(parse_frame_line(line).text, line);
    EXPECT_EQ(parse_frame_line("hello").text, "hello");
}

TEST(FrameLine, RejectsWhatIsNoFrame) {
    for (const char* line : {"", "[]", "[0x]", "[4f2a]", "x [0xzz]", "/a/b(+0x1)[0x2]",
                             "/a/b(+0x1) [0x2] trailing", "/a/b(sym) [0x2]", "/a/b(-0x1) [0x2]",
                             "(f+0x1) [0x2]", "round 2 done", "uid: 0012abcd, bt: ",
                             "/a/b(+0x1) [0x11112222333344445]"}) {
        EXPECT_EQ(parse_frame_line(line).kind, form::unparsed) << line;
        EXPECT_FALSE(looks_like_frame(line)) << line;
    }
}

TEST(FrameLine, HexValues) {
    std::uint64_t v = 7;
    EXPECT_TRUE(parse_hex("0xffffffffffffffff", v));
    EXPECT_EQ(v, ~0ull);
    EXPECT_TRUE(parse_hex("0xAbC", v));
    EXPECT_EQ(v, 0xabcu);
    v = 7;
    EXPECT_FALSE(parse_hex("0x", v));
    EXPECT_FALSE(parse_hex("12", v));
    EXPECT_FALSE(parse_hex("0x1g", v));
    EXPECT_FALSE(parse_hex("0x10000000000000000", v));
    EXPECT_EQ(v, 7u);
}

}  // namespace
}  // namespace tarvex::report
