#!/usr/bin/env bash
# Runs widely used programs as the tracked process of libtarvex.so and checks
# that they behave exactly as without it.
#
#   run_soak.sh LIB PROBE CASE           runs one case
#   run_soak.sh --list                   names of all cases, one a line
#   run_soak.sh --table                  name and target of each case
#   run_soak.sh --prepare CASE DIR       writes the case's input files into DIR
#   run_soak.sh --exec CASE              runs the case's command in the current
#                                        directory (a copy of the prepared one)
#
# A case runs its command twice in the same fresh working directory: once
# plainly, once with LD_PRELOAD="LIB PROBE" and TARVEX_TARGET_PROC_NAME set to
# the case's target. The tracked run must give the same standard output and
# exit status, finish within the time limit, print no tarvex fault, and the
# probe library must confirm that a process of that name was tracked (see
# soak_probe.c). Modes add TARVEX_TOP with a log file and a top report at
# exit (top), or TARVEX_NOBACKTRACE (nobt), or both.
set -uo pipefail

self=$(readlink -f "$0")

# The cases cover an interpreter with every object from malloc, deep C++
# stacks, forking subshells, threads and a program that starts many
# processes of itself.
# name      target     modes     what it does
k_cases='
python3-raw python3    top       dicts, sorting, json and regexes with every object from malloc
perl        perl       nobt      hashes, regexes, sort and sprintf
bash        bash       -         arrays, associative arrays, functions, subshells
sort        sort       nobt      multi-key numeric sort through temporary files, two threads
git         git        top,nobt  init, add, commit, branch, merge, log, gc
cc1plus     cc1plus    top       the C++ compiler proper on a small program
'

die() { echo "soak: $*" >&2; exit 1; }

case ${1:-} in
--list) awk 'NF >= 3 { print $1 }' <<<"$k_cases"; exit 0 ;;
--table) awk 'NF >= 3 { print $1, $2 }' <<<"$k_cases"; exit 0 ;;
esac

# Deterministic text: lines of words drawn from a small vocabulary.
gen_text() {  # lines seed
    awk -v n="$1" -v seed="$2" 'BEGIN {
        srand(seed)
        split("alpha beta gamma delta epsilon zeta eta theta iota kappa lambda mu nu xi heap block footer quarantine", w, " ")
        for (i = 1; i <= n; i++) {
            k = 3 + int(rand() * 9); line = ""
            for (j = 0; j < k; j++) line = line w[1 + int(rand() * 18)] (j < k - 1 ? " " : "")
            printf "%d,%d,%s\n", i, int(rand() * 100000), line
        }
    }'
}

setup_case() {  # name; runs in the seed directory
    case $1 in
    python3-raw)
        gen_text 6000 1 >text.csv
        cat >work.py <<'EOF'
import collections, json, re
table = {i: {"n": i, "sq": i * i, "name": "item%05d" % i, "tags": [str(i % 7)] * (i % 5)} for i in range(4000)}
blob = json.dumps(table, sort_keys=True)
rows = sorted(json.loads(blob).values(), key=lambda r: (-(r["sq"] % 997), r["name"]))
text = open("text.csv").read()
pairs = collections.Counter(m.group(2) for m in re.finditer(r"(\w+) (\w+a)\b", text))
print(len(blob), rows[0]["name"], rows[-1]["name"], sorted(pairs.items())[:5])
EOF
        ;;
    perl)
        gen_text 40000 2 >text.csv
        cat >work.pl <<'EOF'
my (%freq, @rows);
open my $fh, '<', 'text.csv' or die;
while (my $line = <$fh>) {
    chomp $line;
    my ($id, $num, $text) = split /,/, $line, 3;
    $freq{$_}++ for split / /, $text;
    push @rows, [ $id, $num, length $text ];
}
printf "%s=%d\n", $_, $freq{$_} for (sort { $freq{$b} <=> $freq{$a} || $a cmp $b } keys %freq)[0 .. 4];
my @sorted = sort { $a->[1] <=> $b->[1] || $a->[0] <=> $b->[0] } @rows;
(my $t = join ",", map { sprintf "%05d:%d", $_->[0], $_->[2] } @sorted[0 .. 99]) =~ s/(\d+):(\d+)/$2-$1/g;
print "$t\n";
EOF
        ;;
    bash)
        gen_text 300 4 >text.csv
        cat >work.sh <<'EOF'
declare -A freq
declare -a ids
while IFS=, read -r id num text; do
    ids+=("$id")
    for w in $text; do freq[$w]=$(( ${freq[$w]:-0} + 1 )); done
done < text.csv
fib() { local n=$1; if (( n < 2 )); then echo "$n"; else echo $(( $(fib $((n - 1))) + $(fib $((n - 2))) )); fi; }
echo "ids ${#ids[@]} words ${#freq[@]} fib $(fib 6)"
for k in $(printf '%s\n' "${!freq[@]}" | sort); do printf '%s=%s ' "$k" "${freq[$k]}"; done; echo
EOF
        ;;
    sort)
        gen_text 20000 5 >text.csv
        gen_text 20000 6 >other.csv ;;
    git)
        mkdir -p tree/a tree/b tree/c
        for d in a b c; do for f in 1 2 3; do gen_text 200 "$f" >"tree/$d/file$f.txt"; done; done ;;
    cc1plus)
        cat >prog.cpp <<'EOF'
#include <algorithm>
#include <iostream>
#include <map>
#include <string>
#include <vector>
int main() {
    std::map<std::string, std::vector<int>> groups;
    for (int i = 0; i < 2000; ++i) groups["g" + std::to_string(i % 37)].push_back(i * 7919 % 1009);
    for (auto& [name, v] : groups) std::sort(v.begin(), v.end());
    std::cout << groups.size() << " " << groups["g5"].front() << " " << groups["g5"].back() << "\n";
}
EOF
        ;;
    *) die "unknown case $1" ;;
    esac
}

# The command of a case; runs in the working directory, with the run's
# environment (LD_PRELOAD and the rest) already set for every process.
run_case() {  # name
    case $1 in
    python3-raw) PYTHONMALLOC=malloc /usr/bin/python3 work.py ;;
    perl) perl work.pl ;;
    bash) bash work.sh ;;
    sort)
        sort -S 1M --parallel=2 -T . -t, -k2,2n -k1,1n text.csv other.csv | md5sum
        sort -u -t, -k3 other.csv | tail -n 3 ;;
    git)
        git init -q -b main repo && cd repo || return 1
        git config user.name soak && git config user.email soak@example.invalid
        cp -r ../tree/a ../tree/b . && git add -A && git commit -q -m first
        git checkout -q -b side && cp -r ../tree/c . && sed -i 's/alpha/ALPHA/' a/file2.txt
        git add -A && git commit -q -m second
        git checkout -q main && sed -i 's/beta/BETA/' b/file3.txt && git commit -q -am third
        git merge -q --no-edit side && git log --format='%H %s' && git diff --stat HEAD~2 HEAD
        git gc -q && git count-objects -v | grep -c pack ;;
    cc1plus) g++ -O1 -o prog prog.cpp && ./prog ;;
    *) die "unknown case $1" ;;
    esac
}

# Same locale, zone, home and dates in every run, so that outputs compare.
normal_env() {
    export LC_ALL=C TZ=UTC HOME=$PWD.home
    export GIT_AUTHOR_DATE='2001-09-09T01:46:40Z' GIT_COMMITTER_DATE='2001-09-09T01:46:40Z'
    export GIT_CONFIG_NOSYSTEM=1 SOURCE_DATE_EPOCH=1000000000
    mkdir -p "$HOME"
}

case ${1:-} in
--exec) normal_env; run_case "$2"; exit ;;
--prepare)
    mkdir -p "$3" && cd "$3" && normal_env && setup_case "$2" || exit 1
    find . -exec touch -h -d @1000000000 {} +
    exit 0 ;;
esac

[[ $# -eq 3 ]] || die "usage: run_soak.sh LIB PROBE CASE | --list"
lib=$(readlink -f "$1")
probe=$(readlink -f "$2")
name=$3
[[ -f $lib && -f $probe ]] || die "library or probe missing"
row=$(awk -v n="$name" '$1 == n' <<<"$k_cases")
[[ -n $row ]] || die "unknown case $name"
read -r _ target modes _ <<<"$row"
limit=${SOAK_TIMEOUT:-240}

# A missing program is a set-up fault (scripts/packages.txt), not a pass.
for tool in $target md5sum; do
    [[ $tool == cc1plus ]] && tool=g++
    command -v "$tool" >/dev/null || die "$tool is not installed"
done

base=$(mktemp -d "${TMPDIR:-/tmp}/soak-$name.XXXXXX")
trap 'rm -rf "$base"' EXIT
unset LD_PRELOAD TARVEX_TARGET_PROC_NAME TARVEX_TOP TARVEX_NOBACKTRACE TARVEX_LOG_FILE_NAME \
    TARVEX_CLEAR_STATS_FILE_NAME SOAK_PROBE_FILE SOAK_PROBE_TOP
bash "$self" --prepare "$name" "$base/seed" || die "set-up of $name failed"

run_in_work() {  # stdout file, stderr file, env assignments...
    local out=$1 err=$2
    shift 2
    rm -rf "$base/w" "$base/w.home" && cp -a "$base/seed" "$base/w"
    (cd "$base/w" && timeout -k 10 "$limit" env "$@" bash "$self" --exec "$name" >"$out" 2>"$err")
}

run_in_work "$base/plain.out" "$base/plain.err"
plain_rc=$?
tracked_env=(LD_PRELOAD="$lib $probe" TARVEX_TARGET_PROC_NAME="$target" SOAK_PROBE_FILE="$base/probe.txt")
[[ $modes == *top* ]] && tracked_env+=(TARVEX_TOP=1 TARVEX_LOG_FILE_NAME="$base/tarvex.log" SOAK_PROBE_TOP=1)
[[ $modes == *nobt* ]] && tracked_env+=(TARVEX_NOBACKTRACE=1)
run_in_work "$base/tracked.out" "$base/tracked.err" "${tracked_env[@]}"
tracked_rc=$?

failures=()
# Every case is written to succeed: a plain run that fails tests nothing.
((plain_rc == 0)) || failures+=("the plain run failed (exit status $plain_rc)")
if ((tracked_rc == 124 || tracked_rc == 137)); then
    failures+=("tracked run hung: killed after ${limit}s")
elif ((tracked_rc != plain_rc)); then
    failures+=("exit status $tracked_rc, plain run $plain_rc")
fi
grep -q -a -e 'Failed to find block info' -e 'Failed to verify the footer' -e 'Double free' \
    -e 'lib/trvx_' "$base/tracked.out" "$base/tracked.err" && failures+=("tarvex reported a fault")
cmp -s "$base/plain.out" "$base/tracked.out" || failures+=("standard output differs from the plain run")
grep -q "^tracked $target " "$base/probe.txt" 2>/dev/null || failures+=("no $target process was tracked")
# The exit-time report of a tracked process lists call sites that hold live blocks.
if [[ $modes == *top* ]] && ! grep -q -E '^uid: [0-9a-f]{8}, count: [1-9]' "$base/tarvex.log" 2>/dev/null; then
    failures+=("no top report with live blocks in the log file")
fi

if ((${#failures[@]})); then
    echo "soak $name (target $target, modes $modes): FAILED"
    printf '  %s\n' "${failures[@]}"
    echo "--- plain stdout (rc $plain_rc)"; head -c 2000 "$base/plain.out"
    echo "--- tracked stdout (rc $tracked_rc)"; head -c 4000 "$base/tracked.out"
    echo "--- tracked stderr"; head -c 4000 "$base/tracked.err"
    exit 1
fi
echo "soak $name (target $target, modes $modes): ok, $(grep -c '^tracked ' "$base/probe.txt") tracked process(es)"
