// The control functions: called before the first allocation, outside the
// target process, from many threads at once and from signal handlers.
#include <cstring>

#include <gtest/gtest.h>

#include "support.h"

namespace reports {
namespace {

size_t count_kind(const std::vector<parsed_report>& reports, bool trace) {
    size_t n = 0;
    for (const parsed_report& r : reports) n += r.is_trace == trace;
    return n;
}

child::result stress(const std::string& scenario, int n, const std::string& log) {
    return child::run({TRVX_STRESS_PROG, scenario, std::to_string(n)},
                      preloaded(child::tracked_env(base_name(TRVX_STRESS_PROG), log, true)));
}

// Called from the executable's pre-initialisation, before any allocation:
// the call builds the context and the trace it starts records main's
// allocation.
TEST(ControlFunctions, BeforeTheFirstAllocation) {
    temp_dir dir;
    child::result r = child::run({TRVX_EARLY_PROG, dir / "side"},
                                 preloaded(child::tracked_env(base_name(TRVX_EARLY_PROG), dir / "log")));
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.err, "context at the first call: none\n");
    side_file side = parse_side_file(read_file(dir / "side"));
    ASSERT_TRUE(side.errors.empty()) << side.errors.front();
    ASSERT_EQ(side.op_uid.size(), 1u);
    uint32_t uid = side.op_uid.begin()->second;

    std::vector<std::string> pieces = split_reports(read_file(dir / "log"));
    ASSERT_EQ(pieces.size(), 1u);
    // The dump also holds the blocks that the runtime's initialisers
    // allocated after the trace started; main's block is the last record.
    std::vector<parsed_report> dump;
    std::string error;
    ASSERT_TRUE(parse_log(pieces[0], dump, error)) << error;
    ASSERT_TRUE(dump[0].is_trace);
    ASSERT_FALSE(dump[0].records.empty());
    EXPECT_EQ(dump[0].records.back(), (record{uid, 0, 24}));
    EXPECT_NE(pieces[0].find(uid_section({uid}, side.stacks).substr(strlen(k_uid_header))), std::string::npos)
        << "entry of main's call site in:\n" << pieces[0];
}

// In a process that is not the target nothing is tracked, and the control
// functions still write their (empty) reports.
TEST(ControlFunctions, OutsideTheTargetProcess) {
    const std::vector<std::string> ops{"start", "a:0:24:0", "f:0", "stop", "dump", "report:5"};
    for (const char* target : {"another_program", ""}) {
        SCOPED_TRACE(target);
        temp_dir dir;
        std::map<std::string, std::string> env{{"TARVEX_LOG_FILE_NAME", dir / "log"}, {"TARVEX_TOP", ""}};
        env["TARVEX_TARGET_PROC_NAME"] = target;
        ops_outcome o = run_ops(ops, env, "-");
        ASSERT_TRUE(o.child.exited_ok()) << o.child.describe();
        ops_setup setup;
        setup.tracked = false;
        setup.counting = true;
        expect_reports(read_file(dir / "log"), model_ops(ops, setup, o.side), setup, {}, o.max_elapsed);
    }
}

// Reports requested from many threads while others allocate: no deadlock,
// and every report in the log is whole.
TEST(ControlFunctions, ManyThreads) {
    const int rounds = 25;
    temp_dir dir;
    child::result r = stress("threads", rounds, dir / "log");
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    std::vector<parsed_report> reports;
    std::string error;
    ASSERT_TRUE(parse_log(read_file(dir / "log"), reports, error)) << error;
    EXPECT_EQ(count_kind(reports, true), 4u * rounds);
    size_t tops = count_kind(reports, false);
    EXPECT_GE(tops, 1u);
    EXPECT_LE(tops, 4u * rounds);
    for (const parsed_report& p : reports) {
        if (p.is_trace) {
            EXPECT_EQ(p.records.size(), 40u);
        } else {
            EXPECT_LE(p.by_count.size(), 5u);
            EXPECT_LE(p.by_size.size(), 5u);
        }
    }
}

// A trace dump and a top report requested at the same moment in two
// threads: both are written, neither interleaves with the other.
TEST(ControlFunctions, TraceDumpAndTopReportAtOnce) {
    const int rounds = 30;
    temp_dir dir;
    child::result r = stress("pair", rounds, dir / "log");
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    std::vector<parsed_report> reports;
    std::string error;
    ASSERT_TRUE(parse_log(read_file(dir / "log"), reports, error)) << error;
    EXPECT_EQ(count_kind(reports, true), size_t(rounds));
    EXPECT_EQ(count_kind(reports, false), size_t(rounds));
    for (const parsed_report& p : reports) {
        if (p.is_trace) {
            EXPECT_EQ(p.records.size(), 3000u);
        }
    }
}

// A timer's handler asks for reports while main allocates in a loop: when
// the signal interrupts main inside tarvex the call does nothing; nothing
// deadlocks, and every report written is whole.
TEST(ControlFunctions, SignalHandlerWhileAllocating) {
    temp_dir dir;
    child::result r = stress("signal_loop", 300, dir / "log");
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    int signals = 0;
    ASSERT_EQ(sscanf(r.err.c_str(), "signals %d", &signals), 1) << r.err;
    std::vector<parsed_report> reports;
    std::string error;
    ASSERT_TRUE(parse_log(read_file(dir / "log"), reports, error)) << error;
    EXPECT_GE(reports.size(), 1u);  // the first signal is raised outside tarvex
    EXPECT_LE(reports.size(), size_t(signals));
    EXPECT_EQ(count_kind(reports, true), 0u);
}

// The handler interrupts a trace dump that is blocked writing to a full FIFO
// (the log file): its control calls (a top report, a trace clear, a second
// dump) must return at once and change nothing. The FIFO then carries the
// one dump, whole.
TEST(ControlFunctions, SignalHandlerInsideTarvex) {
    const int records = 6000;
    temp_dir dir;
    child::result r = stress("signal_inside", records, dir / "fifo");
    ASSERT_TRUE(r.exited_ok()) << r.describe();
    EXPECT_EQ(r.err, "handled 1, reader gave up 0\n");
    std::vector<parsed_report> reports;
    std::string error;
    ASSERT_TRUE(parse_log(r.out, reports, error)) << error;
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_TRUE(reports[0].is_trace);
    EXPECT_EQ(reports[0].records.size(), size_t(records));
}

}  // namespace
}  // namespace reports
