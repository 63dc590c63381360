// libFuzzer target for the exported text functions: the four symbol-line
// parsers of backtrace_symbols_cache and trvx_backtrace::my_demangle.
//
// Each input is used as a symbol line and as a name to demangle (once as it
// is and once behind "_ZN", so that most inputs reach the demangler's walk).
// AddressSanitizer and UBSan catch out-of-bounds reads and undefined
// arithmetic; the checks below compare every result with a small model
// written independently of the library, plus the structural properties that
// any correct result has (a parser's result is a piece of the line, a
// demangled name is never longer than its components joined by "::").

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "trvx_util.h"

namespace {

using cache = tarvex::backtrace_symbols_cache;

[[noreturn]] void fail(const char* what, const std::string& input, const std::string& got,
                       const std::string& want) {
    fprintf(stderr, "parsers_fuzz: %s\n  input: \"%s\"\n  got:   \"%s\"\n  want:  \"%s\"\n", what,
            input.c_str(), got.c_str(), want.c_str());
    abort();
}

// ---------------------------------------------------------------- parser model

const size_t none = std::string::npos;

size_t last_of(const std::string& s, char c) {
    for (size_t i = s.size(); i > 0; --i)
        if (s[i - 1] == c) return i - 1;
    return none;
}

size_t first_of(const std::string& s, char c) {
    for (size_t i = 0; i < s.size(); ++i)
        if (s[i] == c) return i;
    return none;
}

// The text between the two delimiters; an end before the start takes
// everything behind the start.
std::string between(const std::string& line, size_t s, size_t e) {
    if (s == none || e == none) return std::string();
    if (e > s) return line.substr(s + 1, e - s - 1);
    return line.substr(s + 1);
}

std::string model_symbol(const std::string& l) { return between(l, last_of(l, '('), last_of(l, ')')); }
std::string model_address(const std::string& l) { return between(l, last_of(l, '['), last_of(l, ']')); }

std::string model_function_name(const std::string& l) {
    size_t s = last_of(l, '('), e = last_of(l, '+');
    if (s == none || e == none) return model_address(l);
    return between(l, s, e);
}

std::string model_lib(const std::string& l) {
    size_t e = first_of(l, ' ');
    if (e == none) e = first_of(l, '(');
    return between(l, last_of(l, '/'), e);
}

void check_parser(void (*parse)(std::string&, const std::string&), std::string (*model)(const std::string&),
                  const char* name, const std::string& line) {
    // A result must replace whatever out held before the call.
    std::string out = "\x01stale\x02";
    parse(out, line);
    if (!out.empty() && line.find(out) == std::string::npos) fail(name, line, out, "a substring of the line");
    std::string want = model(line);
    if (out != want) fail(name, line, out, want);
}

// ---------------------------------------------------------------- demangler model

// The components of a nested name: a run of decimal digits gives the length
// of the component behind it; the walk stops at the first length of 0 (or a
// character that has no length in front of it) and at the end of the text.
// Returns false when a length does not fit in 32 signed bits, for which any
// result that stays inside the text is acceptable.
bool model_demangle(const std::string& name, std::string& result) {
    result.clear();
    if (name.compare(0, 3, "_ZN") != 0) {
        result = name;
        return true;
    }
    const std::string rest = name.substr(3);
    size_t i = 0;
    while (i < rest.size()) {
        uint64_t n = 0;
        size_t d = i;
        while (d < rest.size() && rest[d] >= '0' && rest[d] <= '9') {
            n = n * 10 + static_cast<unsigned>(rest[d] - '0');
            if (n > INT32_MAX) return false;
            ++d;
        }
        if (d == rest.size() || n == 0) break;  // trailing digits are dropped
        if (!result.empty()) result += "::";
        result += rest.substr(d, n);
        i = d + n;
    }
    return true;
}

void check_demangle(const std::string& name) {
    const std::string copy = name;
    std::string got = trvx_backtrace::my_demangle(name);
    if (name != copy) fail("my_demangle changed its argument", copy, name, copy);
    const bool nested = name.compare(0, 3, "_ZN") == 0;
    if (!nested && got != name) fail("my_demangle of a name without _ZN", name, got, name);
    if (nested) {
        // Every component costs at least one digit and one character of the
        // input and adds at most two characters of "::".
        const size_t rest = name.size() - 3;
        if (got.size() > rest + rest / 2) fail("my_demangle result too long", name, got, "shorter");
    }
    std::string want;
    if (model_demangle(name, want) && got != want) fail("my_demangle", name, got, want);
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
