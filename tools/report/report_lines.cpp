#include "report_lines.h"

namespace tarvex::report {

namespace {

// Reads a line from left to right; every step fails once one has failed.
class cursor {
public:
    explicit cursor(const std::string& text) : m_text(text) {}

    cursor& literal(const std::string& word) {
        if (m_ok && m_text.compare(m_pos, word.size(), word) == 0) m_pos += word.size();
        else m_ok = false;
        return *this;
    }

    cursor& hex8(std::uint32_t& value) {
        std::uint32_t v = 0;
        for (int i = 0; m_ok && i < 8; ++i, ++m_pos) {
            int d = m_pos < m_text.size() ? hex_digit(m_text[m_pos]) : -1;
            if (d < 0) m_ok = false;
            v = v << 4 | static_cast<std::uint32_t>(d);
        }
        if (m_ok) value = v;
        return *this;
    }

    template <typename T>
    cursor& decimal(T& value) {
        bool negative = m_ok && m_pos < m_text.size() && m_text[m_pos] == '-';
        if (negative) ++m_pos;
        std::uint64_t v = 0;
        std::size_t start = m_pos;
        while (m_ok && m_pos < m_text.size() && m_text[m_pos] >= '0' && m_text[m_pos] <= '9')
            v = v * 10 + static_cast<std::uint64_t>(m_text[m_pos++] - '0');
        if (m_pos == start || m_pos - start > 20) m_ok = false;
        if (m_ok) value = negative ? static_cast<T>(0 - v) : static_cast<T>(v);
        return *this;
    }

    cursor& word_until(char stop, std::string& out) {
        std::size_t end = m_ok ? m_text.find(stop, m_pos) : std::string::npos;
        if (end == std::string::npos || end == m_pos) m_ok = false;
        else out = m_text.substr(m_pos, end - m_pos), m_pos = end;
        return *this;
    }

    cursor& optional(char c) {
        if (m_ok && m_pos < m_text.size() && m_text[m_pos] == c) ++m_pos;
        return *this;
    }

    bool at_end() const { return m_ok && m_pos == m_text.size(); }

private:
    static int hex_digit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    }

    const std::string& m_text;
    std::size_t m_pos = 0;
    bool m_ok = true;
};

}  // namespace

bool parse_uid_entry(const std::string& line, std::uint32_t& uid) {
    std::uint32_t v = 0;
    cursor c(line);
    c.literal("uid: ").hex8(v).literal(", bt:").optional(' ');
    if (!c.at_end()) return false;
    uid = v;
    return true;
}

bool parse_trace_record(const std::string& line, trace_record& record) {
    trace_record r;
    cursor c(line);
    c.literal("alloc_uid: ").hex8(r.alloc_uid).literal(", free_uid: ").hex8(r.free_uid);
    c.literal(", size: ").decimal(r.size);
    if (!c.at_end()) return false;
    record = r;
    return true;
}

bool parse_count_row(const std::string& line, top_row& row) {
    top_row r;
    cursor c(line);
    c.literal("uid: ").hex8(r.uid).literal(", count: ").decimal(r.count);
    c.literal(", size: ").decimal(r.size);
    if (!c.at_end()) return false;
    row = r;
    return true;
}

bool parse_size_row(const std::string& line, top_row& row) {
    top_row r;
    cursor c(line);
    c.literal("uid: ").hex8(r.uid).literal(", size: ").decimal(r.size);
    c.literal(", count: ").decimal(r.count);
    if (!c.at_end()) return false;
    row = r;
    return true;
}

bool parse_usage(const std::string& line, top_report& report) {
    std::string short_form;
    std::uint64_t bytes = 0;
    std::int64_t rate = 0;
    cursor c(line);
    c.literal("Mem usage: ").word_until(' ', short_form).literal(" (").decimal(bytes);
    c.literal(" bytes) (alloc/sec: ").decimal(rate).literal(")");
    if (!c.at_end()) return false;
    report.has_usage = true;
    report.usage_short = short_form;
    report.usage_bytes = bytes;
    report.alloc_rate = rate;
    return true;
}

bool is_fault_assertion(const std::string& line) {
    return line.find(": lib/trvx_hook:") != std::string::npos &&
           line.find("Assertion `0' failed.") != std::string::npos;
}

}  // namespace tarvex::report
