#!/usr/bin/env bash
# The report tool on reports of real runs of the sample program, in builds
# with and without debug information, position-independent or not, and
# stripped: frames must name the expected functions and source lines.
# Addresses differ from run to run, so the inputs are made here.
# usage: report_runs_test.sh BIN_DIR SAMPLES_DIR SAMPLE_SOURCE_DIR
bin=$(cd "$1" && pwd) samples=$(cd "$2" && pwd) src=$3 golden=$(cd "$(dirname "$0")/golden" && pwd)
source "$(dirname "$0")/test_lib.sh"
unset TARVEX_TOP TARVEX_NOBACKTRACE TARVEX_LOG_FILE_NAME TARVEX_CLEAR_STATS_FILE_NAME LD_PRELOAD
tarvex=$bin/tarvex
cd "$scratch" || exit 1

line_of() { marker_line "$src/sample.cpp" "$1"; }
keep_block="sample::keep_block(unsigned long) at $src/sample.cpp:$(line_of keep_block)"
helper="helper_duplicate at $src/sample_helper.cpp:$(marker_line "$src/sample_helper.cpp" helper_malloc)"

# Runs a program that tarvex stops, all its output into one file, without
# the shell's note about the abort.
stopped() {  # output program args...
    local output=$1
    shift
    ("$tarvex" "$@" >"$output" 2>&1; exit $?) 2>/dev/null
}

# make_inputs VARIANT: top.log, trace.out and fault.out of one build.
make_inputs() {
    local exe=$samples/tools_sample_$1
    "$tarvex" --top --log "$1.top.log" "$exe" top >/dev/null
    "$tarvex" "$exe" trace >"$1.trace.out"
    stopped "$1.fault.out" "$exe" double-free
    expect_eq "$1: double free stops the program" 134 $?
}

report() {  # output-file input-files...
    local output=$1
    shift
    "$tarvex" report "$@" >"$output" 2>"$output.err"
    expect_eq "report of $* succeeds" 0 $?
    expect_lines "report of $* is quiet" "$output.err" 0
}

test_with_debug_info() {  # variant
    local v=$1
    make_inputs "$v"
    report "$v.trace.txt" "$v.trace.out"
    expect_contains "$v trace: keep_block frame" "$v.trace.txt" "    #0 $keep_block"
    expect_contains "$v trace: caller line" "$v.trace.txt" \
        "sample::grow_cache(int) at $src/sample.cpp:"
    expect_contains "$v trace: kept blocks" "$v.trace.txt" "kept 3 blocks, 300 bytes of 3 blocks"
    expect_contains "$v trace: site label" "$v.trace.txt" "      $keep_block"
    expect_contains "$v trace: older block" "$v.trace.txt" \
        "released 1 block, 48 bytes from before the window"
    expect_contains "$v trace: churn released" "$v.trace.txt" \
        "released inside the window 1 block, 64 bytes"
    expect_contains "$v trace: operator new" "$v.trace.txt" "operator new(unsigned long) in "
    expect_contains "$v trace: new's caller" "$v.trace.txt" \
        "sample::keep_object[abi:cxx11]() at $src/sample.cpp:$(line_of keep_object)"
    expect_contains "$v trace: libc" "$v.trace.txt" "__libc_start_main"
    report "$v.top.txt" "$v.top.log"
    expect_contains "$v top: suspects" "$v.top.txt" "leak suspects (live bytes only grew), 2 found"
    expect_contains "$v top: growth" "$v.top.txt" \
        "1000 -> 3000 bytes over 3 reports; since report 2: +1000 bytes, +10 blocks"
    expect_contains "$v top: helper library line" "$v.top.txt" "    #0 $helper"
    expect_contains "$v top: stable site" "$v.top.txt" "5000/1 5000/1 5000/1"
    expect_contains "$v top: shrinking site" "$v.top.txt" "150/5 60/2 -"
    report "$v.fault.txt" "$v.fault.out"
    expect_contains "$v fault: kind" "$v.fault.txt" "fault: double free"
    expect_contains "$v fault: allocation" "$v.fault.txt" \
        "sample::fault(char const*) at $src/sample.cpp:$(line_of fault_malloc)"
    expect_contains "$v fault: first release" "$v.fault.txt" \
        "sample::fault(char const*) at $src/sample.cpp:$(line_of first_free)"
    expect_contains "$v fault: assertion" "$v.fault.txt" "lib/trvx_hook:113"
    expect_contains "$v fault: tarvex's own frame" "$v.fault.txt" "    #1 malloc at "
}

test_without_debug_info() {
    make_inputs nodebug_pie
    report nodebug.txt nodebug_pie.trace.out nodebug_pie.top.log
    expect_contains "no debug info: symbol and object" nodebug.txt \
        "sample::keep_block(unsigned long) in $samples/tools_sample_nodebug_pie"
    expect_not_contains "no debug info: no sample lines" nodebug.txt "$src/sample.cpp:"
    expect_contains "no debug info: library still has lines" nodebug.txt "$helper"
}

test_stripped() {
    make_inputs stripped_nopie
    report stripped.txt stripped_nopie.trace.out stripped_nopie.top.log
    expect_contains "stripped: frames left as they were" stripped.txt \
        "    #0 $samples/tools_sample_stripped_nopie() [0x"
    expect_contains "stripped: library frames resolved" stripped.txt "$helper"
    expect_contains "stripped: libc resolved" stripped.txt "__libc_start_main"
}

test_other_faults() {
    local exe=$samples/tools_sample_debug_pie
    stopped overflow.out "$exe" overflow
    stopped unknown.out "$exe" unknown
    report faults.txt overflow.out unknown.out
    expect_contains "overflow: kind" faults.txt "fault: overwritten footer"
    expect_contains "overflow: magic" faults.txt "magic1: 0xcafeba41, magic2: 0xcafebabe"
    expect_contains "overflow: allocation" faults.txt \
        "sample::fault(char const*) at $src/sample.cpp:$(line_of overflow_malloc)"
    expect_contains "overflow: release" faults.txt \
        "sample::fault(char const*) at $src/sample.cpp:$(line_of overflow_free)"
    expect_contains "unknown pointer" faults.txt "fault: release of a pointer tarvex never handed out"
}

# Two synthetic logs, byte for byte: top reports of two runs (sites followed
# by their frames, leak suspects) and traces, faults and cut reports mixed
# with other output; frames the tool cannot resolve stay as written.
test_golden() {
    (cd "$golden" && "$tarvex" report history.log mixed.log) >golden.txt 2>&1
    expect_eq "golden: status" 0 $?
    if diff -u "$golden/expected.txt" golden.txt >golden.diff; then pass; else fail "golden output:"; cat golden.diff >&2; fi
}

test_cut_and_stdin() {
    # Cut inside the last report's second table.
    local at
    at=$(grep -b -- '----------top by size----------' debug_pie.top.log | tail -1 | cut -d: -f1)
    head -c $((at + 45)) debug_pie.top.log >cut.log
    report cut.txt cut.log
    expect_contains "cut: last report marked" cut.txt "(cut short)"
    expect_eq "cut: two complete reports" 2 "$(grep -c ' top report$' cut.txt)"
    report stdin.txt - <debug_pie.trace.out
    expect_contains "standard input" stdin.txt "$keep_block"
}

test_relative_paths() {
    (cd "$samples" && "$tarvex" ./tools_sample_debug_pie trace >"$scratch/relative.out")
    report unresolved.txt relative.out
    expect_contains "relative path elsewhere: left as is" unresolved.txt \
        "    #0 ./tools_sample_debug_pie(+0x"
    report resolved.txt -d "$samples" relative.out
    expect_contains "relative path with --search-dir" resolved.txt "    #0 $keep_block"
}

test_mistakes() {
    echo "no reports here" >plain.txt
    local case status
    while IFS='|' read -r status case; do
        # shellcheck disable=SC2086
        "$tarvex" report $case >out.txt 2>err.txt
        expect_eq "report $case: status" "${status%% *}" $?
        expect_eq "report $case: message" "tarvex report: ${status#* }" "$(cat err.txt)"
    done <<'CASES'
1 cannot read missing.log: No such file or directory|missing.log
1 no tarvex report found in the input|plain.txt
2 unknown option '--frob' (see tarvex report --help)|--frob x
2 no input file given (see tarvex report --help)|
2 option --html needs a non-empty value (see tarvex report --help)|--html= x
CASES
}

# Thousands of frames: each object file is read once, each frame resolved once.
test_many_frames() {
    for _ in $(seq 200); do cat debug_pie.top.log; done >many.log
    report many.txt many.log
    expect_eq "many reports" 600 "$(grep -c ' top report$' many.txt)"
}

test_with_debug_info debug_pie
test_with_debug_info debug_nopie
test_without_debug_info
test_stripped
test_other_faults
test_golden
test_cut_and_stdin
test_relative_paths
test_mistakes
test_many_frames
finish
