#!/usr/bin/env bash
# A start of a device, watched: its boot loader, then what is run once after each start.
#
#   start_device.sh DEVICE UPGRADECTL [NAME=VALUE...]
#
# The environment is for all programs on the device, the boot loader's too. A library that it preloads lies on the device:
# the host's programs do not find it, and the loader says so for each of them.
set -euo pipefail

twin=$(cd -- "${BASH_SOURCE[0]%/*}/../.." && pwd)/twin/twin
device=$1 upgradectl=$2
shift 2
options=()
for pair; do
    options+=(--env "$pair")
done
env "$@" "$twin" boot "$device"
"$twin" run "$device" --visible "${upgradectl%/tools/*}" "${options[@]}" -- "$upgradectl" init
