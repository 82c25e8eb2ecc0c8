# Shared by the scripts of this directory; sourced, not run.
# shellcheck shell=bash

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

say() { printf '%s\n' "$*"; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; elif command -v sudo >/dev/null; then sudo -n "$@"; else return 1; fi
}

# install_packages PACKAGE...: installs what it can. One package index that can't be fetched (a
# foreign architecture's, say) doesn't stop the rest. Scripts that run side by side take turns: apt
# waits for others that install packages, but can't wait for one that fetches an index.
install_packages() {
    (
        flock 9
        as_root apt-get update -q >/dev/null 2>&1 || true
        as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
            -o DPkg::Lock::Timeout=600 "$@" >/dev/null 2>&1
    ) 9<scripts/common.sh
}

# prepare_command COMMAND PACKAGE...: installs the packages when the command is missing; false when that
# doesn't bring it.
prepare_command() {
    command -v "$1" >/dev/null && return
    say "Installing: ${*:2}"
    install_packages "${@:2}" || true
    command -v "$1" >/dev/null && return
    say "$1 is missing and can't be installed"
    return 1
}

# builds_with COMPILER FLAG...: true when a C++ program can be compiled and linked that way.
builds_with() {
    printf '#include <string>\nint main() { return static_cast<int>(std::string().size()); }\n' |
        "$@" -x c++ - -o /dev/null >/dev/null 2>&1
}

# Installs what building needs and is missing; sets `preset`.
prepare_machine() {
    local missing=()
    command -v cmake >/dev/null || missing+=(cmake)
    command -v ninja >/dev/null || missing+=(ninja-build)
    [ -f /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
    command -v g++ >/dev/null || missing+=(g++)
    if [ "$(dpkg --print-architecture 2>/dev/null)" = amd64 ] && ! builds_with g++ -m32; then
        missing+=(g++-multilib)
    fi
    if [ "${#missing[@]}" -gt 0 ]; then
        say "Installing: ${missing[*]}"
        # One by one: a package that can't be had must not keep the others away.
        local package
        for package in "${missing[@]}"; do
            install_packages "$package" || say "Can't install $package"
        done
    fi
    preset=${VELAHOST_PRESET:-dev}
    case $preset in
        native | tsan) ;; # of the machine's own word size
        *)
            if ! builds_with g++ -m32; then
                say "No 32-bit C++ toolchain here and none can be installed: building natively, $(getconf LONG_BIT) bit."
                preset=native
            fi
            ;;
    esac
}

# Installs what valgrind needs for 32-bit programs; false, with a message, when that can't be had.
prepare_valgrind() {
    prepare_command valgrind valgrind || return 1
    # Without the C library's debug information it doesn't start them.
    dpkg -s libc6-dbg:i386 >/dev/null 2>&1 && return
    say "Installing: libc6-dbg:i386"
    as_root dpkg --add-architecture i386 && install_packages libc6-dbg:i386 && return
    say "libc6-dbg:i386 is missing and can't be installed"
    return 1
}

# The operators' tools are left out where the headers they are made with can't be had.
prepare_tools() {
    [ -e /usr/include/CLI/CLI.hpp ] && [ -e /usr/include/nlohmann/json.hpp ] && return
    say "Installing: libcli11-dev nlohmann-json3-dev"
    install_packages libcli11-dev nlohmann-json3-dev || say "Can't install them: no tools"
}

# build PRESET [TARGET...]: everything unless targets are named.
build() {
    local name=$1
    shift
    cmake --preset "$name" >/dev/null &&
        cmake --build --preset "$name" ${1:+--target "$@"} -- --quiet
}

# list_test_runs PATTERN: PROGRAM FILTER, one a line, for the built test programs that match. All of a
# program's tests in one run, but for those of the programs that need a process each: they look at
# what a process has one of.
list_test_runs() {
    local one_by_one='/(AbiTest|DefaultExceptionLoggerTest|OSTimerQueueTest|OSTimerServiceTest|TimerTest)$'
    local program
    find "build/$preset/tests" -type f -executable -name '*Test' | grep -E "$1" | sort |
        while read -r program; do
            if [[ $program =~ $one_by_one ]]; then
                "$program" --gtest_list_tests | awk -v program="$program" '
                    /^[^ ]/ { suite = $1; next }
                    { print program, suite $1 }'
            else
                echo "$program" '*'
            fi
        done
}
