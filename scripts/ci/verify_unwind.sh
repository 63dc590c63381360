#!/usr/bin/env bash
# Runs the whole test suite once more with a library whose every stack
# capture is checked against glibc's backtrace(); a difference aborts the
# program under test, so any test that captures a stack catches it.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build="$root/build-verify"
cmake -S "$root" -B "$build" -DTARVEX_VERIFY_UNWIND=ON -DTARVEX_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" --timeout 900 -LE slow
