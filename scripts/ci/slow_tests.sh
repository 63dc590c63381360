#!/usr/bin/env bash
# Runs the tests labelled "slow" (they wait for real time to pass, such as
# the periodic top report) in the repository's main build directory, which
# scripts/test.sh has configured and built before it runs this step.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
ctest --test-dir "$root/build" --output-on-failure -L slow --timeout 900
