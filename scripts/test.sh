#!/usr/bin/env bash
# Builds everything and runs every test: the regular build, then the unit
# and concurrency tests again under AddressSanitizer+UBSan and
# ThreadSanitizer.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
jobs=$(nproc)

run_build() {  # dir, ctest label selection (e.g. "-L unit"), extra cmake args...
  local dir=$1 select=$2
  shift 2
  cmake -S "$root" -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  # shellcheck disable=SC2086
  ctest --test-dir "$dir" --output-on-failure -j"$jobs" --timeout 900 $select
}

# The slow tests (which wait for the periodic report) run once, from
# scripts/ci/slow_tests.sh.
run_build "$root/build" "-LE slow"
run_build "$root/build-asan" "-L unit" -DTARVEX_SANITIZE=address -DTARVEX_BUILD_BENCH=OFF
run_build "$root/build-tsan" "-L unit" -DTARVEX_SANITIZE=thread -DTARVEX_BUILD_BENCH=OFF
# Further checks (fuzzing, static analysis, browser tests, slow tests), one
# script each.
for step in "$root"/scripts/ci/*.sh; do
  [[ -e "$step" ]] || continue
  echo "== $(basename "$step")"
  bash "$step"
done
echo "test.sh: all tests passed"
