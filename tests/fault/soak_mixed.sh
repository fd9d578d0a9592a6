#!/usr/bin/env bash
# 500 runs in one process on a twin with the real libraries and the shortened clock: installations, fourteen kinds of
# failure, give-ups at moments drawn by chance, activations with a restart, rollbacks with and without flashing. After
# each: its result, the remembered outcome, what the slots hold, and no thread, process, descriptor or file left behind.
# Over all: memory stays flat; a leak of 1 KiB in each run would fail it.
#
# --only BUILD:mixed:SEED:INDEX makes the whole series up to that run, for each depends on those before.
set -euo pipefail

name=soak_mixed
# shellcheck source=series.sh
source "${BASH_SOURCE[0]%/*}/series.sh"

ids_of() {
    soak_ids "$@"
}

# Of fewer runs nothing could be said about memory.
speed=20 fewest=40
parse_options "$@"
runs=500
[[ $extent == full ]] || runs=80
prepare
seed=$(seed_number "$seed")
if [[ -n $only ]]; then
    IFS=: read -r _ _ seed index <<<"$only"
    [[ $index == memory ]] || runs=$((index < fewest ? fewest : index + 1))
fi
has_program release soak || conclude
side_by_side 1 <<<"mixed:$seed release $speed soak mixed --seed $seed --runs $runs"
conclude
