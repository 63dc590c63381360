#include "frame_line.h"

namespace tarvex::report {

bool parse_hex(const std::string& text, std::uint64_t& value) {
    if (text.size() < 3 || text.size() > 18 || text.compare(0, 2, "0x") != 0) return false;
    std::uint64_t v = 0;
    for (std::size_t i = 2; i < text.size(); ++i) {
        char c = text[i];
        int digit;
        if (c >= '0' && c <= '9') digit = c - '0';
        else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
        else return false;
        v = v << 4 | static_cast<std::uint64_t>(digit);
    }
    value = v;
    return true;
}

namespace {

// Fills the object and symbol part from "PATH(INNER)"; false when the text
// inside the parentheses is neither empty nor SYMBOL±0xOFF.
bool parse_object_part(const std::string& head, frame_line& f) {
    if (head.back() != ')') {
        f.kind = frame_line::form::object_only;
        f.object = head;
        return true;
    }
    std::size_t open = head.rfind('(');
    if (open == std::string::npos || open == 0) return false;
    f.object = head.substr(0, open);
    std::string inner = head.substr(open + 1, head.size() - open - 2);
    if (inner.empty()) {
        f.kind = frame_line::form::object_only;
        return true;
    }
    std::size_t sign = inner.find_last_of("+-");
    if (sign == std::string::npos || !parse_hex(inner.substr(sign + 1), f.offset)) return false;
    f.symbol = inner.substr(0, sign);
    f.negative = inner[sign] == '-';
    if (f.symbol.empty() && f.negative) return false;
    f.kind = f.symbol.empty() ? frame_line::form::file_offset : frame_line::form::symbol_offset;
    return true;
}

}  // namespace

frame_line parse_frame_line(const std::string& line) {
    frame_line f;
    f.text = line;
    if (line.size() < 4 || line.back() != ']') return f;
    std::size_t open = line.rfind('[');
    if (open == std::string::npos) return f;
    std::uint64_t address = 0;
    if (!parse_hex(line.substr(open + 1, line.size() - open - 2), address)) return f;
    if (open == 0) {
        f.kind = frame_line::form::address_only;
        f.address = address;
        return f;
    }
    if (open < 2 || line[open - 1] != ' ') return f;
    frame_line parsed = f;
    if (!parse_object_part(line.substr(0, open - 1), parsed)) return f;
    parsed.address = address;
    return parsed;
}

bool looks_like_frame(const std::string& line) {
    return parse_frame_line(line).kind != frame_line::form::unparsed;
}

}  // namespace tarvex::report
