#include "cli_options.h"

namespace tarvex::report {

const char* const k_usage =
    "usage: tarvex report [OPTIONS] FILE...\n"
    "\n"
    "Reads log files or captured program output holding tarvex's trace dumps,\n"
    "top reports and fault reports, and writes them again with every frame\n"
    "symbolised (function, source file and line), followed by the live memory\n"
    "of each call site across the top reports, the leak suspects (call sites\n"
    "whose live bytes only grew), and per trace dump what the traced window\n"
    "allocated and did not release. FILE '-' is standard input.\n"
    "\n"
    "options:\n"
    "  --html OUT.html       write one self-contained HTML page instead of text\n"
    "  -d, --search-dir DIR  also look for the object files named in the\n"
    "                        reports under DIR (repeatable); relative paths in\n"
    "                        the reports are relative to the program's working\n"
    "                        directory, which may not be the current one\n"
    "  --debuginfod          let elfutils fetch missing debug information from\n"
    "                        the servers in DEBUGINFOD_URLS (off by default)\n"
    "  -h, --help            show this help\n"
    "  --version             show the version\n";

namespace {

// Reads the value of an option given as "--name VALUE" or "--name=VALUE".
bool option_value(const std::vector<std::string>& args, std::size_t& i, const std::string& name,
                  std::string& value, std::string& error) {
    const std::string& arg = args[i];
    if (arg.size() > name.size() && arg.compare(0, name.size() + 1, name + "=") == 0) {
        value = arg.substr(name.size() + 1);
    } else if (i + 1 < args.size()) {
        value = args[++i];
    } else {
        error = "option " + name + " needs a value";
        return false;
    }
    if (value.empty()) error = "option " + name + " needs a non-empty value";
    return !value.empty();
}

bool is_option(const std::string& arg, const std::string& name) {
    return arg == name || arg.compare(0, name.size() + 1, name + "=") == 0;
}

}  // namespace

bool parse_cli(const std::vector<std::string>& args, cli_options& options, std::string& error) {
    bool only_files = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        std::string value;
        if (only_files || arg == "-" || arg.empty() || arg[0] != '-') {
            options.inputs.push_back(arg);
        } else if (arg == "--") {
            only_files = true;
        } else if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "--version") {
            options.version = true;
        } else if (arg == "--debuginfod") {
            options.debuginfod = true;
        } else if (is_option(arg, "--html")) {
            if (!option_value(args, i, "--html", options.html, error)) return false;
        } else if (arg == "-d" || is_option(arg, "--search-dir")) {
            if (!option_value(args, i, arg == "-d" ? "-d" : "--search-dir", value, error))
                return false;
            options.search_dirs.push_back(value);
        } else {
            error = "unknown option '" + arg + "'";
            return false;
        }
    }
    if (options.inputs.empty() && !options.help && !options.version) {
        error = "no input file given";
        return false;
    }
    return true;
}

}  // namespace tarvex::report
