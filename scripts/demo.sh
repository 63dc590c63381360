#!/usr/bin/env bash
# The main job: builds tarvex and runs the bundled example with the library
# preloaded, showing a trace dump, a top report and a caught double free.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
build=${TARVEX_BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target tarvex tarvex_demo
lib="$build/lib/libtarvex.so"
demo="$build/bin/tarvex_demo"

echo "== trace dump and top report of tarvex_demo"
LD_PRELOAD="$lib" TARVEX_TARGET_PROC_NAME=tarvex_demo TARVEX_TOP=1 "$demo"
echo
echo "== a double free caught by tarvex"
set +e
LD_PRELOAD="$lib" TARVEX_TARGET_PROC_NAME=tarvex_demo "$demo" fault
status=$?
set -e
echo "(tarvex_demo stopped with status $status, as expected for a caught fault)"
