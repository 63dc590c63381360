#!/usr/bin/env bash
# Benchmarks of the interposition frame and of the tracked path.
#
# Runs build-bench/bin/tarvex_bench in four ways and sets every figure
# against the plain run of the same invocation of this script:
#   plain      no preload: glibc alone
#   untracked  libtarvex.so preloaded, the process is not the target
#   tracked    libtarvex.so preloaded, the process is the target
#   nostack    as tracked, with TARVEX_NOBACKTRACE (no stack capture)
# and tarvex_core_bench (the pieces of a tracked call, on the library's
# classes). Every measurement is repeated (--rounds processes, each with
# several repetitions inside) and the median is reported.
#
# usage: bench/run.sh [--quick] [--rounds N] [--build DIR] [--out DIR]
#                     [--sections frame,parts,work,rss] [--from FILE]...
#   --quick     a short pass (fewer rounds, shorter runs, 200k held blocks)
#   --build     build directory (default: build-bench beside this checkout's
#               sources); configured and built with -j2 when needed
#   --out       where raw results and tables.md go (default BUILD/bench-results/DATE)
#   --from      run nothing: print the tables from the raw results of earlier
#               runs (results.txt; repeatable, the medians are taken over all)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=bench/common.sh
source "$root/bench/common.sh"
build=$root/build-bench
out=""
rounds=3
quick=0
sections=frame,parts,work,rss
from=()

while (($#)); do
  case $1 in
    --quick) quick=1 ;;
    --rounds) rounds=$2; shift ;;
    --build) build=$2; shift ;;
    --out) out=$2; shift ;;
    --sections) sections=$2; shift ;;
    --from) from+=("$2"); shift ;;
    -h|--help) sed -n '2,24p' "$0"; exit 0 ;;
    *) echo "run.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done

if ((quick)); then
  [[ $rounds == 3 ]] && rounds=1
  reps=3; min_ms=30; warmup=40000; lives="10000 200000"; rss_blocks=200000
  gb_reps=3; gb_min_time=0.05
else
  reps=5; min_ms=100; warmup=50000; lives="10000 2000000"; rss_blocks=1000000
  gb_reps=10; gb_min_time=0.1
fi
depths=5,30

has_section() { [[ ,$sections, == *,$1,* ]]; }

# Nothing from the caller's environment may steer the runs.
unset LD_PRELOAD TARVEX_TARGET_PROC_NAME TARVEX_NOBACKTRACE TARVEX_TOP \
      TARVEX_LOG_FILE_NAME TARVEX_CLEAR_STATS_FILE_NAME

# ------------------------------------------------------------------ build

bin=$build/bin/tarvex_bench
core_bin=$build/bin/tarvex_core_bench
lib=$build/lib/libtarvex.so
gbench=1
if ((${#from[@]})); then
  rounds=0
elif [[ ! -f $build/CMakeCache.txt ]]; then
  echo "run.sh: configuring $build" >&2
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVEX_BUILD_TESTS=OFF >/dev/null
fi
if ((rounds > 0)); then
  cmake --build "$build" -j2 --target tarvex tarvex_bench >/dev/null
  if cmake --build "$build" --target help | grep tarvex_core_bench >/dev/null; then
    cmake --build "$build" -j2 --target tarvex_core_bench >/dev/null
  fi
  for f in "$bin" "$lib"; do
    [[ -e $f ]] || { echo "run.sh: $f is missing after the build" >&2; exit 1; }
  done
  if ! "$bin" --benchmark_list_tests >/dev/null 2>&1; then
    gbench=0
    echo "run.sh: tarvex_bench was built without Google Benchmark (libbenchmark-dev): no frame-cost section" >&2
  fi
  [[ -x $core_bin ]] || echo "run.sh: tarvex_core_bench is missing (libbenchmark-dev): no parts section" >&2
fi

[[ -n $out ]] || out=$build/bench-results/$(date +%Y%m%d-%H%M%S)
mkdir -p "$out"
raw=$out/results.txt
tables=$out/tables.md
: >"$raw"
: >"$tables"
if ((${#from[@]})); then
  cat "${from[@]}" >"$raw"
fi

# One run of the benchmark program in one of the four ways.
run_mode() {
  local mode=$1
  shift
  case $mode in
    plain) "$bin" "$@" ;;
    untracked) LD_PRELOAD=$lib "$bin" "$@" ;;
    tracked) LD_PRELOAD=$lib TARVEX_TARGET_PROC_NAME=tarvex_bench "$bin" "$@" ;;
    nostack) LD_PRELOAD=$lib TARVEX_TARGET_PROC_NAME=tarvex_bench TARVEX_NOBACKTRACE=1 "$bin" "$@" ;;
  esac
}

# Appends the result lines of one run, tagged with mode and round, and
# checks that the process was tracked exactly when it should be.
record() {
  local mode=$1 round=$2 output
  shift 2
  local pin=0
  [[ " $* " == *" --threads=1 "* || $1 == rss ]] && pin=1
  if ! output=$( ((pin)) && pin_to_one_cpu; run_mode "$mode" "$@"); then
    echo "run.sh: WARNING: the $mode run of '$*' failed; its figures are missing" >&2
  fi
  local usable
  usable=$(sed -n 's/^info usable_size_of_1=//p' <<<"$output")
  if [[ -n $usable ]]; then
    if [[ $mode == tracked || $mode == nostack ]]; then
      [[ $usable == 1 ]] || echo "run.sh: WARNING: $mode run was not tracked (usable size $usable)" >&2
    else
      [[ $usable != 1 ]] || echo "run.sh: WARNING: $mode run looks tracked" >&2
    fi
  fi
  grep '^result ' <<<"$output" | sed "s/^result /mode=$mode round=$round /" >>"$raw"
}

say() { printf '%s\n' "$*" | tee -a "$tables"; }

# Median of the values of one field over the rows that match a filter.
# The awk helpers below all read "key=value" lines.
awk_lib='
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
function fmt(v) { if (v == "") return "n/a"; return v >= 100 ? sprintf("%.0f", v) : sprintf("%.1f", v) }
function ratio(v, base) { if (v == "" || base == "" || base + 0 == 0) return "n/a"; return sprintf("%.2fx", v / base) }
'

# ------------------------------------------------------------------ machine


cpu=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n1)
say "# tarvex benchmarks ($(date -u +%Y-%m-%dT%H:%MZ))"
say ""
say "Machine: $(nproc) cores, ${cpu:-unknown CPU}, $(ldd --version 2>/dev/null | head -n1 | sed 's/^ldd //'),"
if ((${#from[@]})); then
  say "Tables from earlier runs: ${from[*]} (medians over all their rounds and repetitions)."
else
  say "load average at start: $(cut -d' ' -f1-3 /proc/loadavg). Rounds: $rounds (medians over rounds and repetitions)."
  say "Sources: $(source_version)."
fi
say ""

# ------------------------------------------------------------------ frame cost

if has_section frame && ((gbench)); then
  echo "run.sh: frame cost (Google Benchmark, plain and preloaded not target)" >&2
  gb_args=(--benchmark_repetitions=$gb_reps --benchmark_enable_random_interleaving=true
           --benchmark_report_aggregates_only=true --benchmark_format=csv
           --benchmark_min_time=$gb_min_time)
  for ((r = 1; r <= rounds; r++)); do
    for mode in plain untracked; do
      run_mode "$mode" "${gb_args[@]}" 2>/dev/null >"$out/gbench.csv" ||
        echo "run.sh: WARNING: tarvex_bench ($mode) failed; its frame figures are missing" >&2
      awk -F, -v mode=$mode -v r=$r '$1 ~ /_median"$/ { gsub(/"/, "", $1); sub(/_median$/, "", $1);
        printf "mode=%s round=%d gbench=%s real=%s cpu=%s\n", mode, r, $1, $3, $4 }' "$out/gbench.csv" >>"$raw"
    done
  done
  awk "$awk_lib"'
    /gbench=BM_(libc_)?malloc_free/ { k = kv($0, "mode") "|" kv($0, "gbench"); cpu[k] = cpu[k] " " kv($0, "cpu"); real[k] = real[k] " " kv($0, "real") }
    END {
      base = median(cpu["plain|BM_malloc_free/32"])
      print "## Untracked frame: malloc(32) + free"
      print ""
      print "| call | process | CPU ns/pair | vs plain | wall ns/pair |"
      print "|---|---|---:|---:|---:|"
      split("plain|BM_malloc_free/32 plain|BM_libc_malloc_free/32 untracked|BM_malloc_free/32 untracked|BM_libc_malloc_free/32", rows, " ")
      name["BM_malloc_free/32"] = "malloc + free"; name["BM_libc_malloc_free/32"] = "__libc_malloc + __libc_free"
      proc["plain"] = "no preload"; proc["untracked"] = "tarvex preloaded, not the target"
      for (i = 1; i <= 4; i++) {
        split(rows[i], p, "|"); c = median(cpu[rows[i]])
        printf "| %s | %s | %.2f | %s | %.2f |\n", name[p[2]], proc[p[1]], c, ratio(c, base), median(real[rows[i]])
      }
      pre = median(cpu["untracked|BM_malloc_free/32"]); libc = median(cpu["untracked|BM_libc_malloc_free/32"])
      print ""
      printf "Frame cost per malloc+free pair: %.2f ns against glibc called directly in the same process, %.2f ns against the plain run.\n", pre - libc, pre - base
      print ""
    }' "$raw" | tee -a "$tables"
fi

# ------------------------------------------------------------------ parts

if has_section parts && [[ -x $core_bin || ${#from[@]} -gt 0 ]]; then
  echo "run.sh: parts of the tracked path (tarvex_core_bench)" >&2
  for ((r = 1; r <= rounds; r++)); do
    "$core_bin" --benchmark_repetitions=$gb_reps --benchmark_report_aggregates_only=true \
      --benchmark_format=csv --benchmark_min_time=$gb_min_time 2>/dev/null >"$out/gbench.csv" ||
      echo "run.sh: WARNING: tarvex_core_bench failed; some of its figures are missing" >&2
    awk -F, -v r=$r '$1 ~ /_median"$/ { gsub(/"/, "", $1); sub(/_median$/, "", $1); gsub(/"/, "", $8);
      printf "mode=core round=%d gbench=%s%s real=%s cpu=%s\n", r, $1, $8 == "" ? "" : "[" $8 "]", $3, $4 }' \
      "$out/gbench.csv" >>"$raw"
  done
  awk "$awk_lib"'
    kv($0, "mode") == "core" { k = kv($0, "gbench"); if (!(k in cpu)) order[++n] = k; cpu[k] = cpu[k] " " kv($0, "cpu"); real[k] = real[k] " " kv($0, "real") }
    END {
      print "## Pieces of a tracked call (tarvex_core_bench)"
      print ""
      print "| piece | CPU ns | wall ns |"
      print "|---|---:|---:|"
      for (i = 1; i <= n; i++) printf "| %s | %s | %s |\n", order[i], fmt(median(cpu[order[i]])), fmt(median(real[order[i]]))
      print ""
      print "Guard: take_release is check_and_set_current_thread + remove_current_thread (a slot under the guard'"'"'s mutex);"
      print "try_enter_leave is the thread-local form that tracked allocation calls take. With 2 threads both use one guard."
      print "Capture: tarvex::backtrace (return addresses and uid) and glibc backtrace() at the benchmark'"'"'s own depth"
      print "plus the argument (frames: the return addresses captured)."
      print "Registry: insert + find_and_remove of one block among N held ones. Quarantine: one block in, the oldest out, 10 MiB full."
      print ""
    }' "$raw" | tee -a "$tables"
fi

# ------------------------------------------------------------------ workloads

if has_section work; then
  for ((r = 1; r <= rounds; r++)); do
    for live in $lives; do
      for threads in 1 2; do
        for mode in plain untracked tracked nostack; do
          echo "run.sh: round $r/$rounds, $live held blocks, $threads thread(s), $mode" >&2
          ops=pair,churn
          [[ $mode == plain ]] && ops=pair,churn,bt
          record "$mode" "$r" work --ops=$ops --depths=$depths --threads=$threads --live=$live \
            --reps=$reps --min-ms=$min_ms --warmup=$warmup
        done
      done
    done
  done
  for field in cpu_ns_per_op ns_per_op; do
    awk -v field=$field "$awk_lib"'
      kv($0, "op") != "" && kv($0, "op") != "rss" {
        k = kv($0, "op") "|" kv($0, "depth") "|" kv($0, "live") "|" kv($0, "threads")
        m = kv($0, "mode"); v[m "|" k] = v[m "|" k] " " kv($0, field)
        if (m == "plain") frames[k] = kv($0, "frames")
        if (kv($0, "op") != "bt" && !(k in seen)) { seen[k] = 1; order[++n] = k }
      }
      END {
        if (field == "cpu_ns_per_op") {
          print "## Tracked path: CPU time per operation (ns), ratio to plain glibc"
          print ""
          print "CPU time of the worker threads over their operations: the time a thread waited for a core held by another process is left out."
        } else {
          print "## Tracked path: wall time per operation and thread (ns), ratio to plain glibc"
          print ""
          print "Wall time of a repetition times the threads, over all operations: includes waiting for locks and for cores held by other processes."
        }
        print "pair: malloc(32) + free. churn: free one of 64 slots, malloc 16..511 bytes into it (one op). Frames: stack depth at the malloc call."
        print ""
        print "| workload | frames | held | threads | plain | untracked | tracked | tracked, no stacks | stack share | glibc backtrace() alone |"
        print "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
        for (i = 1; i <= n; i++) {
          split(order[i], p, "|")
          b = median(v["plain|" order[i]]); u = median(v["untracked|" order[i]])
          t = median(v["tracked|" order[i]]); s = median(v["nostack|" order[i]])
          bt = median(v["plain|bt|" p[2] "|" p[3] "|" p[4]])
          share = (t != "" && s != "" && t > 0) ? sprintf("%.0f%%", 100 * (t - s) / t) : "n/a"
          printf "| %s | %s | %s | %s | %s | %s (%s) | %s (%s) | %s (%s) | %s | %s |\n", p[1], frames[order[i]], p[3], p[4],
            fmt(b), fmt(u), ratio(u, b), fmt(t), ratio(t, b), fmt(s), ratio(s, b), share, fmt(bt)
        }
        print ""
        print "stack share: (tracked - tracked, no stacks) / tracked; a pair and a churn op each capture two stacks (malloc and free)."
        print "glibc backtrace() alone: one call of glibc'"'"'s backtrace() from where the workload calls malloc, for comparison."
        print ""
      }' "$raw" | tee -a "$tables"
  done
fi

# ------------------------------------------------------------------ memory

if has_section rss; then
  for ((r = 1; r <= rounds; r++)); do
    for mode in plain untracked tracked nostack; do
      echo "run.sh: round $r/$rounds, resident memory, $mode" >&2
      record "$mode" "$r" rss --blocks=$rss_blocks --size=32
    done
  done
  awk "$awk_lib"'
    kv($0, "op") == "rss" { m = kv($0, "mode"); rss[m] = rss[m] " " kv($0, "rss_bytes_per_block"); heap[m] = heap[m] " " kv($0, "heap_bytes_per_block"); blocks = kv($0, "blocks") }
    END {
      printf "## Memory per live 32-byte block (%d blocks held)\n\n", blocks
      print "| process | resident bytes/block | vs plain | glibc heap bytes/block |"
      print "|---|---:|---:|---:|"
      split("plain untracked tracked nostack", ms, " ")
      name["plain"] = "plain glibc"; name["untracked"] = "preloaded, not the target"
      name["tracked"] = "tracked"; name["nostack"] = "tracked, no stacks"
      base = median(rss["plain"])
      for (i = 1; i <= 4; i++) { v = median(rss[ms[i]]); printf "| %s | %s | %s | %s |\n", name[ms[i]], fmt(v), ratio(v, base), fmt(median(heap[ms[i]])) }
      print ""
      print "Resident: growth of /proc/self/statm while the blocks are allocated; heap: growth of mallinfo2 in-use bytes (glibc, so tarvex'"'"'s own records count too)."
      print ""
    }' "$raw" | tee -a "$tables"
fi

((${#from[@]})) ||
  say "Load average at the end: $(cut -d' ' -f1-3 /proc/loadavg). The machine was shared with other work while this ran."
echo "run.sh: raw results in $raw, tables in $tables" >&2
