# Shared by the installation tests; sourced, not run. Each takes the directories of the sources and
# of the build tree.
# shellcheck shell=bash
set -eu

tests=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
: "${CXX:=g++}"
# What the library was built for.
: "${WORD_SIZE:=32}"
: "${PROJECT_VERSION:?is not set to the version of what is tested}"

# Goes when the last process that has this test's descriptor ends, however it ends.
work=$(mktemp -d)
exec {guard}> >(exec setsid bash -c 'cat >/dev/null; rm -rf "$1"' - "$work")
export guard
trap 'rm -rf "$work"' EXIT

fail() {
    printf '%s\n' "$@"
    exit 1
}

# install_tree BUILD ROOT [OPTION...]: as a user would. What a debugger needs is left out of a debug
# build, which tells where its sources are.
install_tree() {
    local build=$1 root=$2
    shift 2
    if grep -q '^CMAKE_BUILD_TYPE:[A-Z]*=Debug$' "$build/CMakeCache.txt"; then
        set -- --strip "$@"
    fi
    cmake --install "$build" --prefix "$root" "$@" >"$work/install.log" ||
        fail "cmake --install failed:" "$(cat "$work/install.log")"
}

# copy_consumer ROOT DIRECTORY: the consumer, including every header that ROOT has for it.
copy_consumer() {
    local include
    include=$(find "$1" -type d -path '*/include/velahost')
    cp -r "$tests/consumer" "$2"
    (cd "$include" && find VelaHost_* -name '*.h' -printf '#include <%p>\n' | LC_ALL=C sort) \
        >"$2/headers.h"
}

# built_by_pkg_config ROOT DIRECTORY: $DIRECTORY/consumer, from the velahost.pc somewhere in ROOT.
built_by_pkg_config() {
    local PKG_CONFIG_PATH compile link
    PKG_CONFIG_PATH=$(dirname "$(find "$1" -name velahost.pc)")
    export PKG_CONFIG_PATH
    compile=$(pkg-config --cflags "velahost >= 1.0")
    link=$(pkg-config --libs velahost)
    copy_consumer "$1" "$2"
    # shellcheck disable=SC2086 # options are words
    "$CXX" -std=c++17 -Wall -Wextra -Wpedantic -Werror $compile -c "$2/main.cpp" -o "$2/main.o"
    # shellcheck disable=SC2086
    "$CXX" "$2/main.o" -o "$2/consumer" $link
}

# built_by_cmake ROOT DIRECTORY [OPTION...]: $DIRECTORY/build/consumer, from the package in ROOT.
built_by_cmake() {
    local root=$1 directory=$2
    shift 2
    copy_consumer "$root" "$directory"
    cmake -S "$directory" -B "$directory/build" -DCMAKE_CXX_COMPILER="$CXX" \
        -DCMAKE_PREFIX_PATH="$root" "$@" >"$work/cmake.log" 2>&1 &&
        cmake --build "$directory/build" >>"$work/cmake.log" 2>&1 ||
        fail "the consumer can't be built:" "$(cat "$work/cmake.log")"
}

# runs PROGRAM ROOT: it does, with the library in ROOT.
runs() {
    local library said
    library=$(find "$2" -name libvelahost.so.1)
    said=$(LD_LIBRARY_PATH=$(dirname "$library") "$1") || fail "$1 failed: $said"
    [ "$(tail -n 1 <<<"$said")" = "$WORD_SIZE bit, KXcid 1000.0.0.22 VelaHost Library" ] ||
        fail "$1 says: $said"
}

# tells_no_path ROOT PATH...: no file in ROOT has one of the paths in it.
tells_no_path() {
    local root=$1 path found
    shift
    for path; do
        if found=$(grep -rlF -- "$path" "$root"); then
            fail "These name $path:" "$found"
        fi
    done
}

# elf_files ROOT: programs and libraries.
elf_files() {
    find "$1" -type f -exec sh -c 'head -c 4 "$1" | grep -q "^.ELF"' - {} \; -print
}

# is_found_by_the_loader ROOT: no file brings search paths along, and the library has its SONAME.
is_found_by_the_loader() {
    local file
    elf_files "$1" >"$work/elf-files"
    while IFS= read -r file; do
        if readelf -dW "$file" | grep -E 'RPATH|RUNPATH'; then fail "in $file"; fi
    done <"$work/elf-files"
    readelf -dW "$(find "$1" -type f -name 'libvelahost.so.*[0-9]')" | grep -qF 'soname: [libvelahost.so.1]' ||
        fail "the library has another SONAME"
}
