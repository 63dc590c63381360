#!/usr/bin/env bash
# The installed package: install into a fresh prefix, build a program
# against it with pkg-config and with find_package (as a fixed-address
# executable linked with --as-needed, where the weak control references
# bind only if the library stays linked), run it with the installed
# launcher and read its log with the installed report tool; then build the
# Debian package and look inside.
# usage: install_test.sh BUILD_DIR CONSUMER_SOURCE_DIR
build=$(cd "$1" && pwd) consumer=$(cd "$2" && pwd)
source "$(dirname "$0")/test_lib.sh"
unset TARVEX_TOP TARVEX_NOBACKTRACE TARVEX_LOG_FILE_NAME TARVEX_CLEAR_STATS_FILE_NAME LD_PRELOAD
prefix=$scratch/prefix
cd "$scratch" || exit 1

expect_file() {  # name path
    if [[ -e $2 ]]; then pass; else fail "$1: $2 missing"; fi
}

test_installed_files() {
    cmake --install "$build" --prefix "$prefix" >install.txt 2>&1
    expect_eq "cmake --install" 0 $?
    libdir=$(dirname "$(find "$prefix" -name libtarvex.so | head -1)")
    expect_file "library" "$libdir/libtarvex.so"
    expect_file "header" "$prefix/include/tarvex.h"
    expect_file "launcher" "$prefix/bin/tarvex"
    expect_file "report tool" "$prefix/bin/tarvex-report"
    expect_file "pkg-config file" "$libdir/pkgconfig/tarvex.pc"
    expect_file "CMake package" "$libdir/cmake/tarvex/tarvexConfig.cmake"
    expect_eq "installed launcher version" "tarvex 0.1.0" "$("$prefix/bin/tarvex" --version)"
}

# run_consumer NAME PROGRAM: runs it with the installed launcher and checks
# the log and its symbolised form.
run_consumer() {
    local name=$1 program=$2 line
    readelf -d "$program" | grep -q 'NEEDED.*\[libtarvex.so\]'
    expect_eq "$name: links libtarvex.so" 0 $?
    "$prefix/bin/tarvex" --log "$name.log" "$program"
    expect_eq "$name: runs under the launcher" 0 $?
    expect_contains "$name: trace dump" "$name.log" "alloc_uid:"
    expect_contains "$name: top report" "$name.log" "----------top by size----------"
    "$prefix/bin/tarvex" report "$name.log" >"$name.txt"
    expect_eq "$name: report" 0 $?
    line=$(marker_line "$consumer/consumer.c" consumer_malloc)
    expect_contains "$name: symbolised" "$name.txt" "main at $consumer/consumer.c:$line"
}

test_pkg_config() {
    local flags
    flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs tarvex)
    expect_eq "pkg-config" 0 $?
    # shellcheck disable=SC2086
    cc -O0 -g -fno-pie -no-pie -Wl,--as-needed "$consumer/consumer.c" $flags -o consumer_pc
    expect_eq "pkg-config build" 0 $?
    run_consumer pkg-config ./consumer_pc
}

test_find_package() {
    cmake -S "$consumer" -B consumer-build -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_C_FLAGS="-O0 -g -fno-pie" -DCMAKE_EXE_LINKER_FLAGS="-no-pie -Wl,--as-needed" \
        >configure.txt 2>&1
    expect_eq "find_package configure" 0 $?
    cmake --build consumer-build >build.txt 2>&1
    expect_eq "find_package build" 0 $?
    run_consumer find_package consumer-build/consumer_cmake
    # The build tree's program finds the library through its run path.
    consumer-build/consumer_cmake >plain.txt
    expect_eq "runs without the launcher" 0 $?
}

test_debian_package() {
    (cd "$scratch" && cpack -G DEB -B "$scratch/deb" --config "$build/CPackConfig.cmake") \
        >cpack.txt 2>&1
    expect_eq "cpack -G DEB" 0 $?
    local deb
    deb=$(find "$scratch/deb" -maxdepth 1 -name 'tarvex_*.deb' | head -1)
    expect_file "Debian package" "$deb"
    [[ -n $deb ]] || return
    expect_eq "package name" tarvex "$(dpkg-deb -f "$deb" Package)"
    expect_eq "package version" 0.1.0 "$(dpkg-deb -f "$deb" Version)"
    dpkg-deb -c "$deb" | awk '{print $6}' >contents.txt
    for path in ./usr/bin/tarvex ./usr/bin/tarvex-report ./usr/include/tarvex.h; do
        expect_contains "package holds $path" contents.txt "$path"
    done
    expect_contains "package holds the library" contents.txt "/libtarvex.so"
    expect_contains "package holds tarvex.pc" contents.txt "/pkgconfig/tarvex.pc"
    expect_contains "package holds the CMake package" contents.txt "/cmake/tarvex/tarvexConfig.cmake"
}

test_installed_files
test_pkg_config
test_find_package
test_debian_package
finish
