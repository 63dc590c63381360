#include "presentation.h"

#include <cstdio>
#include <initializer_list>

namespace tarvex::report {

std::vector<shown_line> show_frame(const frame_line& frame, symboliser& symbols) {
    const resolved_frame& resolved = symbols.resolve(frame);
    std::vector<shown_line> lines;
    if (!resolved.resolved) {
        shown_line line;
        line.raw = frame.text;
        lines.push_back(line);
        return lines;
    }
    for (std::size_t i = 0; i < resolved.locations.size(); ++i) {
        const source_location& where = resolved.locations[i];
        shown_line line;
        line.function = where.function.empty() ? "??" : where.function;
        line.file = where.file;
        line.line = where.line;
        line.object = resolved.object;
        line.inlined = i + 1 < resolved.locations.size();
        line.raw = frame.text;
        lines.push_back(line);
    }
    return lines;
}

std::string describe(const shown_line& line) {
    if (line.function.empty()) return line.raw;
    std::string text = line.function;
    if (!line.file.empty()) text += " at " + line.file + ":" + std::to_string(line.line);
    else text += " in " + line.object;
    if (line.inlined) text += " (inlined)";
    return text;
}

namespace {

bool starts_with_any(const std::string& text, std::initializer_list<const char*> prefixes) {
    for (const char* prefix : prefixes)
        if (text.rfind(prefix, 0) == 0) return true;
    return false;
}

// Frames of the allocators and of the standard library's containers; a
// template function's name may start with its return type ("void std::...").
bool is_allocation_machinery(const shown_line& line) {
    const std::string& name = line.function;
    if (name.empty()) return false;
    if (starts_with_any(name, {"operator new", "operator delete", "__libc_", "malloc", "calloc",
                               "realloc", "valloc", "strdup", "__strdup", "??"}))
        return true;
    std::size_t space = name.find(' ');
    bool has_return_type = space != std::string::npos && space < name.find_first_of("(<");
    std::string qualified = has_return_type ? name.substr(space + 1) : name;
    return starts_with_any(qualified, {"std::", "__gnu_cxx::"});
}

}  // namespace

std::string site_label(const call_stack& stack, symboliser& symbols) {
    for (const frame_line& frame : stack)
        for (const shown_line& line : show_frame(frame, symbols))
            if (!is_allocation_machinery(line)) return describe(line);
    if (stack.empty()) return "(no call stack)";
    return describe(show_frame(stack.front(), symbols).back());
}

std::string uid_hex(std::uint32_t uid) {
    char text[16];
    std::snprintf(text, sizeof text, "%08x", uid);
    return text;
}

std::string human_bytes(std::uint64_t bytes) {
    if (bytes < 1024) return std::to_string(bytes) + " B";
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes) / 1024;
    int unit = 0;
    while (value >= 1024 && unit < 3) value /= 1024, ++unit;
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    return text;
}

std::string blocks_text(std::uint64_t blocks) {
    return std::to_string(blocks) + (blocks == 1 ? " block" : " blocks");
}

std::string signed_blocks(std::uint64_t now, std::uint64_t before) {
    std::uint64_t change = now >= before ? now - before : before - now;
    return (now >= before ? "+" : "-") + blocks_text(change);
}

}  // namespace tarvex::report
