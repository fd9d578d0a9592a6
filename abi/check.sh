#!/usr/bin/env bash
# Compares the interface of the libraries, symbols and types, with the one recorded here; `./dev abi` calls it.
#
#   check.sh [--update] BUILD_DIR     the libraries there have debug information
#
# Any difference fails, an addition too: with --update it becomes what is recorded. One that abidiff calls incompatible
# needs another SOVERSION as well (cmake/kavro.cmake).
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."

update=false
if [[ $1 == --update ]]; then
    update=true
    shift
fi
build=$1

# Only what the public headers declare counts.
headers=$(mktemp -d)
trap 'rm -rf "$headers"' EXIT
cp -r common "$headers"
for room in agent package upgrade; do
    mkdir "$headers/$room"
    cp "$room"/*.h "$headers/$room"
done
rm "$headers/upgrade/internal.h"

exported() {
    nm --dynamic --defined-only --format=posix "$1" | cut -d ' ' -f 1 | sort -u | c++filt
}

recorded() {
    sed -n "s/^ *<elf-symbol name='\([^']*\)'.*/\1/p" "$1" | sort -u | c++filt
}

status=0
for library in upgrade/libupgrade agent/libkavro_agent package/libkavro_package platform/utility/libcommon_yr platform/node/libvel_node platform/flash/libflash_drivers; do
    name=${library##*/}
    if "$update"; then
        abidw --headers-dir "$headers" --drop-private-types --exported-interfaces-only --no-corpus-path \
            --no-comp-dir-path --no-show-locs --no-elf-needed --type-id-style hash \
            --out-file "abi/$name.abi" "$build/$library.so"
        sed -i "s|path='$PWD/|path='|" "abi/$name.abi"
        ! grep -F -- "$PWD" "abi/$name.abi" || { echo "$name.abi names a place of this machine" >&2 && exit 1; }
    else
        printf '%s\n' "$name"
        # Apart from abidiff, which takes a damaged record for one in order.
        diff --label "recorded $name" --label "built $name" -u0 \
            <(recorded "abi/$name.abi") <(exported "$build/$library.so") || status=1
        abidiff --fail-no-debug-info --headers-dir2 "$headers" --drop-private-types --exported-interfaces-only \
            --no-show-locs "abi/$name.abi" "$build/$library.so" || status=1
    fi
done
((status == 0)) || echo "The interface is another one: take that back, or record it by './dev abi --update'." >&2
exit "$status"
