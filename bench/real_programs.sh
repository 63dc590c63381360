#!/usr/bin/env bash
# Slowdown of real programs when they are the tracked process of tarvex.
#
#   bench/real_programs.sh [-n RUNS] [LIB] [CASE...]
#
# Runs the workloads of the soak tests (tests/soak/run_soak.sh), each RUNS
# times plainly and RUNS times with LD_PRELOAD=LIB and the case's program as
# TARVEX_TARGET_PROC_NAME, plain and tracked runs alternating. Prints the
# median wall-clock time and the median CPU time (user + system, of the
# whole process tree) of both, with their ratios, and names the three
# programs slowed down most. LIB defaults to build/lib/libtarvex.so; with no
# CASE every case runs. CPU times are the steadier measure on a machine whose
# cores are shared with other work.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
soak=$root/tests/soak/run_soak.sh

runs=5
if [[ ${1:-} == -n ]]; then
    runs=$2
    shift 2
fi
lib=${1:-$root/build/lib/libtarvex.so}
[[ $# -gt 0 ]] && shift
[[ -f $lib ]] || { echo "real_programs: no library at $lib (build it first)" >&2; exit 1; }
lib=$(readlink -f "$lib")

declare -A target_of
names=()
while read -r name target; do
    target_of[$name]=$target
    names+=("$name")
done < <(bash "$soak" --table)
(($#)) && names=("$@")

base=$(mktemp -d "${TMPDIR:-/tmp}/real-programs.XXXXXX")
trap 'rm -rf "$base"' EXIT
unset LD_PRELOAD TARVEX_TARGET_PROC_NAME TARVEX_TOP TARVEX_NOBACKTRACE TARVEX_LOG_FILE_NAME \
    TARVEX_CLEAR_STATS_FILE_NAME

# One timed run of a case in a fresh copy of its inputs: prints
# "wall cpu" in seconds. The copy is not timed.
time_once() {  # case, env assignments...
    local name=$1
    shift
    rm -rf "$base/w" "$base/w.home" && cp -a "$base/seed" "$base/w"
    local TIMEFORMAT='%R %U %S' t
    t=$({ time (cd "$base/w" && env "$@" bash "$soak" --exec "$name" >/dev/null 2>&1); } 2>&1) ||
        { echo "real_programs: $name failed (${*:-plain})" >&2; return 1; }
    awk '{ printf "%.3f %.3f\n", $1, $2 + $3 }' <<<"$t"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

cpu=$(awk -F': *' '/^model name/ { print $2; exit }' /proc/cpuinfo)
echo "machine: $(nproc) cores, ${cpu:-unknown CPU}, load average at start $(cut -d' ' -f1-3 /proc/loadavg)"
echo "library: $lib"
echo "runs: median of $runs, plain and tracked alternating"
echo
printf '%-12s %-9s %9s %9s %7s %9s %9s %9s\n' program target "plain s" "tracked s" ratio "plain cpu" "trk cpu" "cpu ratio"
results=()
for name in "${names[@]}"; do
    target=${target_of[$name]:-}
    [[ -n $target ]] || { echo "real_programs: unknown case $name" >&2; exit 1; }
    rm -rf "$base/seed"
    bash "$soak" --prepare "$name" "$base/seed"
    : >"$base/plain" && : >"$base/tracked"
    for ((i = 0; i < runs; i++)); do
        time_once "$name" >>"$base/plain"
        time_once "$name" LD_PRELOAD="$lib" TARVEX_TARGET_PROC_NAME="$target" >>"$base/tracked"
    done
    pw=$(cut -d' ' -f1 "$base/plain" | median)
    tw=$(cut -d' ' -f1 "$base/tracked" | median)
    pc=$(cut -d' ' -f2 "$base/plain" | median)
    tc=$(cut -d' ' -f2 "$base/tracked" | median)
    row=$(awk -v n="$name" -v t="$target" -v pw="$pw" -v tw="$tw" -v pc="$pc" -v tc="$tc" 'BEGIN {
        rw = pw > 0 ? tw / pw : 0; rc = pc > 0 ? tc / pc : 0
        printf "%-12s %-9s %9.2f %9.2f %6.1fx %9.2f %9.2f %8.1fx", n, t, pw, tw, rw, pc, tc, rc }')
    echo "$row"
    results+=("$row")
done

echo
echo "slowed down most (wall-clock ratio):"
printf '%s\n' "${results[@]}" | sort -k5,5 -g -r | head -n 3 |
    awk '{ printf "  %s (%s): %s wall, %s CPU\n", $1, $2, $5, $8 }'
