// Linked against libtarvex.so (not preloaded): calls the exported symbol
// line parsers and the demangler through declarations of its own.
// Reads "function<TAB>argument" lines and prints one result line each.
#include <iostream>
#include <string>
#include <vector>

namespace tarvex {
class backtrace_symbols_cache {
public:
    static void extract_symbol(std::string& out, const std::string& line);
    static void extract_address(std::string& out, const std::string& line);
    static void extract_function_name(std::string& out, const std::string& line);
    static void extract_lib(std::string& out, const std::string& line);
};
}  // namespace tarvex

class trvx_backtrace {
public:
    trvx_backtrace();
    ~trvx_backtrace();
    void backtrace_symbols(std::vector<std::string>& out, void** frames, int count);
    static std::string my_demangle(std::string name);
};

int main() {
    using cache = tarvex::backtrace_symbols_cache;
    std::string request;
    while (std::getline(std::cin, request)) {
        size_t tab = request.find('\t');
        if (tab == std::string::npos) return 2;
        std::string fn = request.substr(0, tab), arg = request.substr(tab + 1);
        std::string out = "(untouched)";
        if (fn == "symbol") cache::extract_symbol(out, arg);
        else if (fn == "address") cache::extract_address(out, arg);
        else if (fn == "function") cache::extract_function_name(out, arg);
        else if (fn == "lib") cache::extract_lib(out, arg);
        else if (fn == "demangle") {
            std::string kept = arg;
            out = trvx_backtrace::my_demangle(arg);
            if (arg != kept) out = "(argument changed)";
        } else if (fn == "symbols") {
            trvx_backtrace t;
            std::vector<std::string> lines{arg, "second"};
            void* frames[1] = {nullptr};
            t.backtrace_symbols(lines, frames, 1);
            out = lines.size() == 2 && lines[0] == arg && lines[1] == "second" ? "unchanged" : "changed";
        } else {
            return 3;
        }
        std::cout << out << '\n';
    }
    return 0;
}
