#!/usr/bin/env bash
# Runs a program where it may mount: nobody else sees what it mounts, and all of it is gone when the program ends.
#
#   in_own_mounts.sh PROGRAM [ARGUMENT...]
#
# Listing the cases needs no such place.
set -euo pipefail

for argument in "${@:2}"; do
    if [[ $argument == --gtest_list_tests ]]; then
        exec "$@"
    fi
done
as_root=()
if ((EUID != 0)); then
    as_root=(--map-root-user)
fi
exec unshare --mount "${as_root[@]}" -- "$@"
