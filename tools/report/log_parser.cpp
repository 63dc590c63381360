#include "log_parser.h"

#include "report_lines.h"

namespace tarvex::report {

namespace {

// A line-driven state machine. Each state handler either takes the line or
// declines it; a declined line closes the report being read (as cut short,
// unless the report may end there) and is read again from the idle state.
class log_parser {
public:
    explicit log_parser(const std::string& input) { m_log.input = input; }

    void feed(const std::string& line, std::size_t number, bool complete);
    parsed_log finish();

private:
    enum class state {
        idle, uid_section, uid_frames, trace_records, top_count_heading, top_count_rows,
        top_size_rows, fault_heading, block_line, magic_line, alloc_heading, alloc_frames,
        free_frames,
    };

    bool take(const std::string& line);
    bool take_idle(const std::string& line);
    bool take_uid_section(const std::string& line);
    bool take_uid_frame(const std::string& line);
    bool take_trace_record(const std::string& line);
    bool take_top_line(const std::string& line);
    bool take_fault_line(const std::string& line);
    bool take_fault_frame(const std::string& line);
    void start_fault(fault_report::kind what, const std::string& pointer);
    void close(bool cut_short);
    bool attach_assertion(const std::string& line);

    parsed_log m_log;
    state m_state = state::idle;
    source_place m_place;
    uid_stacks m_stacks;
    std::uint32_t m_uid = 0;
    trace_dump m_trace;
    top_report m_top;
    fault_report m_fault;
};

void log_parser::feed(const std::string& raw, std::size_t number, bool complete) {
    std::string line = raw;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    m_place = {m_log.input, number};
    if (!complete) {
        // The input ends inside this line: whatever report it belongs to
        // was cut short.
        if (m_state == state::idle) ++m_log.other_lines;
        else close(true);
        return;
    }
    if (line == heading::uid_section) {
        close(true);
        m_stacks.clear();
        m_trace = trace_dump{};
        m_top = top_report{};
        m_trace.at = m_top.at = m_place;
        m_state = state::uid_section;
        return;
    }
    if (take(line)) return;
    close(true);
    if (!take_idle(line) && !line.empty()) ++m_log.other_lines;
}

bool log_parser::take(const std::string& line) {
    switch (m_state) {
    case state::idle: return false;
    case state::uid_section: return take_uid_section(line);
    case state::uid_frames: return take_uid_frame(line);
    case state::trace_records: return take_trace_record(line);
    case state::top_count_heading:
    case state::top_count_rows:
    case state::top_size_rows: return take_top_line(line);
    default: return take_fault_line(line);
    }
}

bool log_parser::take_idle(const std::string& line) {
    if (line.compare(0, heading::unknown_pointer.size(), heading::unknown_pointer) == 0) {
        start_fault(fault_report::kind::unknown_pointer,
                    line.substr(heading::unknown_pointer.size()));
        m_state = state::fault_heading;
        return true;
    }
    if (line == heading::double_free || line == heading::bad_footer) {
        start_fault(line == heading::double_free ? fault_report::kind::double_free
                                                 : fault_report::kind::bad_footer,
                    "");
        m_state = state::block_line;
        return true;
    }
    return is_fault_assertion(line) && attach_assertion(line);
}

bool log_parser::take_uid_section(const std::string& line) {
    if (line.empty()) return true;
    if (parse_uid_entry(line, m_uid)) {
        m_stacks[m_uid].clear();
        m_state = state::uid_frames;
        return true;
    }
    if (line == heading::trace) {
        m_trace.stacks = std::move(m_stacks);
        m_state = state::trace_records;
        return true;
    }
    if (parse_usage(line, m_top)) {
        m_top.stacks = std::move(m_stacks);
        m_state = state::top_count_heading;
        return true;
    }
    return false;
}

bool log_parser::take_uid_frame(const std::string& line) {
    if (line.empty()) {
        m_state = state::uid_section;
        return true;
    }
    frame_line frame = parse_frame_line(line);
    if (frame.kind == frame_line::form::unparsed) return false;
    m_stacks[m_uid].push_back(std::move(frame));
    return true;
}

bool log_parser::take_trace_record(const std::string& line) {
    trace_record record;
    if (!parse_trace_record(line, record)) {
        // A record line that does not parse is one cut in the middle.
        bool cut = line.compare(0, 10, "alloc_uid:") == 0;
        close(cut);
        return false;
    }
    m_trace.records.push_back(record);
    return true;
}

bool log_parser::take_top_line(const std::string& line) {
    top_row row;
    switch (m_state) {
    case state::top_count_heading:
        if (line != heading::top_by_count) return false;
        m_state = state::top_count_rows;
        return true;
    case state::top_count_rows:
        if (line == heading::top_by_size) m_state = state::top_size_rows;
        else if (parse_count_row(line, row)) m_top.by_count.push_back(row);
        else return false;
        return true;
    default:
        if (line == heading::top_end) close(false);
        else if (parse_size_row(line, row)) m_top.by_size.push_back(row);
        else return false;
        return true;
    }
}

bool log_parser::take_fault_line(const std::string& line) {
    switch (m_state) {
    case state::fault_heading:
        if (line != heading::double_free) {
            close(false);  // an unknown pointer has no block report
            return false;
        }
        m_fault.what = fault_report::kind::double_free;
        m_state = state::block_line;
        return true;
    case state::block_line:
        if (line.compare(0, 7, "block: ") != 0) return false;
        m_fault.block = line;
        m_state = state::magic_line;
        return true;
    case state::magic_line:
        if (line.compare(0, 8, "magic1: ") != 0) return false;
        m_fault.magics = line;
        m_fault.has_block = true;
        m_state = state::alloc_heading;
        return true;
    case state::alloc_heading:
        if (line != heading::alloc_stack) return false;
        m_state = state::alloc_frames;
        return true;
    default:
        return take_fault_frame(line);
    }
}

bool log_parser::take_fault_frame(const std::string& line) {
    if (m_state == state::alloc_frames && line == heading::free_stack) {
        m_state = state::free_frames;
        return true;
    }
    frame_line frame = parse_frame_line(line);
    if (frame.kind == frame_line::form::unparsed) {
        if (m_state == state::free_frames) close(false);  // the block report ends here
        return false;
    }
    (m_state == state::alloc_frames ? m_fault.alloc_stack : m_fault.free_stack)
        .push_back(std::move(frame));
    return true;
}

void log_parser::start_fault(fault_report::kind what, const std::string& pointer) {
    m_fault = fault_report{};
    m_fault.at = m_place;
    m_fault.what = what;
    m_fault.pointer = pointer;
}

// Ends the report being read, if any, and keeps it.
void log_parser::close(bool cut_short) {
    switch (m_state) {
    case state::idle: return;
    case state::uid_section:
    case state::uid_frames:
        m_log.reports.emplace_back(partial_report{m_trace.at, std::move(m_stacks)});
        break;
    case state::trace_records:
        m_trace.truncated = cut_short;
        m_log.reports.emplace_back(std::move(m_trace));
        break;
    case state::top_count_heading:
    case state::top_count_rows:
    case state::top_size_rows:
        m_top.truncated = cut_short;
        m_log.reports.emplace_back(std::move(m_top));
        break;
    default:
        m_fault.truncated = cut_short && m_state != state::fault_heading &&
                            m_state != state::free_frames;
        m_log.reports.emplace_back(std::move(m_fault));
        break;
    }
    m_state = state::idle;
}

bool log_parser::attach_assertion(const std::string& line) {
    for (auto it = m_log.reports.rbegin(); it != m_log.reports.rend(); ++it) {
        if (auto* fault = std::get_if<fault_report>(&*it)) {
            if (!fault->assertion.empty()) return false;
            fault->assertion = line;
            return true;
        }
    }
    return false;
}

parsed_log log_parser::finish() {
    // A trace dump has no closing line and a block report ends where the
    // process stopped, so both may end with the input; the others are cut.
    bool cut = m_state != state::trace_records && m_state != state::free_frames &&
               m_state != state::fault_heading;
    close(cut);
    return std::move(m_log);
}

}  // namespace

parsed_log parse_log(std::istream& in, const std::string& input_name) {
    log_parser parser(input_name);
    std::string line;
    std::size_t number = 0;
    while (std::getline(in, line)) {
        ++number;
        parser.feed(line, number, !in.eof());
    }
    return parser.finish();
}

}  // namespace tarvex::report
