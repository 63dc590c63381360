#!/usr/bin/env bash
# The report tool's HTML page in headless Chromium: it must load without
# console or script errors and draw the expected chart. Builds what it
# needs in the regular build directory; unlike the ctest entry of the same
# test, a missing Chromium is a failure here.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${TARVEX_BUILD_DIR:-$root/build}
if ! command -v chromium >/dev/null; then
    echo "browser_test: chromium is not installed (scripts/setup.sh installs it)" >&2
    exit 1
fi
cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j2 --target tarvex tarvex-report tools_sample_debug_pie >/dev/null
bash "$root/tests/tools/html_browser_test.sh" "$build/bin" "$build/tools/samples"
