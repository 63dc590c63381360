// Call stacks and their uids, the caches from uid to return addresses and to
// symbol lines, the symbol line parsers and the exported demangler.
#include "unit_support.h"

namespace {

using tarvex::backtrace;
using cache = tarvex::backtrace_symbols_cache;

std::vector<void*> frames_of(std::initializer_list<uint64_t> addrs) {
    std::vector<void*> v;
    for (uint64_t a : addrs) v.push_back(reinterpret_cast<void*>(a));
    return v;
}

// The worked examples, and a list longer than the capacity, which keeps its
// first 64 frames.
TEST(Backtrace, UidOfAStack) {
    const std::pair<std::vector<void*>, uint32_t> rows[] = {
        {frames_of({0x00007F3A12345678, 0x00007F3A1234ABCD, 0x0000000000401A2B}), 0xE2A311ED},
        {frames_of({0x00007F3A12345678, 0x00007F3A1234ABCD}), 0xDCD132DE},
        {frames_of({0x0000000000401A2B}), 0x571D6BA5},
        {frames_of({0x00007F3A12345678}), 0x9D993148},
        {{}, 0},
    };
    for (const auto& r : rows) {
        backtrace bt(r.first);
        EXPECT_EQ(bt.get_bt_len(), int(r.first.size()));
        EXPECT_EQ(bt.get_cookie(), r.second) << std::hex << r.second;
        EXPECT_EQ(bt.compute_cookie(), r.second);
    }
    std::vector<void*> frames = unit::fake_frames(70, 1);
    backtrace bt(frames);
    ASSERT_EQ(bt.get_bt_len(), 64);
    EXPECT_EQ(bt.get_bt()[63], frames[63]);
    frames.resize(64);
    EXPECT_EQ(bt.get_cookie(), backtrace(frames).get_cookie());
}

// The table behind the stack cache, through several doublings: uid 0 (a
// real uid of a non-empty stack, though rare), uids that share their low
// bits, and lengths 1 to 64 all come back exactly; the first stack of a uid
// stays.
TEST(StackTable, KeepsEveryFirstStackAcrossGrowth) {
    tarvex::stack_table table;
    std::vector<uint32_t> uids;
    for (uint32_t i = 0; i < 3000; ++i) uids.push_back(i % 2 ? i << 20 : i * 2654435761u);
    for (size_t i = 0; i < uids.size(); ++i) {
        std::vector<void*> frames = unit::fake_frames(int(i % 64) + 1, i), other = unit::fake_frames(2, i + 7);
        table.insert(uids[i], frames.data(), uint32_t(frames.size()));
        table.insert(uids[i], other.data(), 2);
    }
    EXPECT_EQ(table.size(), uids.size());
    for (size_t i = 0; i < uids.size(); ++i) {
        const tarvex::stack_table::frames* f = table.find(uids[i]);
        ASSERT_NE(f, nullptr) << i;
        EXPECT_EQ(std::vector<void*>(f->addrs(), f->addrs() + f->len), unit::fake_frames(int(i % 64) + 1, i));
    }
    EXPECT_EQ(table.find(12345), nullptr);
    table.clear();
    EXPECT_EQ(table.find(uids[0]), nullptr);
}

class SymbolCache : public unit::seams {
protected:
    cache symbols;
    const std::vector<std::string> untouched = {"keep", "me"};
};

// The first stack of a uid stands for it (two stacks that differ only in
// the upper half of a later address share a uid); an empty stack is never
// recorded. Lines are made once, by the updating lookup only, and replace
// what the vector held; a failed symbolization is tried again later.
TEST_F(SymbolCache, KeepsTheFirstStackOfAUidAndItsLinesOnce) {
    backtrace empty(std::vector<void*>{});
    symbols.update_bt_cache(empty);
    std::vector<void*> first = unit::fake_frames(3, 7), second = first;
    second[2] = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(second[2]) ^ (uintptr_t(1) << 40));
    backtrace a(first), b(second);
    ASSERT_EQ(a.get_cookie(), b.get_cookie());
    for (backtrace* bt : {&a, &b, &a}) symbols.update_bt_cache(*bt);
    EXPECT_EQ(symbols.bt_cache_size(), 1u);

    std::vector<std::string> out = untouched;
    EXPECT_FALSE(symbols.find_and_update_bt_sym(out, 0));
    EXPECT_FALSE(symbols.find_bt_sym(out, a.get_cookie()));
    cache::s_symbolizer = unit::failing_symbolizer;
    EXPECT_FALSE(symbols.find_and_update_bt_sym(out, a.get_cookie()));
    EXPECT_FALSE(symbols.find_bt_sym(out, a.get_cookie()));
    EXPECT_EQ(out, untouched);
    cache::s_symbolizer = unit::fake_symbolizer;
    out = {"old", "old", "old", "old", "old"};
    ASSERT_TRUE(symbols.find_and_update_bt_sym(out, a.get_cookie()));
    EXPECT_EQ(out, (std::vector<std::string>{"L0", "L1", "L2"}));
    EXPECT_EQ(unit::last_symbolized(), first);
    out = untouched;
    ASSERT_TRUE(symbols.find_bt_sym(out, a.get_cookie()));
    EXPECT_EQ(out, (std::vector<std::string>{"L0", "L1", "L2"}));
    ASSERT_TRUE(symbols.find_and_update_bt_sym(out, a.get_cookie()));
    EXPECT_EQ(unit::g_symbolizer_calls, 2);

    backtrace deep(unit::fake_frames(64, 8));  // every frame is kept
    symbols.update_bt_cache(deep);
    ASSERT_TRUE(symbols.find_and_update_bt_sym(out, deep.get_cookie()));
    EXPECT_EQ(out.size(), 64u);
}

struct parse_row {
    std::string line, symbol, address, function, lib;
};

TEST(SymbolLineParsers, CutTheirFieldOutOfEveryLine) {
    const parse_row rows[] = {
        {"/opt/app/lib/libwidget.so.2(_ZN6widget4drawEv+0x1c) [0xa3c4]", "_ZN6widget4drawEv+0x1c", "0xa3c4",
         "_ZN6widget4drawEv", "libwidget.so.2(_ZN6widget4drawEv+0x1c)"},
        {"/opt/app/bin/server(+0x1f2a) [0x4f2a]", "+0x1f2a", "0x4f2a", "", "server(+0x1f2a)"},
        {"/opt/app/bin/server(main-0x10) [0x4f2a]", "main-0x10", "0x4f2a", "0x4f2a", "server(main-0x10)"},
        {"/opt/app/bin/server [0x4f2a]", "", "0x4f2a", "0x4f2a", "server"},
        {"[0x4f2a]", "", "0x4f2a", "0x4f2a", ""},
        {"/opt/app/lib/libwidget.so.2(_ZN6widget4drawEv+0x1c)", "_ZN6widget4drawEv+0x1c", "", "_ZN6widget4drawEv",
         "libwidget.so.2"},
        {"libwidget.so.2(_ZN6widget4drawEv+0x1c) [0xa3c4]", "_ZN6widget4drawEv+0x1c", "0xa3c4", "_ZN6widget4drawEv",
         ""},
        {"/opt/g++/lib/libx.so(f-0x8) [0x1000]", "f-0x8", "0x1000", "f-0x8) [0x1000]", "libx.so(f-0x8)"},
        {"/opt/my app/bin/x(f+0x1) [0x1]", "f+0x1", "0x1", "f", "x(f+0x1) [0x1]"},
        {"", "", "", "", ""},
        // Delimiters missing or out of order.
        {"(abc", "", "", "", ""},
        {"x]y[z", "", "z", "z", ""},
        {"a)b(c", "c", "", "", ""},
        {"/lib/x.so()", "", "", "", "x.so"},
    };
    const struct {
        const char* name;
        void (*fn)(std::string&, const std::string&);
        std::string parse_row::*expected;
    } parsers[] = {
        {"extract_symbol", cache::extract_symbol, &parse_row::symbol},
        {"extract_address", cache::extract_address, &parse_row::address},
        {"extract_function_name", cache::extract_function_name, &parse_row::function},
        {"extract_lib", cache::extract_lib, &parse_row::lib},
    };
    for (const parse_row& r : rows)
        for (const auto& p : parsers) {
            std::string out = "stale text";  // always overwritten
            p.fn(out, r.line);
            EXPECT_EQ(out, r.*p.expected) << p.name << "(\"" << r.line << "\")";
        }
}

TEST(Demangler, TranslatesTheLeadingNestedName) {
    const std::pair<std::string, std::string> rows[] = {
        {"_ZN6widget4drawEv", "widget::draw"},
        {"_ZN6widget5panel6resizeEii", "widget::panel::resize"},
        {"_ZN6widget5panelC2Ev", "widget::panel"},
        {"_ZN6widget12render_frameEPKc", "widget::render_frame"},
        {"_ZN6widget4drawE3foo", "widget::draw"},
        {"_ZNK6widget5panel4sizeEv", ""},
        {"_ZNSt6vectorIiSaIiEE9push_backERKi", ""},
        {"_ZN6widget", "widget"},
        {"_ZN6wid", "wid"},
        {"_ZN007widgetE", "widgetE"},
        {"_ZN2ab12cdE", "ab::cdE"},
        {"_ZN12", ""},
        {"_ZN0E", ""},
        {"_ZN", ""},
        {"_Z4initv", "_Z4initv"},
        {"x_ZN3fooE", "x_ZN3fooE"},
        {"malloc", "malloc"},
        {"", ""},
        {"_ZN3a1b2cd", "a1b::cd"},
        {"_ZN3\xc3\xa9x1yE", "\xc3\xa9x::y"},
    };
    for (const auto& r : rows) EXPECT_EQ(trvx_backtrace::my_demangle(r.first), r.second) << r.first;
    // Lengths too large for an int never read outside the name.
    for (const std::string& name :
         {std::string("_ZN2147483647ab"), std::string("_ZN2147483648ab"), std::string("_ZN4294967297abcdef"),
          std::string("_ZN99999999999x"), "_ZN" + std::string(200, '9') + "abc", "_ZN3abc" + std::string(30, '7') + "d"})
        EXPECT_LE(trvx_backtrace::my_demangle(name).size(), name.size()) << name;
}

}  // namespace
