#!/usr/bin/env bash
# Installs the packages of a directory into a scratch root, uses and removes them:
# scratch-root.sh DIRECTORY. Needs root's rights or fakeroot.
. "$(dirname "$0")/common.sh"
directory=$1
root=$work/root
dpkg=(dpkg --root="$root" --log=/dev/null --force-not-root --force-bad-path --force-depends)
[ "$(id -u)" -eq 0 ] || dpkg=(fakeroot "${dpkg[@]}")

mkdir -p "$root"/var/lib/dpkg/{info,parts,triggers,updates}
touch "$root"/var/lib/dpkg/{available,status}
printf 'amd64\ni386\n' >"$root/var/lib/dpkg/arch"
# present: all files and directories but dpkg's own.
present() { find "$root" -mindepth 1 -path "$root/var" -prune -o -print; }
# The packages, a name a line.
installed() {
    "${dpkg[@]}" --get-selections | awk '$2 == "install" { sub(":.*", "", $1); print $1 }'
}

"${dpkg[@]}" --install "$directory"/*.deb >"$work/install.log" 2>&1 ||
    fail "installing failed:" "$(cat "$work/install.log")"
diff <(installed | sort) <(find "$directory" -maxdepth 1 -name '*.deb' -printf '%f\n' | sed 's/_.*//' | sort) ||
    fail "not all are installed"
changed=$("${dpkg[@]}" --verify 2>&1)
[ -z "$changed" ] || fail "files differ from what was packaged:" "$changed"

built_by_pkg_config "$root" "$work/consumer"
runs "$work/consumer/consumer" "$root"

library=$(dirname "$(find "$root" -name libvelahost.so.1)")
if [ -d "$root/usr/bin" ]; then
    for program in "$root"/usr/bin/*; do
        LD_LIBRARY_PATH=$library "$program" --help >"$work/help" && [ -s "$work/help" ] ||
            fail "$(basename "$program") doesn't run"
        page=$root/usr/share/man/man1/$(basename "$program").1.gz
        gzip -dc "$page" | grep -q '^\.TH' || fail "$page is no manual page"
    done
fi

installed | xargs "${dpkg[@]}" --purge >"$work/purge.log" 2>&1 ||
    fail "removing failed:" "$(cat "$work/purge.log")"
[ -z "$(present)" ] || fail "left behind:" "$(present)"
