#!/usr/bin/env bash
# The churn workload side by side under tarvex and under other heap checkers.
#
# Workload (tarvex_bench work --ops=churn): each operation frees one of 64
# slots at random and allocates 16..511 bytes into it; a million operations
# per thread after a warm-up that fills 10 MiB quarantines; 1 and 2 threads;
# the malloc call sits 5 frames deep. Tools:
#   plain glibc
#   tarvex tracked (and tracked with TARVEX_NOBACKTRACE)
#   AddressSanitizer's runtime preloaded into the uninstrumented program,
#     quarantine_size_mb=10 (only its allocator and stack capture work:
#     the program's own loads and stores are not instrumented)
#   Valgrind memcheck, --freelist-vol=10485760 (a 10 MiB quarantine as well)
#   heaptrack (records every call with its stack)
#   glibc's malloc checking: libc_malloc_debug.so preloaded with
#     GLIBC_TUNABLES=glibc.malloc.check=3 and MALLOC_CHECK_=3
# A tool that is not installed is reported as missing and skipped. Runs on
# one thread are pinned to the last core.
#
# usage: bench/compare_peers.sh [--rounds N] [--count N] [--valgrind-count N]
#                               [--depth N] [--build DIR] [--out DIR]
#   --count           operations per thread (default 1000000)
#   --valgrind-count  operations per thread under Valgrind (default: --count)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=bench/common.sh
source "$root/bench/common.sh"
build=$root/build-bench
out=""
rounds=3
count=1000000
vg_count=""
depth=5
warmup=50000

while (($#)); do
  case $1 in
    --rounds) rounds=$2; shift ;;
    --count) count=$2; shift ;;
    --valgrind-count) vg_count=$2; shift ;;
    --depth) depth=$2; shift ;;
    --build) build=$2; shift ;;
    --out) out=$2; shift ;;
    -h|--help) sed -n '2,24p' "$0"; exit 0 ;;
    *) echo "compare_peers.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done
[[ -n $vg_count ]] || vg_count=$count

unset LD_PRELOAD TARVEX_TARGET_PROC_NAME TARVEX_NOBACKTRACE TARVEX_TOP \
      TARVEX_LOG_FILE_NAME TARVEX_CLEAR_STATS_FILE_NAME ASAN_OPTIONS \
      MALLOC_CHECK_ GLIBC_TUNABLES

if [[ ! -f $build/CMakeCache.txt ]]; then
  echo "compare_peers.sh: configuring $build" >&2
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVEX_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$build" -j2 --target tarvex tarvex_bench >/dev/null
bin=$build/bin/tarvex_bench
lib=$build/lib/libtarvex.so

[[ -n $out ]] || out=$build/bench-results/peers-$(date +%Y%m%d-%H%M%S)
mkdir -p "$out"
raw=$out/peers.txt
tables=$out/peers.md
: >"$raw"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# ------------------------------------------------------------------ tools

libasan=$(gcc -print-file-name=libasan.so 2>/dev/null || true)
[[ $libasan == /* && -e $libasan ]] || libasan=""
malloc_debug=""
for f in /lib/x86_64-linux-gnu/libc_malloc_debug.so.0 /usr/lib/x86_64-linux-gnu/libc_malloc_debug.so.0 \
         /lib64/libc_malloc_debug.so.0 /usr/lib64/libc_malloc_debug.so.0; do
  [[ -e $f ]] && { malloc_debug=$f; break; }
done
if [[ -z $malloc_debug ]]; then
  malloc_debug=$(ldconfig -p 2>/dev/null | awk '/libc_malloc_debug\.so/ { print $NF; exit }')
fi

tools=(plain tarvex tarvex_nostack asan valgrind heaptrack malloc_check)
declare -A label missing
label[plain]="plain glibc"
label[tarvex]="tarvex, tracked"
label[tarvex_nostack]="tarvex, tracked, TARVEX_NOBACKTRACE"
label[asan]="ASan runtime preloaded, quarantine 10 MiB"
label[valgrind]="Valgrind memcheck, freelist 10 MiB"
label[heaptrack]="heaptrack"
label[malloc_check]="glibc malloc check=3"
[[ -n $libasan ]] || missing[asan]="libasan.so not found (gcc -print-file-name=libasan.so)"
command -v valgrind >/dev/null || missing[valgrind]="valgrind not installed"
command -v heaptrack >/dev/null || missing[heaptrack]="heaptrack not installed"
[[ -n $malloc_debug ]] || label[malloc_check]="glibc MALLOC_CHECK_=3 (no libc_malloc_debug.so: glibc before 2.34)"

run_tool() {  # tool, threads
  local tool=$1 threads=$2 n=$count
  [[ $tool == valgrind ]] && n=$vg_count
  local args=(work --ops=churn --depths=$depth --slots=64 --threads=$threads --count=$n --reps=1 --warmup=$warmup)
  case $tool in
    plain) "$bin" "${args[@]}" ;;
    tarvex) LD_PRELOAD=$lib TARVEX_TARGET_PROC_NAME=tarvex_bench "$bin" "${args[@]}" ;;
    tarvex_nostack) LD_PRELOAD=$lib TARVEX_TARGET_PROC_NAME=tarvex_bench TARVEX_NOBACKTRACE=1 "$bin" "${args[@]}" ;;
    asan) LD_PRELOAD=$libasan ASAN_OPTIONS=verify_asan_link_order=0:quarantine_size_mb=10:detect_leaks=0 \
            "$bin" "${args[@]}" ;;
    valgrind) valgrind --tool=memcheck -q --freelist-vol=10485760 "$bin" "${args[@]}" 2>"$tmp/valgrind.err" ;;
    heaptrack) heaptrack -o "$tmp/heaptrack.$threads" "$bin" "${args[@]}" 2>&1; rm -f "$tmp"/heaptrack.* ;;
    malloc_check)
      if [[ -n $malloc_debug ]]; then
        LD_PRELOAD=$malloc_debug GLIBC_TUNABLES=glibc.malloc.check=3 MALLOC_CHECK_=3 "$bin" "${args[@]}"
      else
        MALLOC_CHECK_=3 "$bin" "${args[@]}"
      fi ;;
  esac
}

# ------------------------------------------------------------------ runs


cpu=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n1)
{
  echo "# Heap checkers on the churn workload ($(date -u +%Y-%m-%dT%H:%MZ))"
  echo ""
  echo "Machine: $(nproc) cores, ${cpu:-unknown CPU}, $(ldd --version 2>/dev/null | head -n1 | sed 's/^ldd //'),"
  echo "load average at start: $(cut -d' ' -f1-3 /proc/loadavg). Rounds: $rounds (medians)."
  echo "Sources: $(source_version)."
  echo ""
} | tee "$tables"

for ((r = 1; r <= rounds; r++)); do
  for threads in 1 2; do
    for tool in "${tools[@]}"; do
      [[ -z ${missing[$tool]:-} ]] || continue
      echo "compare_peers.sh: round $r/$rounds, $threads thread(s), ${label[$tool]}" >&2
      if ! output=$( ((threads == 1)) && pin_to_one_cpu; run_tool "$tool" "$threads"); then
        echo "compare_peers.sh: WARNING: ${label[$tool]} failed with $threads thread(s)" >&2
      fi
      grep '^result ' <<<"$output" | sed "s/^result /tool=$tool round=$r /" >>"$raw" || true
    done
  done
done

for tool in "${tools[@]}"; do
  [[ -z ${missing[$tool]:-} ]] || echo "compare_peers.sh: skipped ${label[$tool]}: ${missing[$tool]}" >&2
done

label_list=""
for tool in "${tools[@]}"; do
  m=${missing[$tool]:-}
  label_list+="$tool=${label[$tool]}${m:+ (missing: $m)};"
done

awk -v labels="$label_list" -v count=$count -v vg_count=$vg_count -v depth=$depth '
function kv(line, key,   n, i, parts, f) {
  n = split(line, parts, " ")
  for (i = 1; i <= n; i++) { split(parts[i], f, "="); if (f[1] == key) return f[2] }
  return ""
}
function median(list,   n, a, i, j, t) {
  n = split(list, a, " ")
  if (n == 0) return ""
  for (i = 2; i <= n; i++) { t = a[i] + 0; for (j = i - 1; j >= 1 && a[j] + 0 > t; j--) a[j + 1] = a[j]; a[j + 1] = t }
  return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
}
function cell(v, base) {
  if (v == "") return "n/a"
  return sprintf("%s (%.1fx)", v >= 100 ? sprintf("%.0f", v) : sprintf("%.1f", v), v / base)
}
{ k = kv($0, "tool") "|" kv($0, "threads"); wall[k] = wall[k] " " kv($0, "ns_per_op"); cpu[k] = cpu[k] " " kv($0, "cpu_ns_per_op") }
END {
  print "Churn: free one of 64 slots, malloc 16..511 bytes into it; " count " operations per thread (" vg_count " under Valgrind), malloc " depth " frames deep."
  print "ns per operation and thread; in brackets the ratio to plain glibc with the same number of threads."
  print ""
  print "| tool | 1 thread, wall | 1 thread, CPU | 2 threads, wall | 2 threads, CPU |"
  print "|---|---:|---:|---:|---:|"
  n = split(labels, items, ";")
  for (i = 1; i <= n; i++) {
    if (items[i] == "") continue
    eq = index(items[i], "="); tool = substr(items[i], 1, eq - 1); name = substr(items[i], eq + 1)
    row = "| " name
    for (t = 1; t <= 2; t++) {
      row = row " | " cell(median(wall[tool "|" t]), median(wall["plain|" t]))
      row = row " | " cell(median(cpu[tool "|" t]), median(cpu["plain|" t]))
    }
    print row " |"
  }
  print ""
  print "wall: wall time of the run times the threads, over all operations. CPU: CPU time of the worker threads over their operations;"
  print "it leaves out waiting for cores held by other processes, and work that a tool does in other threads or processes (heaptrack)."
  print ""
}' "$raw" | tee -a "$tables"

echo "Load average at the end: $(cut -d' ' -f1-3 /proc/loadavg). The machine was shared with other work while this ran." | tee -a "$tables"
echo "compare_peers.sh: raw results in $raw, table in $tables" >&2
