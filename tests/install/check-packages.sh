#!/usr/bin/env bash
# Looks into the Debian packages of a directory and builds and runs somebody else's program with what
# is in them: check-packages.sh DIRECTORY [PATH...], the paths being those that no file may name.
. "$(dirname "$0")/common.sh"
directory=$1
shift
root=$work/root

# package NAME: its file.
package() { find "$directory" -maxdepth 1 -name "$1_*.deb"; }
# field PACKAGE FIELD
field() { dpkg-deb -f "$(package "$1")" "$2"; }
# has_field PACKAGE FIELD VALUE
has_field() { [ "$(field "$1" "$2")" = "$3" ] || fail "$1: $2 is $(field "$1" "$2"), not $3"; }
# is_of_its_release PACKAGE: all that is in it has the time of its changelog's first entry.
is_of_its_release() {
    local released times
    released=$(gzip -dc "$root/usr/share/doc/$1/changelog.Debian.gz" | sed -n 's/^ -- .*>  //p' | head -n 1)
    times=$(dpkg-deb --fsys-tarfile "$(package "$1")" | tar -tv --utc --full-time | awk '{ print $4, $5 }' | sort -u)
    [ -n "$released" ] && [ "$times" = "$(date -u -d "$released" '+%F %T')" ] ||
        fail "$1: the changelog says $released, the files are of:" "$times"
}

for name in libvelahost1 libvelahost-dev libvelahost-doc libvelahost-tools; do
    if [ -z "$(package $name)" ]; then
        [ $name = libvelahost-tools ] || fail "no package $name"
        continue
    fi
    dpkg-deb -x "$(package $name)" "$root"
    for file in copyright changelog.gz changelog.Debian.gz; do
        [ -s "$root/usr/share/doc/$name/$file" ] || fail "$name has no $file"
    done
    [ -z "${SOURCE_DATE_EPOCH:-}" ] || is_of_its_release $name
    case $name in
        libvelahost-doc) has_field $name Architecture all ;;
        *) has_field $name Architecture i386 ;;
    esac
    case $name in
        libvelahost1 | libvelahost-dev) has_field $name Multi-Arch same ;;
        *) has_field $name Multi-Arch foreign ;;
    esac
done
has_field libvelahost-dev Depends "libvelahost1 (= $(field libvelahost1 Version))"

# The symbols that other packages' dependencies are made from are the library's.
library=$(find "$root" -type f -name 'libvelahost.so.*[0-9]')
dpkg-deb --ctrl-tarfile "$(package libvelahost1)" | tar -xC "$work" ./symbols ./shlibs ./triggers
diff <(grep '^ ' "$work/symbols") \
    <(nm -D --defined-only --format=just-symbols "$library" | LC_ALL=C sort |
        sed "s/.*/ &@Base $PROJECT_VERSION/") ||
    fail "the symbols file is another library's"
diff "$work/shlibs" <(echo "libvelahost 1 libvelahost1 (>= $PROJECT_VERSION)")
grep -q '^activate-noawait ldconfig$' "$work/triggers" || fail "the loader's cache isn't renewed"

# asks_for PACKAGE VERSION: libvelahost1 depends on that version of it or a later one.
asks_for() {
    local stated
    stated=$(field libvelahost1 Depends | tr -d '(),' | xargs -n 3 | awk -v name="$1" '$1 == name { print $3 }')
    [ -n "$stated" ] && dpkg --compare-versions "$stated" ge "$2"
}
# newest PREFIX: the newest of the symbol versions that the files ask for.
newest() {
    elf_files "$root" | xargs -d '\n' objdump -p | grep -oP "\b$1_\K[0-9.]+" | sort -uV | tail -n 1
}
asks_for libc6 "$(newest GLIBC)" || fail "needs libc6 $(newest GLIBC)"
# The C++ library's symbol versions count on their own: version 12 goes up to this one.
dpkg --compare-versions "$(newest GLIBCXX)" le 3.4.30 && asks_for libstdc++6 12 ||
    fail "needs GLIBCXX_$(newest GLIBCXX)"

[ $# -eq 0 ] || tells_no_path "$root" "$@"
is_found_by_the_loader "$root"
if elf_files "$root" | xargs -d '\n' readelf -SW | grep -F .debug_; then
    fail "debug information is still there"
fi
if find "$root/usr/share/man" -type f ! -name '*.gz' 2>/dev/null | grep .; then
    fail "manual pages that aren't compressed"
fi

built_by_pkg_config "$root" "$work/by-pkg-config"
runs "$work/by-pkg-config/consumer" "$root"
# A 32-bit project finds the package where Debian keeps such a library's.
built_by_cmake "$root/usr" "$work/by-cmake" -DCMAKE_CXX_FLAGS=-m32
runs "$work/by-cmake/build/consumer" "$root"
