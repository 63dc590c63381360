#!/usr/bin/env bash
# The main job: builds tarvex and runs the bundled example with the library
# preloaded through the launcher, showing a trace dump and a top report as
# the library writes them, the same log symbolised by the report tool, and a
# double free that tarvex stops.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
build=${TARVEX_BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target tarvex tarvex_demo tarvex-report
tarvex="$build/bin/tarvex"
demo="$build/bin/tarvex_demo"
log=$(mktemp /tmp/tarvex-demo.XXXXXX.log)
trap 'rm -f "$log"' EXIT

echo "== trace dump and top report of tarvex_demo, as tarvex writes them"
"$tarvex" --top --log "$log" "$demo"
cat "$log"
echo
echo "== the same log read by the report tool (tarvex report)"
"$tarvex" report "$log"
echo
echo "== a double free caught by tarvex"
set +e
"$tarvex" "$demo" fault
status=$?
set -e
echo "(tarvex_demo stopped with status $status, as expected for a caught fault)"
