#!/usr/bin/env bash
# The launcher: options, environment, LD_PRELOAD, the process name, and
# pass-through of arguments, streams, exit status and signals.
# usage: launcher_test.sh BIN_DIR SAMPLES_DIR
bin=$(cd "$1" && pwd) samples=$(cd "$2" && pwd)
source "$(dirname "$0")/test_lib.sh"
tarvex=$bin/tarvex
sample=$samples/tools_sample_debug_pie
lib=$(readlink -f "$bin/../lib/libtarvex.so")
unset TARVEX_TOP TARVEX_NOBACKTRACE TARVEX_LOG_FILE_NAME TARVEX_CLEAR_STATS_FILE_NAME \
    TARVEX_TARGET_PROC_NAME LD_PRELOAD
out=$scratch/out err=$scratch/err

run() {  # runs the launcher with stdout and stderr captured; sets status
    "$tarvex" "$@" >"$out" 2>"$err" </dev/null
    status=$?
}

# An error is one line on stderr and a given status.
expect_error() {  # name status text args...
    local name=$1 want=$2 text=$3
    shift 3
    run "$@"
    expect_eq "$name: status" "$want" "$status"
    expect_lines "$name: stderr" "$err" 1
    expect_contains "$name: prefix" "$err" "tarvex: "
    expect_contains "$name: message" "$err" "$text"
    expect_lines "$name: stdout" "$out" 0
}

test_help_and_version() {
    run --help
    expect_eq "--help status" 0 "$status"
    expect_contains "--help" "$out" "usage: tarvex [OPTIONS] [--] PROGRAM [ARGS...]"
    expect_lines "--help stderr" "$err" 0
    run -h
    expect_eq "-h status" 0 "$status"
    run --version
    expect_eq "--version" "tarvex 0.1.0" "$(cat "$out")"
    run report --version
    expect_eq "report dispatch" "tarvex report 0.1.0" "$(cat "$out")"
}

test_mistakes() {
    expect_error "no program" 2 "no program given" 
    expect_error "unknown option" 2 "unknown option '--frobnicate'" --frobnicate "$sample"
    expect_error "missing value" 2 "option --log needs a value" --log
    expect_error "empty value" 2 "option --log needs a non-empty value" --log= "$sample"
    expect_error "missing program" 127 "program not found: $scratch/nothing" "$scratch/nothing"
    expect_error "program not in PATH" 127 "program not found: 'tvx-no-such-program'" \
        tvx-no-such-program
    expect_error "-- ends the options" 127 "program not found: 'report'" -- report
    expect_error "directory as program" 126 "not an executable program: $scratch" "$scratch"
    touch "$scratch/plain"
    expect_error "not executable" 126 "not an executable program: $scratch/plain" "$scratch/plain"
    expect_error "no library" 1 "cannot find libtarvex.so" --library "$scratch/none.so" "$sample"
    expect_error "unreadable library" 1 "cannot read the library" --library "$scratch" "$sample"
    mkdir -p "$scratch/a b" && cp "$lib" "$scratch/a b/libtarvex.so"
    expect_error "blank in library path" 1 "which LD_PRELOAD cannot carry" \
        --library "$scratch/a b/libtarvex.so" "$sample"
}

env_value() {  # name: its value in $out, as printed by env
    grep -a "^$1=" "$out" | head -1 | cut -d= -f2-
}

test_environment() {
    run --log "$scratch/l.log" --top --no-backtrace --clear-stats-file="$scratch/clear" -- env
    expect_eq "env status" 0 "$status"
    expect_eq "target from PATH name" env "$(env_value TARVEX_TARGET_PROC_NAME)"
    expect_eq "--log" "$scratch/l.log" "$(env_value TARVEX_LOG_FILE_NAME)"
    expect_eq "--top" 1 "$(env_value TARVEX_TOP)"
    expect_eq "--no-backtrace" 1 "$(env_value TARVEX_NOBACKTRACE)"
    expect_eq "--clear-stats-file" "$scratch/clear" "$(env_value TARVEX_CLEAR_STATS_FILE_NAME)"
    expect_eq "LD_PRELOAD alone" "$lib" "$(env_value LD_PRELOAD)"
    run env
    expect_not_contains "no --top" "$out" "TARVEX_TOP="
    expect_not_contains "no --log" "$out" "TARVEX_LOG_FILE_NAME="
    run --target other_name env
    expect_eq "--target" other_name "$(env_value TARVEX_TARGET_PROC_NAME)"
    run --target= env
    expect_eq "--target empty" "" "$(env_value TARVEX_TARGET_PROC_NAME)"
    expect_contains "--target empty is set" "$out" "TARVEX_TARGET_PROC_NAME="
    run "$sample" echo --top
    expect_contains "options after the program are its own" "$out" "argv[2]=--top"
}

test_preload_list() {
    local helper=$samples/libtvx_tools_sample_helper.so
    LD_PRELOAD=$helper run env
    expect_eq "LD_PRELOAD kept" "$lib:$helper" "$(env_value LD_PRELOAD)"
    LD_PRELOAD="$helper $lib" run env
    expect_eq "LD_PRELOAD not doubled" "$helper $lib" "$(env_value LD_PRELOAD)"
}

test_process_name() {
    local long=abcdefghijklmnopqrstuvwxyz0123456789ABCD  # 40 characters
    ln -s "$(command -v env)" "$scratch/$long"
    run "$scratch/$long"
    expect_eq "name cut to 31" "${long:0:31}" "$(env_value TARVEX_TARGET_PROC_NAME)"
    local wide=ääääääääääääääääääää  # 20 characters, 40 bytes
    ln -s "$(command -v env)" "$scratch/$wide"
    run "$scratch/$wide"
    expect_eq "name cut to 31 bytes" "$(printf '%s' "$wide" | head -c 31 | od -An -tx1)" \
        "$(env_value TARVEX_TARGET_PROC_NAME | tr -d '\n' | od -An -tx1)"
    (cd "$samples" && "$tarvex" ./tools_sample_debug_pie trace >"$out" 2>"$err")
    expect_contains "relative program is tracked" "$out" "----------trace----------"
    expect_contains "its window was recorded" "$out" "size: 100"
}

test_pass_through() {
    run "$sample" exit 42
    expect_eq "exit status" 42 "$status"
    ("$tarvex" "$sample" signal 15 >"$out" 2>"$err"; exit $?) 2>/dev/null
    status=$?
    expect_eq "signal" 143 "$status"
    expect_lines "signal stderr" "$err" 0
    run "$sample" echo "a b" "" '*'
    expect_eq "arguments" "$(printf 'argv[0]=%s\nargv[1]=echo\nargv[2]=a b\nargv[3]=\nargv[4]=*' "$sample")" \
        "$(cat "$out")"
    expect_eq "stdin" hello "$(echo hello | "$tarvex" cat)"
    "$tarvex" sh -c 'echo out; echo err >&2' >"$out" 2>"$err"
    expect_eq "stdout" out "$(cat "$out")"
    expect_eq "stderr" err "$(cat "$err")"
}

test_help_and_version
test_mistakes
test_environment
test_preload_list
test_process_name
test_pass_through
finish
