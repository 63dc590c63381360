#!/usr/bin/env bash
# Fuzzes the symbol-line parsers and the demangler with libFuzzer under
# AddressSanitizer and UBSan for a bounded time.
#   TARVEX_FUZZ_SECONDS  run time (default 60)
#   TARVEX_FUZZ_BUILD    build directory (default build-fuzz)
# A failing input is left in $TARVEX_FUZZ_BUILD/artifacts; add it to
# tests/fuzz/corpus once the fault is fixed, so that every run replays it.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${TARVEX_FUZZ_BUILD:-$root/build-fuzz}
seconds=${TARVEX_FUZZ_SECONDS:-60}
cxx=${CXX_FUZZ:-clang++}

mkdir -p "$build/artifacts" "$build/corpus"
lib="$root/lib"
# The library's classes without the interposed functions (trvx_hook.cpp),
# which would replace the fuzzer's own malloc.
core=()
for src in "$lib"/*.cpp; do
  [[ "$(basename "$src")" == trvx_hook.cpp ]] || core+=("$src")
done
"$cxx" -std=c++17 -g -O1 -fno-omit-frame-pointer \
  -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all \
  -I"$lib" "$root/tests/fuzz/parsers_fuzz.cpp" "${core[@]}" \
  -ldl -lpthread -o "$build/parsers_fuzz"

# New inputs go to the build directory; the seeds in the tree stay as they are.
"$build/parsers_fuzz" -max_total_time="$seconds" -max_len=512 -timeout=10 \
  -print_final_stats=1 -artifact_prefix="$build/artifacts/" \
  "$build/corpus" "$root/tests/fuzz/corpus"
echo "fuzz.sh: no fault found in ${seconds}s"
