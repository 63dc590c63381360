#!/usr/bin/env bash
# Static analysis of lib/: clang-tidy with the checks chosen in .clang-tidy,
# then cppcheck with the suppressions in .cppcheck-suppressions. Any
# finding of either fails the script.
#   TARVEX_LINT_BUILD  directory for the compile database (default build-fuzz/lint)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${TARVEX_LINT_BUILD:-$root/build-fuzz/lint}
jobs=$(( $(nproc) < 2 ? $(nproc) : 2 ))

# The compile database, configured with clang so that the flags are
# clang's. -fno-partial-inlining is a GCC-only flag that clang rejects.
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
  -DTARVEX_BUILD_TESTS=OFF -DTARVEX_BUILD_BENCH=OFF >/dev/null
sed -i 's/ -fno-partial-inlining//g' "$build/compile_commands.json"

# Two files at a time, each into a log of its own, printed in order.
sources=("$root"/lib/*.cpp)
echo "lint: clang-tidy on ${#sources[@]} files of lib/"
status=0
printf '%s\n' "${sources[@]}" | xargs -P "$jobs" -I{} sh -c \
  'clang-tidy -p "$1" --quiet "$2" >"$1/tidy-$(basename "$2").log" 2>&1' _ "$build" {} || status=1
for src in "${sources[@]}"; do
  grep -v -E '^[0-9]+ warnings? generated\.$|^Suppressed [0-9]+ warnings|^Use -header-filter' \
    "$build/tidy-$(basename "$src").log" || true
done
if ((status)); then
  echo "lint: clang-tidy found problems"
  exit 1
fi

echo "lint: cppcheck"
cppcheck --quiet --error-exitcode=1 --std=c++17 --language=c++ \
  --enable=style,warning,performance,portability \
  --library=posix --inline-suppr \
  --suppressions-list="$root/.cppcheck-suppressions" \
  -I "$root/lib" -D__GNUC__ -D__x86_64__ -D__linux__ \
  -j "$jobs" "$root/lib"
echo "lint: clean"
