// libFuzzer target for the four symbol-line parsers of
// backtrace_symbols_cache and trvx_backtrace::my_demangle. Each input is a
// symbol line and a name to demangle, as it is and behind "_ZN" (so that
// most inputs reach the demangler's walk). Sanitizers catch bad reads and
// undefined arithmetic; every result is compared with a small model written
// independently of the library.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "trvx_util.h"

namespace {

using cache = tarvex::backtrace_symbols_cache;
const size_t none = std::string::npos;

void check(const char* what, const std::string& input, const std::string& got, const std::string& want) {
    if (got == want) return;
    fprintf(stderr, "parsers_fuzz: %s\n  input: \"%s\"\n  got:   \"%s\"\n  want:  \"%s\"\n", what, input.c_str(),
            got.c_str(), want.c_str());
    abort();
}

// The text between two delimiters; an end before the start takes everything
// behind the start.
std::string between(const std::string& l, size_t s, size_t e) {
    if (s == none || e == none) return "";
    return e > s ? l.substr(s + 1, e - s - 1) : l.substr(s + 1);
}

std::string model_symbol(const std::string& l) { return between(l, l.rfind('('), l.rfind(')')); }
std::string model_address(const std::string& l) { return between(l, l.rfind('['), l.rfind(']')); }
std::string model_function_name(const std::string& l) {
    return l.rfind('(') == none || l.rfind('+') == none ? model_address(l) : between(l, l.rfind('('), l.rfind('+'));
}
std::string model_lib(const std::string& l) {
    return between(l, l.rfind('/'), l.find(' ') != none ? l.find(' ') : l.find('('));
}

void check_parser(void (*parse)(std::string&, const std::string&), std::string (*model)(const std::string&),
                  const char* name, const std::string& line) {
    std::string out = "\x01stale\x02";  // a result replaces what out held
    parse(out, line);
    check(name, line, out, model(line));
}

// The components of a nested name: a run of digits gives the length of the
// component behind it; the walk stops at a length of 0 (or no digits) and
// at the end of the text. False when a length does not fit in 32 signed
// bits, for which any result is accepted.
bool model_demangle(const std::string& name, std::string& result) {
    result = name;
    if (name.compare(0, 3, "_ZN") != 0) return true;
    result.clear();
    for (size_t i = 3;;) {
        uint64_t n = 0;
        size_t d = i;
        for (; d < name.size() && name[d] >= '0' && name[d] <= '9'; ++d)
            if ((n = n * 10 + unsigned(name[d] - '0')) > INT32_MAX) return false;
        if (d >= name.size() || n == 0) break;  // trailing digits are dropped
        result += (result.empty() ? "" : "::") + name.substr(d, n);
        i = d + n;
    }
    return true;
}

void check_demangle(const std::string& name) {
    std::string want;
    std::string got = trvx_backtrace::my_demangle(name);
    if (model_demangle(name, want)) check("my_demangle", name, got, want);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    check_parser(cache::extract_symbol, model_symbol, "extract_symbol", line);
    check_parser(cache::extract_address, model_address, "extract_address", line);
    check_parser(cache::extract_function_name, model_function_name, "extract_function_name", line);
    check_parser(cache::extract_lib, model_lib, "extract_lib", line);
    check_demangle(line);
    check_demangle("_ZN" + line);
    return 0;
}
