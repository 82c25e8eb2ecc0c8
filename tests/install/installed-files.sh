#!/usr/bin/env bash
# What an installation has and doesn't have.
. "$(dirname "$0")/common.sh"
source=$1
build=$2
root=$work/root
install_tree "$build" "$root"

headers=$root/include/velahost
diff <(cd "$source/include" && find VelaHost_* internal -name '*.h' | sort) \
    <(cd "$headers" && find . -type f -printf '%P\n' | sort) ||
    fail "not the headers of the sources"

# The library's own headers are there only because the others include them.
(cd "$headers" && find internal -name '*.h') >"$work/internal"
while IFS= read -r header; do
    grep -rqF "#include <$header>" "$headers" || fail "nothing includes <$header>"
done <"$work/internal"

tells_no_path "$root" "$source" "$build"
is_found_by_the_loader "$root"

# The component for those who only run programs.
runtime=$work/runtime
install_tree "$build" "$runtime" --component runtime
[ "$(cd "$runtime" && find . ! -type d -printf '%f\n' | sort | paste -sd ' ')" = \
    "libvelahost.so.1 libvelahost.so.$PROJECT_VERSION" ] ||
    fail "the runtime component has:" "$(find "$runtime" ! -type d)"
