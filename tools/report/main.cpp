// tarvex-report: symbolises and sums up the reports that libtarvex.so wrote.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

#include "cli_options.h"
#include "html_output.h"
#include "log_parser.h"
#include "text_output.h"

namespace {

using namespace tarvex::report;

constexpr const char* k_name = "tarvex report";

int fail(const std::string& message, int status) {
    std::cerr << k_name << ": " << message << '\n';
    return status;
}

bool read_inputs(const cli_options& options, std::vector<parsed_log>& logs) {
    for (const std::string& input : options.inputs) {
        if (input == "-") {
            logs.push_back(parse_log(std::cin, "(standard input)"));
            continue;
        }
        std::ifstream file(input, std::ios::binary);
        if (!file) {
            fail("cannot read " + input + ": " + std::strerror(errno), 1);
            return false;
        }
        logs.push_back(parse_log(file, input));
    }
    return true;
}

bool found_reports(const std::vector<parsed_log>& logs) {
    for (const parsed_log& log : logs)
        if (!log.reports.empty()) return true;
    return false;
}

int write_html_file(const std::string& path, const std::vector<parsed_log>& logs,
                    symboliser& symbols) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) return fail("cannot write " + path + ": " + std::strerror(errno), 1);
    write_html(file, logs, symbols);
    file.close();
    if (!file) return fail("cannot write " + path, 1);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    cli_options options;
    std::string error;
    if (!parse_cli(std::vector<std::string>(argv + 1, argv + argc), options, error))
        return fail(error + " (see tarvex report --help)", 2);
    if (options.help) {
        std::cout << k_usage;
        return 0;
    }
    if (options.version) {
        std::cout << "tarvex report " << TARVEX_VERSION << '\n';
        return 0;
    }
    // Without being asked, never wait for a network service.
    if (!options.debuginfod) unsetenv("DEBUGINFOD_URLS");
    std::vector<parsed_log> logs;
    if (!read_inputs(options, logs)) return 1;
    if (!found_reports(logs)) return fail("no tarvex report found in the input", 1);
    symboliser symbols(options.search_dirs);
    if (!options.html.empty()) return write_html_file(options.html, logs, symbols);
    write_text(std::cout, logs, symbols);
    std::cout.flush();
    return std::cout ? 0 : 1;
}
