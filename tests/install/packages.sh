#!/usr/bin/env bash
# The Debian packages that a build tree gives.
. "$(dirname "$0")/common.sh"
cpack --config "$2/CPackConfig.cmake" -B "$work/packages" >"$work/cpack.log" 2>&1 ||
    fail "cpack failed:" "$(cat "$work/cpack.log")"
"$tests/check-packages.sh" "$work/packages" "$1" "$2"
