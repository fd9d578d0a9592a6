#!/usr/bin/env bash
# Runs one test case on an emulated device of its own, made for it and removed after it.
#
#   in_twin.sh STATE_ROOT VISIBLE_DIR... [-- BWRAP_OPTION...] [--block] --run PROGRAM [ARGUMENT...]
#
# STATE_ROOT is where the devices' state directories are made; each VISIBLE_DIR (the source and build trees) appears
# inside read-only at its own path. With --block the device has real file systems and block devices; the exit status is
# 77 where this host gives none. Listing the cases needs no device. The microcontroller is the case's own business.
set -euo pipefail

twin_scripts=${BASH_SOURCE[0]%/*}/../../twin
# shellcheck source=../../twin/device.sh
source "$twin_scripts/device.sh"

given=("$@")
state_root=$1
shift
visible=()
extra=()
form=plain
until [[ $1 == -* ]]; do
    visible+=(--ro-bind "$1" "$1")
    shift
done
if [[ $1 == -- ]]; then
    shift
    until [[ $1 == --block || $1 == --run ]]; do
        extra+=("$1")
        shift
    done
fi
if [[ $1 == --block ]]; then
    form=block
    shift
fi
shift

for argument in "${@:2}"; do
    if [[ $argument == --gtest_list_tests ]]; then
        exec "$@"
    fi
done

# Nothing must be left on the host, not even by a case that was killed: both mounts and loop devices are this process's.
if [[ $form == block ]]; then
    why=$(twin_why_no_block_devices)
    if [[ -n $why ]]; then
        printf 'not run: %s\n' "$why"
        exit 77
    fi
    twin_take_own_mounts "$0" "${given[@]}"
fi

# make_new_device DIR: as every case finds it. Several that start at the same time may make it, and one of them has it.
make_new_device() {
    local made
    made=$(mktemp -d "$1.XXXXXXXX")
    twin_make_state "$form" "$made" 1 104 7 2
    [[ $form == plain ]] || twin_detach_disks "$made"
    mv -T -- "$made" "$1" 2>/dev/null || rm -rf -- "$made"
}

# new_device: the path of one that is only copied, which takes a tenth of the time of making it. It is another one when
# the scripts that make it change.
new_device() {
    local scripts device
    scripts=$(cat -- "$twin_scripts"/{device,disks}.sh | cksum)
    device=$state_root/new-$form-${scripts%% *}
    [[ -d $device ]] || make_new_device "$device"
    printf '%s\n' "$device"
}

mkdir -p "$state_root"
state=$(mktemp -d "$state_root/case.XXXXXXXX")
trap 'twin_remove_state "$state"' EXIT
trap 'exit 143' TERM
trap 'exit 130' INT

cp -a -- "$(new_device)/." "$state"
[[ $form == plain ]] || { twin_attach_disks "$state" && twin_hold_partitions "$state"; }
twin_namespace "$state"
# The trees last: they may lie below a directory that an option covers, as /tmp.
bwrap "${TWIN_NAMESPACE[@]}" "${extra[@]}" "${visible[@]}" --chdir / -- "$@"
