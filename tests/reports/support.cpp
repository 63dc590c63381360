#include "support.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

namespace reports {

child::options preloaded(const child::env_map& env) {
    child::options o;
    o.preload = TRVX_LIB;
    o.env = env;
    return o;
}

// ---------------------------------------------------------------- report pieces

const char k_uid_header[] = "\n----------uid to bt----------\n";
const char k_trace_header[] = "\n----------trace----------\n";

namespace {
std::string hex8(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof buf, "%08x", v);
    return buf;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}
}  // namespace

side_file parse_side_file(const std::string& text) {
    side_file side;
    std::vector<std::string> lines = lines_of(text);
    for (size_t i = 0; i < lines.size();) {
        int op = -1, n = 0;
        unsigned uid = 0;
        char word[32] = "";
        if (sscanf(lines[i].c_str(), "op %d %31s %d", &op, word, &n) < 2) {
            side.errors.push_back("unreadable side file line: " + lines[i]);
            break;
        }
        ++i;
        if (strcmp(word, "untracked") == 0) {
            side.errors.push_back("op " + std::to_string(op) + ": block not tracked");
            continue;
        }
        sscanf(word, "%x", &uid);
        if (n < 0 || i + static_cast<size_t>(n) > lines.size()) {
            side.errors.push_back("op " + std::to_string(op) + ": stack too deep for the footer");
            continue;
        }
        side.op_uid[op] = uid;
        std::vector<std::string> frames(lines.begin() + static_cast<std::ptrdiff_t>(i),
                                        lines.begin() + static_cast<std::ptrdiff_t>(i) + n);
        side.stacks.emplace(uid, frames);  // the first stack of a uid stands for it
        i += static_cast<size_t>(n);
    }
    return side;
}

std::string frame_text(const std::vector<std::string>& lines) {
    size_t first = lines.size() >= 3 ? 2 : 0;
    size_t end = std::min(lines.size(), first + 100);
    std::string text;
    for (size_t i = first; i < end; ++i) text += "\n" + lines[i];
    return text;
}

std::string uid_section(const std::set<uint32_t>& uids, const stack_map& stacks) {
    std::string text = k_uid_header;
    for (uint32_t uid : uids) {
        auto it = stacks.find(uid);
        text += "uid: " + hex8(uid) + ", bt: " + (it == stacks.end() ? "" : frame_text(it->second)) + "\n\n";
    }
    return text;
}

std::string trace_dump_text(const std::vector<record>& records, const stack_map& stacks) {
    std::set<uint32_t> uids;
    for (const record& r : records) {
        uids.insert(r.alloc_uid);
        if (r.free_uid != 0) uids.insert(r.free_uid);
    }
    std::string text = uid_section(uids, stacks) + k_trace_header;
    for (const record& r : records)
        text += "alloc_uid: " + hex8(r.alloc_uid) + ", free_uid: " + hex8(r.free_uid) +
                ", size: " + std::to_string(r.size) + "\n";
    return text;
}

std::string short_bytes(uint64_t bytes) {
    static const char units[] = "BKMGT";
    int unit = 0;
    while (bytes > 1024 && unit < 4) {
        bytes /= 1024;
        ++unit;
    }
    return std::to_string(bytes) + units[unit];
}

void select_top(const std::map<uint32_t, std::pair<uint64_t, uint64_t>>& sites, unsigned long n,
                std::vector<top_row>& by_count, std::vector<top_row>& by_size) {
    size_t rows = n == 0 ? 1 : n;
    auto fill = [&](std::vector<top_row>& list, uint64_t top_row::*key) {
        list.clear();
        for (const auto& s : sites) {
            top_row row{s.first, s.second.first, s.second.second};
            if (row.*key != 0) list.push_back(row);
        }
        std::stable_sort(list.begin(), list.end(), [&](const top_row& a, const top_row& b) { return a.*key > b.*key; });
        if (list.size() >= rows)
            list.resize(rows);
        else
            list.push_back(top_row{0, 0, 0});
    };
    fill(by_count, &top_row::count);
    fill(by_size, &top_row::size);
}

std::string top_report_text(const std::vector<top_row>& by_count, const std::vector<top_row>& by_size,
                            const stack_map& stacks, uint64_t bytes, uint64_t rate) {
    std::set<uint32_t> uids;
    for (const top_row& r : by_count) uids.insert(r.uid);
    for (const top_row& r : by_size) uids.insert(r.uid);
    std::string text = uid_section(uids, stacks);
    text += "\nMem usage: " + short_bytes(bytes) + " (" + std::to_string(bytes) + " bytes) (alloc/sec: " +
            std::to_string(rate) + ")\n";
    text += "----------top by count----------\n";
    for (const top_row& r : by_count)
        text += "uid: " + hex8(r.uid) + ", count: " + std::to_string(r.count) + ", size: " + std::to_string(r.size) + "\n";
    text += "----------top by size----------\n";
    for (const top_row& r : by_size)
        text += "uid: " + hex8(r.uid) + ", size: " + std::to_string(r.size) + ", count: " + std::to_string(r.count) + "\n";
    text += "-------------------------------\n";
    return text;
}

std::vector<std::string> split_reports(const std::string& log, std::string* prefix) {
    std::vector<std::string> pieces;
    size_t pos = log.find(k_uid_header);
    if (prefix != nullptr) *prefix = log.substr(0, pos == std::string::npos ? log.size() : pos);
    while (pos != std::string::npos) {
        size_t next = log.find(k_uid_header, pos + 1);
        pieces.push_back(log.substr(pos, next == std::string::npos ? std::string::npos : next - pos));
        pos = next;
    }
    return pieces;
}

// ---------------------------------------------------------------- structural parse

namespace {
bool read_row(const std::string& line, const char* format, top_row& row) {
    unsigned uid;
    unsigned long a, b;
    char tail;
    if (sscanf(line.c_str(), format, &uid, &a, &b, &tail) != 3) return false;
    row.uid = uid;
    bool size_first = strstr(format, "size: %lu, count") != nullptr;
    row.count = size_first ? b : a;
    row.size = size_first ? a : b;
    return true;
}
}  // namespace

bool parse_log(const std::string& log, std::vector<parsed_report>& out, std::string& error) {
    out.clear();
    if (!log.empty() && log.back() != '\n') {
        error = "log does not end with a newline";
        return false;
    }
    std::vector<std::string> lines = lines_of(log);
    static const std::regex uid_line("uid: ([0-9a-f]{8}), bt: ");
    static const std::regex record_line("alloc_uid: ([0-9a-f]{8}), free_uid: ([0-9a-f]{8}), size: (0|[1-9][0-9]*)");
    static const std::regex usage_line("Mem usage: ([0-9]+)[BKMGT] \\(([0-9]+) bytes\\) \\(alloc/sec: ([0-9]+)\\)");
    size_t i = 0;
    auto fail = [&](const std::string& what) {
        error = what + " at line " + std::to_string(i + 1) + ": '" + (i < lines.size() ? lines[i] : "<end>") + "'";
        return false;
    };
    auto at = [&](const char* text) { return i < lines.size() && lines[i] == text; };
    std::smatch m;
    while (i < lines.size()) {
        parsed_report r;
        if (!at("")) return fail("report does not start with an empty line");
        ++i;
        if (!at("----------uid to bt----------")) return fail("missing uid section header");
        ++i;
        while (i < lines.size() && std::regex_match(lines[i], m, uid_line)) {
            r.uids.push_back(static_cast<uint32_t>(std::stoul(m[1], nullptr, 16)));
            for (++i; i < lines.size() && !lines[i].empty(); ++i) {
                if (lines[i].rfind("uid: ", 0) == 0) return fail("uid entry without its empty line");
            }
            if (!at("")) return fail("uid entry not closed");
            ++i;
        }
        if (!std::is_sorted(r.uids.begin(), r.uids.end()) ||
            std::adjacent_find(r.uids.begin(), r.uids.end()) != r.uids.end())
            return fail("uids not strictly ascending");
        if (!at("")) return fail("missing empty line after the uid section");
        ++i;
        if (at("----------trace----------")) {
            r.is_trace = true;
            for (++i; i < lines.size() && std::regex_match(lines[i], m, record_line); ++i)
                r.records.push_back(record{static_cast<uint32_t>(std::stoul(m[1], nullptr, 16)),
                                           static_cast<uint32_t>(std::stoul(m[2], nullptr, 16)), std::stoull(m[3])});
        } else if (i < lines.size() && std::regex_match(lines[i], m, usage_line)) {
            r.bytes = std::stoull(m[2]);
            r.rate = std::stoull(m[3]);
            if (lines[i].find("usage: " + short_bytes(r.bytes) + " (") == std::string::npos)
                return fail("short form does not match the byte count");
            ++i;
            if (!at("----------top by count----------")) return fail("missing count table header");
            top_row row;
            for (++i; i < lines.size() && read_row(lines[i], "uid: %8x, count: %lu, size: %lu%c", row); ++i)
                r.by_count.push_back(row);
            if (!at("----------top by size----------")) return fail("missing size table header");
            for (++i; i < lines.size() && read_row(lines[i], "uid: %8x, size: %lu, count: %lu%c", row); ++i)
                r.by_size.push_back(row);
            if (!at("-------------------------------")) return fail("missing closing line");
            ++i;
        } else {
            return fail("neither a trace nor a usage line");
        }
        out.push_back(r);
    }
    return true;
}

// ---------------------------------------------------------------- the ops program

namespace {
std::vector<unsigned long> fields(const std::string& op, std::string& name) {
    std::vector<unsigned long> nums;
    std::stringstream s(op);
    std::string f;
    std::getline(s, name, ':');
    while (std::getline(s, f, ':')) nums.push_back(std::stoul(f));
    return nums;
}
}  // namespace

std::vector<expected_report> model_ops(const std::vector<std::string>& ops, const ops_setup& setup,
                                       const side_file& side) {
    struct block {
        uint32_t uid;
        uint64_t size;
    };
    std::map<unsigned long, block> slots;
    std::map<uint32_t, std::pair<uint64_t, uint64_t>> sites;
    std::vector<record> trace;
    std::vector<expected_report> out;
    bool tracing = false, clear_file = false, rate_known = false;
    int64_t live = 0;
    uint64_t registrations = 0;

    auto uid_of = [&](size_t op) {
        auto it = side.op_uid.find(static_cast<int>(op));
        return it == side.op_uid.end() ? 0u : it->second;
    };
    auto add = [&](unsigned long slot, uint32_t uid, uint64_t size, bool main_thread) {
        slots[slot] = block{uid, size};
        if (!setup.tracked) return;
        if (tracing && main_thread) trace.push_back(record{uid, 0, size});
        if (!setup.counting) return;
        sites[uid].first += 1;
        sites[uid].second += size;
        live += static_cast<int64_t>(size);
        ++registrations;
    };
    auto remove = [&](unsigned long slot, uint32_t uid, bool main_thread) {
        block b = slots.at(slot);
        slots.erase(slot);
        if (!setup.tracked) return;
        if (tracing && main_thread) trace.push_back(record{b.uid, uid, b.size});
        if (!setup.counting) return;
        auto it = sites.find(b.uid);
        if (it != sites.end() && it->second.first != 0) {
            it->second.first -= 1;
            it->second.second -= b.size;
        }
        live -= static_cast<int64_t>(b.size);
    };

    for (size_t i = 0; i < ops.size(); ++i) {
        std::string name;
        std::vector<unsigned long> n = fields(ops[i], name);
        uint32_t uid = uid_of(i);
        if (name == "a") {
            for (unsigned long k = 0; k < (n.size() > 3 ? n[3] : 1); ++k) add(n[0] + k, uid, n[1], true);
        } else if (name == "f") {
            for (unsigned long k = 0; k < (n.size() > 1 ? n[1] : 1); ++k) remove(n[0] + k, uid, true);
        } else if (name == "r") {
            // The new block is registered before the old one is released.
            bool had_old = slots.count(n[0]) != 0;
            if (had_old) slots[~0ul] = slots.at(n[0]);
            add(n[0], uid, n[1], true);
            if (had_old) remove(~0ul, uid, true);
        } else if (name == "wa") {
            add(n[0], uid, n[1], false);
        } else if (name == "wf") {
            remove(n[0], uid, false);
        } else if (name == "start") {
            tracing = true;
        } else if (name == "stop") {
            tracing = false;
        } else if (name == "tclear") {
            trace.clear();
        } else if (name == "dump") {
            out.push_back(expected_report{true, trace_dump_text(trace, side.stacks), {}, {}, 0, false, 0});
        } else if (name == "sclear") {
            sites.clear();
        } else if (name == "touch") {
            clear_file = true;
        } else if (name == "report") {
            if (clear_file) {
                clear_file = false;
                sites.clear();
                continue;
            }
            expected_report r{false, "", {}, {}, live, rate_known || !setup.counting || !setup.tracked, registrations};
            select_top(sites, n.at(0), r.by_count, r.by_size);
            out.push_back(r);
            registrations = 0;
            rate_known = true;
        } else {
            ADD_FAILURE() << "unknown operation " << ops[i];
        }
    }
    return out;
}

void expect_reports(const std::string& log, const std::vector<expected_report>& expected, const ops_setup& setup,
                    const stack_map& stacks, int64_t max_elapsed) {
    std::string prefix;
    std::vector<std::string> pieces = split_reports(log, &prefix);
    EXPECT_EQ(prefix, "") << "text before the first report";
    ASSERT_EQ(pieces.size(), expected.size()) << "number of reports in:\n" << log;
    bool have_base = false;
    int64_t base = 0;
    for (size_t i = 0; i < pieces.size(); ++i) {
        const expected_report& e = expected[i];
        if (e.is_trace) {
            EXPECT_EQ(pieces[i], e.text) << "trace dump " << i;
            continue;
        }
        std::smatch m;
        static const std::regex usage("\nMem usage: [^ ]* \\(([0-9]+) bytes\\) \\(alloc/sec: ([0-9]+)\\)\n");
        if (!std::regex_search(pieces[i], m, usage)) {
            ADD_FAILURE() << "report " << i << " has no usage line:\n" << pieces[i];
            continue;
        }
        uint64_t bytes = std::stoull(m[1]), rate = std::stoull(m[2]);
        int64_t held_before = static_cast<int64_t>(bytes) - e.program_bytes;
        if (!setup.counting || !setup.tracked) {
            EXPECT_EQ(held_before, 0) << "report " << i;
        }
        if (!have_base) {
            have_base = true;
            base = held_before;
            EXPECT_GE(base, 0) << "report " << i;
        }
        EXPECT_EQ(held_before, base) << "live bytes of report " << i << " against the operations";
        if (e.rate_known) {
            bool match = false;
            for (int64_t s = 0; s <= max_elapsed && !match; ++s)
                match = rate == e.registrations / static_cast<uint64_t>(s == 0 ? 1 : s);
            EXPECT_TRUE(match) << "report " << i << ": alloc/sec " << rate << " for " << e.registrations
                               << " registrations in at most " << max_elapsed << " s";
        }
        EXPECT_EQ(pieces[i], top_report_text(e.by_count, e.by_size, stacks, bytes, rate)) << "top report " << i;
    }
}

}  // namespace reports

namespace reports {

ops_outcome run_ops(const std::vector<std::string>& ops, const std::map<std::string, std::string>& env,
                    const std::string& side_path) {
    std::vector<std::string> argv{TRVX_OPS_PROG, side_path};
    argv.insert(argv.end(), ops.begin(), ops.end());
    child::options opt = preloaded(env);
    if (opt.env.count("TARVEX_TARGET_PROC_NAME") == 0) opt.env["TARVEX_TARGET_PROC_NAME"] = base_name(argv[0]);
    ops_outcome o;
    time_t before = time(nullptr);
    o.child = child::run(argv, opt);
    o.max_elapsed = time(nullptr) - before;
    if (side_path != "-") o.side = parse_side_file(read_file(side_path));
    return o;
}

}  // namespace reports
