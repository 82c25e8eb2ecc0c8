#!/usr/bin/env bash
# Somebody else's program, by pkg-config; also when the installation was moved since.
. "$(dirname "$0")/common.sh"
install_tree "$2" "$work/first"
mv "$work/first" "$work/root"
built_by_pkg_config "$work/root" "$work/consumer"
runs "$work/consumer/consumer" "$work/root"
