#!/usr/bin/env bash
# Start-up cost of the preloaded library in processes that are not the
# target: runs short programs (true, ls) many times without and with
# libtarvex.so in LD_PRELOAD (and TARVEX_TARGET_PROC_NAME naming another
# program, as on a system where every process has it), in alternating
# batches, and prints the median time per run of each, their difference,
# and the spread of the plain batches as the noise to set it against.
#
# usage: bench/startup.sh [--runs N] [--batches N] [LIB]
#   --runs      runs of a program per batch (default 200)
#   --batches   batches per program and way (default 15)
#   LIB         default: build-bench/lib/libtarvex.so, built when missing
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=200
batches=15
lib=""
while (($#)); do
  case $1 in
    --runs) runs=$2; shift ;;
    --batches) batches=$2; shift ;;
    -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
    -*) echo "startup.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
    *) lib=$1 ;;
  esac
  shift
done
if [[ -z $lib ]]; then
  build=$root/build-bench
  if [[ ! -f $build/CMakeCache.txt ]]; then
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVEX_BUILD_TESTS=OFF >/dev/null
  fi
  cmake --build "$build" -j2 --target tarvex >/dev/null
  lib=$build/lib/libtarvex.so
fi
[[ -f $lib ]] || { echo "startup.sh: no library at $lib" >&2; exit 1; }
lib=$(readlink -f "$lib")
unset LD_PRELOAD TARVEX_TARGET_PROC_NAME TARVEX_NOBACKTRACE TARVEX_TOP TARVEX_LOG_FILE_NAME \
      TARVEX_CLEAR_STATS_FILE_NAME

# Microseconds per run of one batch.
batch() {  # preload (0/1), program...
  local preload=$1 start end i
  shift
  start=$EPOCHREALTIME
  if ((preload)); then
    for ((i = 0; i < runs; i++)); do
      LD_PRELOAD=$lib TARVEX_TARGET_PROC_NAME=some-server "$@" >/dev/null
    done
  else
    for ((i = 0; i < runs; i++)); do "$@" >/dev/null; done
  fi
  end=$EPOCHREALTIME
  awk -v a="$start" -v b="$end" -v n="$runs" 'BEGIN { printf "%.1f\n", (b - a) * 1e6 / n }'
}

stats() {  # values... -> "median spread" (spread: half the distance between the quartiles)
  printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END {
    m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
    q1 = v[int((NR + 3) / 4)]; q3 = v[int((3 * NR + 1) / 4)]
    printf "%.1f %.1f\n", m, (q3 - q1) / 2 }'
}

echo "Machine: $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n1),"
echo "load average at start: $(cut -d' ' -f1-3 /proc/loadavg). $batches batches of $runs runs per program and way."
echo ""
echo "| program | plain us/run | preloaded us/run | difference | noise (plain) |"
echo "|---|---:|---:|---:|---:|"
for prog in "true" "ls /"; do
  read -r -a cmd <<<"$prog"
  cmd[0]=$(type -P "${cmd[0]}")
  plain=() preloaded=()
  for ((b = 0; b < batches; b++)); do
    plain+=("$(batch 0 "${cmd[@]}")")
    preloaded+=("$(batch 1 "${cmd[@]}")")
  done
  read -r pm ps <<<"$(stats "${plain[@]}")"
  read -r lm _ <<<"$(stats "${preloaded[@]}")"
  diff=$(awk -v a="$pm" -v b="$lm" 'BEGIN { printf "%+.1f", b - a }')
  echo "| $prog | $pm | $lm | $diff | $ps |"
done
