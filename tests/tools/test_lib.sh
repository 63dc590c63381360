# Shared helpers of the tools' shell tests: checks that count and report,
# a scratch directory removed on exit.
set -u
passed=0
failed=0
scratch=$(mktemp -d "${TMPDIR:-/tmp}/tarvex-tools-test.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

pass() { passed=$((passed + 1)); }
fail() {
    failed=$((failed + 1))
    printf 'FAIL: %s\n' "$1" >&2
}

# expect_eq NAME EXPECTED ACTUAL
expect_eq() {
    if [[ $2 == "$3" ]]; then pass; else fail "$1: expected [$2], got [$3]"; fi
}

# expect_contains NAME FILE TEXT: FILE holds TEXT as a fixed string.
expect_contains() {
    if grep -qF -- "$3" "$2"; then pass; else fail "$1: '$3' not in $2:"; sed 's/^/    | /' "$2" | head -40 >&2; fi
}

expect_not_contains() {
    if ! grep -qF -- "$3" "$2"; then pass; else fail "$1: '$3' unexpectedly in $2"; fi
}

# expect_lines NAME FILE N: FILE has exactly N lines.
expect_lines() {
    local n
    n=$(wc -l <"$2")
    expect_eq "$1 (line count of $(basename "$2"))" "$3" "$n"
}

# The line number of the "@marker" comment in a source file.
marker_line() {  # file marker
    grep -n -- "@$2\$" "$1" | cut -d: -f1
}

finish() {
    printf '%s: %d passed, %d failed\n' "$(basename "$0" .sh)" "$passed" "$failed"
    ((failed == 0))
}
