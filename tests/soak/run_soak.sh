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

# name      target     modes     what it does
k_cases='
python3     python3    top       dicts, sorting, json and regexes in CPython
python3-raw python3    -         the same with every object from malloc (PYTHONMALLOC=malloc)
perl        perl       nobt      hashes, regexes, sort and sprintf
tclsh       tclsh      -         lists, dicts, string maps and regsub
bash        bash       -         arrays, associative arrays, functions, subshells
awk         awk        nobt      word frequencies
sed         sed        -         substitutions, hold space, line ranges
grep        grep       -         extended and fixed patterns, counts, recursion
sort        sort       nobt      multi-key numeric sort through temporary files, two threads
find        find       -         name, size and type tests with -printf over a tree
jq          jq         top       filters, grouping and reduction over JSON
tar         tar        nobt      create, list and extract an archive
gzip        gzip       -         compress and decompress
xz          xz         -         compress with two threads and decompress
bzip2       bzip2      -         compress and decompress
zstd        zstd       -         compress with two threads and decompress
zip         zip        -         archive a tree
unzip       unzip      -         list and extract an archive
sqlite3     sqlite3    top       tables, indexes, joins, window functions
git         git        top       init, add, commit, branch, merge, log, diff
make        make       -         pattern rules, functions and a recursive make
g++         g++        -         compiler driver building and linking a C++ program
cc1plus     cc1plus    top       the C++ compiler proper on the same program
as          as         nobt      the assembler on the same program
ld          ld         -         the linker on the same program
cmake       cmake      -         configures a small C++ project
openssl     openssl    -         digests, symmetric cipher, base64
diff        diff       -         unified diff of two files
patch       patch      -         applies a unified diff
bc          bc         -         arbitrary precision arithmetic
objdump     objdump    top,nobt  disassembly of a binary
node        node       -         objects, maps, sorting and JSON in JavaScript
'

die() { echo "soak: $*" >&2; exit 1; }

case ${1:-} in
--list) awk 'NF >= 3 { print $1 }' <<<"$k_cases"; exit 0 ;;
--table) awk 'NF >= 3 { print $1, $2 }' <<<"$k_cases"; exit 0 ;;
esac

# ------------------------------------------------------------------ inputs

# Deterministic text: lines of words drawn from a small vocabulary.
gen_text() {  # lines seed
    awk -v n="$1" -v seed="$2" 'BEGIN {
        srand(seed)
        split("alpha beta gamma delta epsilon zeta eta theta iota kappa lambda mu nu xi omicron pi rho sigma tau upsilon phi chi psi omega heap block footer quarantine", w, " ")
        for (i = 1; i <= n; i++) {
            k = 3 + int(rand() * 9); line = ""
            for (j = 0; j < k; j++) line = line w[1 + int(rand() * 28)] (j < k - 1 ? " " : "")
            printf "%d,%d,%s\n", i, int(rand() * 100000), line
        }
    }'
}

# A tree of 12 directories with text files of varied sizes, in one awk run.
gen_tree() {  # dir
    awk -v d="$1" 'BEGIN {
        srand(11)
        split("alpha beta gamma delta epsilon zeta eta theta iota kappa lambda mu nu xi omicron pi rho sigma tau upsilon phi chi psi omega heap block footer quarantine", w, " ")
        for (i = 1; i <= 12; i++) {
            sub_ = d "/dir" i "/sub" (i % 3)
            system("mkdir -p " sub_)
            for (j = 1; j <= 8; j++) {
                emit(d "/dir" i "/file" j ".txt", i * j * 3)
                emit(sub_ "/note" j ".md", i + j)
            }
        }
    }
    function emit(path, n,   k, l, line, x) {
        for (l = 1; l <= n; l++) {
            k = 3 + int(rand() * 9); line = ""
            for (x = 0; x < k; x++) line = line w[1 + int(rand() * 28)] (x < k - 1 ? " " : "")
            print l "," int(rand() * 100000) "," line > path
        }
        close(path)
    }'
}

k_cpp_program='#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

struct shape {
    virtual ~shape() = default;
    virtual double area() const = 0;
    virtual std::string name() const = 0;
};
struct rect : shape {
    double w, h;
    rect(double a, double b) : w(a), h(b) {}
    double area() const override { return w * h; }
    std::string name() const override { return "rect"; }
};
struct circle : shape {
    double r;
    explicit circle(double a) : r(a) {}
    double area() const override { return 3.14159 * r * r; }
    std::string name() const override { return "circle"; }
};

int main() {
    std::vector<std::unique_ptr<shape>> shapes;
    for (int i = 1; i <= 2000; ++i) {
        if (i % 3) shapes.push_back(std::make_unique<rect>(i % 17, i % 23));
        else shapes.push_back(std::make_unique<circle>(i % 11));
    }
    std::map<std::string, double> total;
    for (const auto& s : shapes) total[s->name()] += s->area();
    std::sort(shapes.begin(), shapes.end(), [](const auto& a, const auto& b) { return a->area() < b->area(); });
    std::ostringstream out;
    for (const auto& [k, v] : total) out << k << " " << static_cast<long>(v) << "\n";
    out << "largest " << static_cast<long>(shapes.back()->area()) << "\n";
    std::cout << out.str();
}
'

setup_case() {  # name; runs in the seed directory
    case $1 in
    python3 | python3-raw)
        cat >work.py <<'EOF'
import collections, hashlib, json, re, sys
scale = int(sys.argv[1])
words = open("text.csv").read().split()
counts = collections.Counter(w.split(",")[-1] for w in words)
table = {i: {"n": i, "sq": i * i, "name": "item%05d" % i, "tags": [str(i % 7)] * (i % 5)} for i in range(scale)}
blob = json.dumps(table, sort_keys=True)
back = json.loads(blob)
rows = sorted(back.values(), key=lambda r: (-(r["sq"] % 997), r["name"]))
pat = re.compile(r"(\w+) (\w+a)\b")
pairs = collections.Counter(m.group(2) for m in pat.finditer(open("text.csv").read()))
class Node:
    __slots__ = ("k", "left", "right")
    def __init__(self, k): self.k, self.left, self.right = k, None, None
def insert(root, k):
    while True:
        side = "left" if k < root.k else "right"
        nxt = getattr(root, side)
        if nxt is None:
            setattr(root, side, Node(k)); return
        root = nxt
root = Node(50000)
for i in range(scale // 2):
    insert(root, (i * 7919) % 100003)
print(len(blob), hashlib.sha256(blob.encode()).hexdigest())
print(rows[0]["name"], rows[-1]["name"], len(rows))
print(counts.most_common(3))
print(sorted(pairs.items())[:5])
EOF
        gen_text 6000 1 >text.csv ;;
    perl)
        gen_text 40000 2 >text.csv
        cat >work.pl <<'EOF'
use strict; use warnings;
my (%freq, %bykey, @rows);
open my $fh, '<', 'text.csv' or die;
while (my $line = <$fh>) {
    chomp $line;
    my ($id, $num, $text) = split /,/, $line, 3;
    $freq{$_}++ for split / /, $text;
    push @{ $bykey{ $num % 97 } }, $id;
    push @rows, [ $id, $num, length $text ];
}
my @top = (sort { $freq{$b} <=> $freq{$a} || $a cmp $b } keys %freq)[0 .. 4];
printf "%s=%d\n", $_, $freq{$_} for @top;
my @sorted = sort { $a->[1] <=> $b->[1] || $a->[0] <=> $b->[0] } @rows;
print join(",", map { $_->[0] } @sorted[0 .. 9]), "\n";
my $s = join "", map { sprintf "%05d:%s;", $_, scalar @{ $bykey{$_} } } sort { $a <=> $b } keys %bykey;
(my $t = $s) =~ s/(\d+):(\d+)/$2-$1/g;
print length($t), " ", substr($t, 0, 60), "\n";
EOF
        ;;
    tclsh)
        gen_text 15000 3 >text.csv
        cat >work.tcl <<'EOF'
set f [open text.csv]
set freq [dict create]
set rows {}
while {[gets $f line] >= 0} {
    lassign [split $line ,] id num text
    foreach w [split $text " "] { dict incr freq $w }
    lappend rows [list $id $num [string length $text]]
}
close $f
set top [lrange [lsort -stride 2 -index 1 -integer -decreasing $freq] 0 9]
puts $top
set sorted [lsort -index 1 -integer [lsort -index 0 -integer $rows]]
puts [lrange $sorted 0 4]
set s [string map {alpha A beta B gamma G} [join [dict keys $freq] ,]]
regsub -all {([a-z]+)a} $s {<\1>} s
puts [string length $s]
set acc {}
for {set i 0} {$i < 20000} {incr i} { lappend acc [format %04x [expr {($i * 2654435761) % 65536}]] }
puts [llength [lsort -unique $acc]]
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
echo "ids ${#ids[@]} words ${#freq[@]}"
for k in $(printf '%s\n' "${!freq[@]}" | LC_ALL=C sort); do printf '%s=%s ' "$k" "${freq[$k]}"; done; echo
echo "fib $(fib 5)"
s=""
for ((i = 0; i < 5000; i++)); do s+="${i:0:2}"; done
echo "${#s} ${s//12/X}" | cut -c1-80
sub=$( (echo one; echo two) | tr a-z A-Z )
echo "$sub"
EOF
        ;;
    awk | sed | grep | sort | diff | patch)
        gen_text 20000 5 >text.csv
        gen_text 20000 6 >other.csv ;;
    find | tar | zip | unzip | make)
        gen_tree tree ;;
    jq)
        awk 'BEGIN { srand(7); printf "["
            for (i = 0; i < 6000; i++) printf "%s{\"id\":%d,\"group\":\"g%d\",\"score\":%d,\"tags\":[\"t%d\",\"t%d\"]}", (i ? "," : ""), i, int(rand() * 40), int(rand() * 1000), i % 9, i % 4
            print "]" }' >data.json ;;
    gzip | xz | bzip2 | zstd | openssl)
        gen_text 20000 8 >text.csv ;;
    sqlite3)
        cat >work.sql <<'EOF'
CREATE TABLE item(id INTEGER PRIMARY KEY, grp INTEGER, name TEXT, score REAL);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 40000)
INSERT INTO item SELECT i, i % 97, printf('name%06d', (i * 7919) % 100003), (i * 31 % 1000) / 10.0 FROM n;
CREATE INDEX item_grp ON item(grp, score);
CREATE TABLE grp(id INTEGER PRIMARY KEY, label TEXT);
INSERT INTO grp SELECT DISTINCT grp, 'group-' || grp FROM item;
SELECT g.label, count(*), round(avg(i.score), 3), max(i.name) FROM item i JOIN grp g ON g.id = i.grp GROUP BY g.id ORDER BY 2 DESC, 1 LIMIT 5;
SELECT id, name, rank() OVER (PARTITION BY grp ORDER BY score DESC, id) AS r FROM item WHERE grp = 13 ORDER BY r, id LIMIT 5;
UPDATE item SET score = score + 1 WHERE id % 5 = 0;
DELETE FROM item WHERE id % 7 = 0;
SELECT count(*), sum(score), group_concat(substr(name, 5, 2), '') FROM (SELECT * FROM item ORDER BY name LIMIT 50);
EOF
        ;;
    git)
        gen_tree tree ;;
    g++ | cc1plus)
        printf '%s' "$k_cpp_program" >prog.cpp ;;
    as)
        printf '%s' "$k_cpp_program" >prog.cpp
        g++ -O1 -S prog.cpp -o prog.s ;;
    ld)
        printf '%s' "$k_cpp_program" >prog.cpp
        g++ -O1 -fPIC -c prog.cpp -o prog.o ;;
    cmake)
        mkdir -p src
        printf '%s' "$k_cpp_program" >src/prog.cpp
        cat >src/CMakeLists.txt <<'EOF'
cmake_minimum_required(VERSION 3.16)
project(soak LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 17)
set(names)
foreach(i RANGE 1 40)
  list(APPEND names "n${i}")
endforeach()
list(JOIN names "," joined)
string(REGEX REPLACE "n([0-9]+)" "<\\1>" joined "${joined}")
string(LENGTH "${joined}" len)
message(STATUS "names ${len}")
file(WRITE ${CMAKE_BINARY_DIR}/gen.txt "${joined}\n")
add_executable(prog prog.cpp)
EOF
        ;;
    bc)
        cat >work.bc <<'EOF'
scale = 300
x = 4 * a(1)
length(x)
y = sqrt(2) * e(1)
scale = 0
f = 1
for (i = 1; i <= 400; i++) f = f * i
length(f)
f % 1000000007
scale = 40
x
y
EOF
        ;;
    objdump) cp /usr/bin/make prog.bin ;;
    node)
        cat >work.js <<'EOF'
const m = new Map();
const rows = [];
for (let i = 0; i < 200000; i++) {
  const k = "k" + ((i * 7919) % 5003);
  m.set(k, (m.get(k) || 0) + 1);
  rows.push({ id: i, v: (i * 2654435761) % 1000003, s: "x".repeat(i % 13) });
}
rows.sort((a, b) => a.v - b.v || a.id - b.id);
const blob = JSON.stringify(rows.slice(0, 50000));
const back = JSON.parse(blob);
let acc = 0;
for (const r of back) acc = (acc * 31 + r.v + r.s.length) % 1000000007;
console.log(m.size, rows[0].id, rows[rows.length - 1].id, blob.length, acc);
console.log([...m.entries()].sort((a, b) => b[1] - a[1] || (a[0] < b[0] ? -1 : 1)).slice(0, 3));
EOF
        ;;
    *) die "unknown case $1" ;;
    esac
}

# ------------------------------------------------------------------ commands

# The command of a case; runs in the working directory, with the run's
# environment (LD_PRELOAD and the rest) already set for every process.
run_case() {  # name
    case $1 in
    python3) /usr/bin/python3 work.py 20000 ;;
    python3-raw) PYTHONMALLOC=malloc /usr/bin/python3 work.py 4000 ;;
    perl) perl work.pl ;;
    tclsh) tclsh work.tcl ;;
    bash) bash work.sh ;;
    awk)
        awk -F, '{ n = split($3, w, " "); for (i = 1; i <= n; i++) f[w[i]]++; s[$2 % 10] += $2 }
            END { for (k in f) print k, f[k] | "sort"; close("sort"); for (k = 0; k < 10; k++) printf "%d:%d\n", k, s[k] }' text.csv ;;
    sed)
        sed -E -e 's/(alpha|beta) (\w+)/\2-\1/g' -e '/omega/{h;s/omega/OMEGA/;G}' -e '100,200d' -e 's/^([0-9]+),/<\1>/' text.csv | md5sum
        sed -n -e '/^5000,/,/^5010,/p' -e '$=' text.csv ;;
    grep)
        grep -E -c '(heap|block) [a-z]+a\b' text.csv
        grep -o -E '\b(quarantine|footer) [a-z]+' text.csv | head -n 20
        grep -F -i -n -w -e KAPPA -e lambda other.csv | tail -n 5
        grep -v -c -e alpha -e beta text.csv other.csv ;;
    sort)
        sort -S 1M --parallel=2 -T . -t, -k2,2n -k1,1n text.csv other.csv | md5sum
        sort -u -t, -k3 other.csv | tail -n 3
        sort -R --random-source=text.csv other.csv | md5sum ;;
    find)
        find tree -name '*.txt' -size +2k -printf '%p %s\n' | LC_ALL=C sort | md5sum
        find tree -type d -newer tree/dir1/file1.txt -o -name 'note[1-3].md' -print | LC_ALL=C sort | tail -n 5
        find tree -path '*sub1*' -type f -exec cat {} + | wc -c ;;
    jq)
        jq -c 'group_by(.group) | map({g: .[0].group, n: length, s: (map(.score) | add)}) | sort_by(-.s) | .[:5]' data.json
        jq -r '[.[] | select(.score > 900) | .tags[]] | unique | join(",")' data.json
        jq 'reduce .[] as $r ({}; .[$r.tags[0]] += $r.score)' data.json ;;
    tar)
        tar --sort=name --owner=0 --group=0 --numeric-owner -cf a.tar tree
        md5sum a.tar
        tar -tvf a.tar | tail -n 3
        mkdir out && tar -xf a.tar -C out && diff -r tree out/tree && echo same ;;
    gzip)
        gzip -9 -n -c text.csv >t.gz && md5sum t.gz
        gzip -d -c t.gz | md5sum
        gzip -l t.gz ;;
    xz)
        xz -T2 -4 -c text.csv >t.xz && md5sum t.xz
        xz -d -c t.xz | md5sum
        xz -l t.xz | tail -n 1 ;;
    bzip2)
        bzip2 -9 -c text.csv >t.bz2 && md5sum t.bz2
        bzip2 -d -c t.bz2 | md5sum ;;
    zstd)
        zstd -q -T2 -12 -c text.csv >t.zst && md5sum t.zst
        zstd -q -d -c t.zst | md5sum ;;
    zip)
        zip -q -r -X -9 a.zip tree && md5sum a.zip
        zip -q -d a.zip 'tree/dir2/*' && zip -q -T a.zip && echo tested ;;
    unzip)
        TARVEX_TARGET_PROC_NAME= LD_PRELOAD= zip -q -r -X a.zip tree
        unzip -l a.zip | tail -n 3
        unzip -q a.zip -d out && diff -r tree out/tree && echo same
        unzip -p a.zip 'tree/dir5/*' | md5sum ;;
    sqlite3) sqlite3 db.sqlite <work.sql ;;
    git)
        git init -q -b main repo && cd repo || return 1
        git config user.name soak && git config user.email soak@example.invalid
        cp -r ../tree/dir1 ../tree/dir2 . && git add -A && git commit -q -m first
        git checkout -q -b side && cp -r ../tree/dir3 . && sed -i 's/alpha/ALPHA/' dir1/file2.txt
        git add -A && git commit -q -m second
        git checkout -q main && sed -i 's/beta/BETA/' dir2/file3.txt && git commit -q -am third
        git merge -q --no-edit side && git log --format='%H %s' && git diff --stat HEAD~2 HEAD
        git log -p --format=%h -1 HEAD~1 | md5sum
        git status --porcelain && git gc -q && git count-objects -v | grep -c pack ;;
    make)
        cat >Makefile <<'EOF'
srcs := $(sort $(wildcard tree/dir[1-5]/file*.txt))
outs := $(patsubst tree/%.txt,out/%.len,$(srcs))
all: $(outs)
	@echo $(words $(outs)) $(firstword $(notdir $(outs)))
	@$(MAKE) -s --no-print-directory summary
out/%.len: tree/%.txt
	@mkdir -p $(@D)
	@wc -l < $< > $@
summary:
	@cat $(sort $(wildcard out/*/*.len)) | md5sum
	@echo $(foreach d,$(sort $(dir $(srcs))),$(subst tree/,,$(d)))
.PHONY: all summary
EOF
        make -s ;;
    g++ | cc1plus) g++ -O1 -o prog prog.cpp && ./prog ;;
    as) g++ -c prog.s -o prog.o && g++ prog.o -o prog && ./prog && md5sum prog.o ;;
    ld) g++ prog.o -o prog && ./prog && g++ -shared prog.o -o prog.so && nm -D --defined-only prog.so | grep -c " W " ;;
    cmake)
        cmake -S src -B build | grep -v -e '^-- Configuring done' -e '^-- Generating done' -e '^-- Build files'
        cat build/gen.txt && grep -c prog build/Makefile ;;
    openssl)
        openssl dgst -sha256 -r text.csv
        openssl enc -aes-256-cbc -K 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f -iv 0f0e0d0c0b0a09080706050403020100 -in text.csv -out t.enc && md5sum t.enc
        openssl enc -d -aes-256-cbc -K 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f -iv 0f0e0d0c0b0a09080706050403020100 -in t.enc | md5sum
        openssl base64 -in t.enc | md5sum ;;
    diff)
        diff -u text.csv other.csv | md5sum
        diff --brief text.csv other.csv; echo "status $?"
        diff -y -W 100 <(head -n 20 text.csv) <(head -n 20 other.csv) | tail -n 3
        diff -q text.csv text.csv && echo identical ;;
    patch)
        diff -u text.csv other.csv >d.patch
        patch -s -o patched.csv text.csv d.patch && cmp patched.csv other.csv && echo same
        patch -s -R -o back.csv patched.csv d.patch && cmp back.csv text.csv && echo back ;;
    bc) bc -l work.bc ;;
    objdump)
        objdump -d prog.bin | md5sum
        objdump -x prog.bin | grep -c NEEDED ;;
    node) node work.js ;;
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
    # Fixed times, so that archives and listings compare between runs.
    find . -exec touch -h -d @1000000000 {} +
    exit 0 ;;
esac

# ------------------------------------------------------------------ driver

[[ $# -eq 3 ]] || die "usage: run_soak.sh LIB PROBE CASE | --list"
lib=$(readlink -f "$1")
probe=$(readlink -f "$2")
name=$3
[[ -f $lib && -f $probe ]] || die "library or probe missing"
row=$(awk -v n="$name" '$1 == n' <<<"$k_cases")
[[ -n $row ]] || die "unknown case $name"
read -r _ target modes _ <<<"$row"
limit=${SOAK_TIMEOUT:-240}

# Every program the case needs must be there: a missing one is a set-up
# fault (scripts/packages.txt), not a pass.
for tool in $target md5sum; do
    [[ $tool == cc1plus || $tool == as || $tool == ld ]] && tool=g++
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
    local start=$EPOCHREALTIME rc
    (cd "$base/w" && timeout -k 10 "$limit" env "$@" bash "$self" --exec "$name" >"$out" 2>"$err")
    rc=$?
    elapsed=$(awk -v a="$start" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.1f", b - a }')
    return $rc
}

run_in_work "$base/plain.out" "$base/plain.err"
plain_rc=$?
plain_time=$elapsed

tracked_env=(LD_PRELOAD="$lib $probe" TARVEX_TARGET_PROC_NAME="$target" SOAK_PROBE_FILE="$base/probe.txt")
[[ $modes == *top* ]] && tracked_env+=(TARVEX_TOP=1 TARVEX_LOG_FILE_NAME="$base/tarvex.log" SOAK_PROBE_TOP=1)
[[ $modes == *nobt* ]] && tracked_env+=(TARVEX_NOBACKTRACE=1)
run_in_work "$base/tracked.out" "$base/tracked.err" "${tracked_env[@]}"
tracked_rc=$?
tracked_time=$elapsed

failures=()
# Every case is written to succeed: a plain run that fails tests nothing.
((plain_rc == 0)) || failures+=("the plain run failed (exit status $plain_rc)")
if ((tracked_rc == 124 || tracked_rc == 137)); then
    failures+=("tracked run hung: killed after ${limit}s")
elif ((tracked_rc != plain_rc)); then
    failures+=("exit status $tracked_rc, plain run $plain_rc")
fi
if grep -q -a -e 'Failed to find block info' -e 'Failed to verify the footer' -e 'Double free' \
    -e 'lib/trvx_' "$base/tracked.out" "$base/tracked.err"; then
    failures+=("tarvex reported a fault")
fi
cmp -s "$base/plain.out" "$base/tracked.out" || failures+=("standard output differs from the plain run")
grep -q "^tracked $target " "$base/probe.txt" 2>/dev/null || failures+=("no $target process was tracked")
if [[ $modes == *top* ]]; then
    # The exit-time report of a tracked process lists call sites that hold
    # live blocks.
    grep -q -e '^----------top by count----------$' "$base/tarvex.log" 2>/dev/null &&
        grep -q -E '^uid: [0-9a-f]{8}, count: [1-9]' "$base/tarvex.log" ||
        failures+=("no top report with live blocks in the log file")
fi

if ((${#failures[@]})); then
    echo "soak $name (target $target, modes $modes): FAILED"
    printf '  %s\n' "${failures[@]}"
    echo "--- plain stdout (rc $plain_rc)"; head -c 2000 "$base/plain.out"
    echo "--- tracked stdout (rc $tracked_rc)"; head -c 4000 "$base/tracked.out"
    echo "--- tracked stderr"; head -c 4000 "$base/tracked.err"
    echo "--- probe"; cat "$base/probe.txt" 2>/dev/null
    if [[ -n ${SOAK_KEEP:-} ]]; then trap - EXIT; echo "kept $base"; fi
    exit 1
fi
echo "soak $name (target $target, modes $modes): ok, $(grep -c '^tracked ' "$base/probe.txt") tracked process(es)," \
    "$(wc -l <"$base/plain.out") lines of output, ${plain_time}s plain, ${tracked_time}s tracked"
