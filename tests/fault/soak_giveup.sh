#!/usr/bin/env bash
# Gives runs up at moments drawn by chance, from the acceptance of a package to the beginning of flashing, a hundred runs
# in each process, on twins with the real libraries. After each run: the result, the answer and the remembered outcome
# agree, nothing was flashed, and no thread, process, descriptor or file is left behind; after each process: no memory.
#
# In full: 2000 runs under the shortened clock, and 2000 each in real time under AddressSanitizer (with
# UndefinedBehaviorSanitizer and LeakSanitizer) and ThreadSanitizer.
#
# --only BUILD:giveup:SEED:INDEX makes the run with that moment ten times.
set -euo pipefail

name=soak_giveup
# shellcheck source=series.sh
source "${BASH_SOURCE[0]%/*}/series.sh"

runs_in_process=100
speed=20

ids_of() {
    soak_ids "$@"
}

# processes BUILD COUNT RUNS JOBS
processes() {
    has_program "$1" soak || return 0
    local i
    for ((i = 0; i < $2; i++)); do
        printf 'giveup:%d %s %d soak giveup --seed %d --runs %d\n' $((seed + i)) "$1" $speed $((seed + i)) "$3"
    done | side_by_side "$4"
}

parse_options "$@"
prepare
seed=$(seed_number "$seed")
if [[ -n $only ]]; then
    IFS=: read -r build series seed index <<<"$only"
    has_program "$build" soak || conclude
    side_by_side 1 <<<"$series:$seed $build $speed soak $series --seed $seed --index $index"
elif [[ $extent == quick ]]; then
    processes release 3 50 "${jobs:-2}"
else
    processes release 20 $runs_in_process "${jobs:-3}"
    processes asan 20 $runs_in_process "${jobs:-16}"
    processes tsan 20 $runs_in_process "${jobs:-16}"
fi
conclude
