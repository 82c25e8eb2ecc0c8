#!/usr/bin/env bash
# Somebody else's program, by CMake; also when the installation was moved since. The program's
# project is configured for the machine's own word size and asks for no other.
. "$(dirname "$0")/common.sh"
install_tree "$2" "$work/first"
mv "$work/first" "$work/root"
built_by_cmake "$work/root" "$work/consumer"
runs "$work/consumer/build/consumer" "$work/root"

# Another major version is another interface.
sed 's/find_package(velahost [0-9.]*/find_package(velahost 0.9/' "$tests/consumer/CMakeLists.txt" \
    >"$work/consumer/CMakeLists.txt"
if cmake -S "$work/consumer" -B "$work/other" -DCMAKE_CXX_COMPILER="$CXX" \
    -DCMAKE_PREFIX_PATH="$work/root" >"$work/other.log" 2>&1; then
    fail "version 1 passes for version 0"
fi
grep -qF "version: $PROJECT_VERSION" "$work/other.log" || fail "$(cat "$work/other.log")"
