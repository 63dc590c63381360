#!/usr/bin/env bash
# The HTML page in headless Chromium: it loads without console errors or
# script errors, draws one line per leading call site, and fetches nothing.
# Skipped (status 77) where no Chromium is installed.
# usage: html_browser_test.sh BIN_DIR SAMPLES_DIR
bin=$(cd "$1" && pwd) samples=$(cd "$2" && pwd)
source "$(dirname "$0")/test_lib.sh"
unset TARVEX_TOP TARVEX_NOBACKTRACE TARVEX_LOG_FILE_NAME TARVEX_CLEAR_STATS_FILE_NAME LD_PRELOAD
tarvex=$bin/tarvex
cd "$scratch" || exit 1

browser=$(command -v chromium || command -v chromium-browser || command -v google-chrome || true)
if [[ -z $browser ]]; then
    echo "html_browser_test: no Chromium installed, skipped"
    exit 77
fi

# One top report of SITES call sites; site i holds i*GROWTH bytes.
top_report() {  # sites growth
    local i
    printf '\n----------uid to bt----------\n'
    for ((i = 1; i <= $1; i++)); do
        printf 'uid: %08x, bt: \n/srv/app/server(+0x%x) [0x5555%08x]\n[0x7f0000001234]\n\n' \
            "$i" $((i * 16)) $((i * 16))
    done
    printf '\nMem usage: 1K (%d bytes) (alloc/sec: 5)\n' $(($1 * $2))
    printf -- '----------top by count----------\n'
    for ((i = $1; i >= 1; i--)); do printf 'uid: %08x, count: %d, size: %d\n' "$i" "$i" $((i * $2)); done
    printf -- '----------top by size----------\n'
    for ((i = $1; i >= 1; i--)); do printf 'uid: %08x, size: %d, count: %d\n' "$i" $((i * $2)) "$i"; done
    printf -- '-------------------------------\n'
}

# Loads a page; its DOM after the scripts ran goes to PAGE.dom, the
# browser's log to PAGE.log.
load_page() {  # page
    local profile
    profile=$(mktemp -d "$scratch/profile.XXXXXX")
    timeout 120 "$browser" --headless --no-sandbox --disable-gpu --disable-background-networking \
        --disable-component-update --disable-sync --no-first-run --user-data-dir="$profile" \
        --enable-logging=stderr --v=0 --dump-dom "file://$scratch/$1" >"$1.dom" 2>"$1.log"
    expect_eq "$1: browser status" 0 $?
}

expect_clean_page() {  # page
    expect_contains "$1: scripts ran" "$1.dom" 'data-ready="1"'
    expect_not_contains "$1: no script errors" "$1.dom" 'data-errors='
    expect_contains "$1: error box hidden" "$1.dom" '<pre id="page-errors" hidden="">'
    if grep -q 'CONSOLE' "$1.log"; then
        fail "$1: console messages:"
        grep 'CONSOLE' "$1.log" >&2
    else
        pass
    fi
}

# Nothing in the page points outside it.
expect_self_contained() {  # page
    expect_not_contains "$1: no external scripts" "$1" '<script src'
    expect_not_contains "$1: no style sheets" "$1" '<link'
    expect_not_contains "$1: no https" "$1" 'https://'
    expect_eq "$1: the only URL is the SVG namespace" "http://www.w3.org/2000/svg" \
        "$(grep -o 'http://[^"'"'"' )]*' "$1" | sort -u | tr '\n' ' ' | sed 's/ $//')"
}

# One page of synthetic logs (twelve sites in three reports, three sites in
# two) and of real runs of the sample program with a fault.
test_page() {
    local exe=$samples/tools_sample_debug_pie
    { top_report 12 100; echo "unrelated output"; top_report 12 200; top_report 12 300; } >many.log
    { top_report 3 10; top_report 3 5; } >few.log
    "$tarvex" --top --log run.log "$exe" top >/dev/null
    "$tarvex" --log run.log "$exe" trace >/dev/null
    ("$tarvex" "$exe" double-free >fault.out 2>&1; exit $?) 2>/dev/null
    "$tarvex" report --html page.html many.log few.log run.log fault.out
    expect_eq "page written" 0 $?
    expect_self_contained page.html
    load_page page.html
    expect_clean_page page.html
    expect_eq "one chart per input with top reports" 3 "$(grep -o '<figure class="chart"' page.html.dom | wc -l)"
    local series
    series=$(grep -o 'data-series="[0-9]*"' page.html.dom | cut -d'"' -f2 | tr '\n' ' ' | sed 's/ $//')
    [[ $series =~ ^10\ 3\ ([0-9]+)$ ]] && ((BASH_REMATCH[1] >= 4)) && pass ||
        fail "at most ten call sites drawn, then three, then the sample's four or more: got '$series'"
    local drawn=$((10 + 3 + ${BASH_REMATCH[1]:-0}))
    expect_eq "one line per series" "$drawn" "$(grep -o 'class="series"' page.html.dom | wc -l)"
    expect_eq "legend entries" "$drawn" "$(grep -o '<li title="hide or show' page.html.dom | wc -l)"
    expect_contains "suspects listed" page.html.dom '<tr class="suspect">'
    expect_contains "legend names the growing site" page.html.dom "sample::keep_block(unsigned long)"
    expect_contains "trace window" page.html.dom "Trace window at run.log:"
    expect_contains "fault" page.html.dom "Double free at fault.out:"
    expect_contains "symbolised stack" page.html.dom '<span class="fn">sample::fault(char const*)</span>'
}

test_page
finish
