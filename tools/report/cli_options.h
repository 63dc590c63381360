// Command line of the report tool.
#pragma once

#include <string>
#include <vector>

namespace tarvex::report {

struct cli_options {
    std::vector<std::string> inputs;       // files to read; "-" is standard input
    std::string html;                      // write an HTML page here instead of text
    std::vector<std::string> search_dirs;  // where else to look for object files
    bool debuginfod = false;               // let libdw ask debuginfod servers
    bool help = false;
    bool version = false;
};

// False, with a one-line reason in `error`, when the arguments make no sense.
bool parse_cli(const std::vector<std::string>& args, cli_options& options, std::string& error);

extern const char* const k_usage;

}  // namespace tarvex::report
