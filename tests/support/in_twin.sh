#!/usr/bin/env bash
# Runs one test case on an emulated device of its own, made for it and removed after it.
#
#   in_twin.sh STATE_ROOT VISIBLE_DIR... [-- BWRAP_OPTION...] --run PROGRAM [ARGUMENT...]
#
# STATE_ROOT is where the devices' state directories are made; each VISIBLE_DIR (the source and build trees) appears
# inside read-only at its own path. Listing the cases needs no device.
set -euo pipefail

# shellcheck source=../../twin/device.sh
source "${BASH_SOURCE[0]%/*}/../../twin/device.sh"

state_root=$1
shift
visible=()
extra=()
while [[ $1 != --run && $1 != -- ]]; do
    visible+=(--ro-bind "$1" "$1")
    shift
done
if [[ $1 == -- ]]; then
    shift
    while [[ $1 != --run ]]; do
        extra+=("$1")
        shift
    done
fi
shift

for argument in "${@:2}"; do
    if [[ $argument == --gtest_list_tests ]]; then
        exec "$@"
    fi
done

mkdir -p "$state_root"
state=$(mktemp -d "$state_root/case.XXXXXXXX")
trap 'twin_remove_state "$state"' EXIT
trap 'exit 143' TERM
trap 'exit 130' INT

twin_make_state "$state" 1 104 7 2
twin_namespace "$state"
# The trees last: they may lie below a directory that an option covers, as /tmp.
bwrap "${TWIN_NAMESPACE[@]}" "${extra[@]}" "${visible[@]}" --chdir / -- "$@"
