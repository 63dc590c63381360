// The symbol line parsers and the exported demangler.
#include "unit_support.h"

namespace {

using cache = tarvex::backtrace_symbols_cache;

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
    using parser = void (*)(std::string&, const std::string&);
    const struct {
        const char* name;
        parser fn;
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
}

TEST(Demangler, SurvivesLengthsTooLargeForAnInt) {
    for (const std::string& name :
         std::vector<std::string>{"_ZN2147483647ab", "_ZN2147483648ab", "_ZN4294967297abcdef", "_ZN99999999999x",
          "_ZN" + std::string(200, '9') + "abc", "_ZN3abc" + std::string(30, '7') + "d"}) {
        std::string result = trvx_backtrace::my_demangle(name);
        EXPECT_LE(result.size(), name.size()) << name;
    }
}

}  // namespace
