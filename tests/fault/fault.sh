#!/usr/bin/env bash
# Tries every kind of fault there is a script for, one kind after the other, and prints a table of what came of it.
#
#   fault.sh [--quick|--full] [--seed TEXT] [--json FILE] [--work DIR] [KIND...]
#
#   --quick      the selection that goes with every change: drawn, so that each commit tries another one. Kinds that wait more
#                than they compute go side by side, at the end
#   --full       everything (the default); some hours
#   --seed TEXT  what the selection is drawn from; the commit's id unless given
#   --json FILE  all results, a line each: kind, id, outcome, and why it failed
#   --work DIR   what the scripts say and find goes there (build/fault)
#   KIND         one of the kinds in the table, or several
#
# The build is build/release; give-ups are also tried in build/asan and build/tsan, where those are. `self_test` is no kind
# of fault: it requires of the others that they notice when they fail.
#
# Exit status 1 when something failed, or a kind tried less than it must. What this host cannot run is said, and counts for
# nothing; where CI=true that is a failure, too.
set -euo pipefail
cd -- "${BASH_SOURCE[0]%/*}/../.."
# shellcheck source=results.sh
source tests/fault/results.sh

build=$PWD/build/release
extent=full json='' work=build/fault seed=$(commit_seed)

# The kinds, in the order in which they run, and how their scripts are called.
kinds=(power_cut self_test call_fault two_commands package_mutation driver_fault soak_giveup soak_mixed)
declare -A takes_build=([call_fault]=1 [two_commands]=1 [package_mutation]=1) takes_no_seed=([self_test]=1)
# Not beside the others: each of their devices flushes what the power cuts are to lose, and where others compute their
# microcontrollers wait in vain.
declare -A waits_mostly=([driver_fault]=1 [soak_giveup]=1 [soak_mixed]=1)

# Fewer than these would be another suite than the one that is meant.
# shellcheck disable=SC2034  # used by name
declare -A least_quick=([power_cut]=30 [self_test]=6 [call_fault]=40 [two_commands]=66 [package_mutation]=40 [driver_fault]=15
    [soak_giveup]=153 [soak_mixed]=81)
# shellcheck disable=SC2034  # used by name
declare -A least_full=([power_cut]=2000 [self_test]=6 [call_fault]=5000 [two_commands]=3000 [package_mutation]=800 [driver_fault]=255
    [soak_giveup]=2020 [soak_mixed]=501)

# usage: the comment above.
usage() {
    sed -n '2,/^[^#]/s/^# \?//p' "$0"
}

misuse() {
    printf 'fault.sh: %s\n' "$1" >&2
    exit 2
}

# --- running --------------------------------------------------------------------------------------------------------

# try KIND: its exit status and seconds are in $work/KIND.status then.
try() {
    local began=$SECONDS status=0 arguments=("--$extent" --json "$work/$1.json")
    [[ -n ${takes_no_seed[$1]-} ]] || arguments+=(--seed "$seed")
    [[ -z ${takes_build[$1]-} ]] || arguments+=("$build")
    printf '\n== %s (%s)\n' "$1" "$extent"
    "tests/fault/$1.sh" "${arguments[@]}" 2>&1 </dev/null | tee "$work/$1.log" || status=$?
    printf '%d %d\n' "$status" $((SECONDS - began)) >"$work/$1.status"
}

# try_unseen KIND: what it says is shown when it is over.
try_unseen() {
    local said
    said=$(try "$1")
    printf '%s\n' "$said"
}

try_all() {
    local kind beside=()
    for kind in "${kinds[@]}"; do
        rm -f "$work/$kind".{status,json,log}
    done
    for kind in "${kinds[@]}"; do
        if [[ $extent == quick && -n ${waits_mostly[$kind]-} ]]; then
            beside+=("$kind")
        else
            try "$kind"
        fi
    done
    for kind in "${beside[@]}"; do
        try_unseen "$kind" &
    done
    wait
}

# --- what came of it ------------------------------------------------------------------------------------------------

# complaint_on KIND STATUS: prints why it must not count as passed; nothing when it may. Fails when it was not run in whole.
complaint_on() {
    local -n least=least_$extent
    local tried=${counts[tried]} said
    said=$(sed -nE "s/^$1: tried ([0-9]+), ok [0-9]+, failed ([0-9]+)$/\1 \2/p" "$work/$1.log")
    if [[ $2 == 77 ]]; then
        [[ ${CI-} != true ]] || printf 'not run in whole\n'
        return 1
    elif [[ $2 != 0 ]]; then
        printf 'exit status %s\n' "$2"
    elif [[ $said != "$tried 0" || ${counts[failed]} != 0 ]]; then
        printf 'says "%s" of tried and failed, but there are %d results, %d of them failed\n' "$said" "$tried" \
            "${counts[failed]}"
    elif ((tried < ${least[$1]-1})); then
        printf 'tried %d, which is less than %d\n' "$tried" "${least[$1]-1}"
    fi
}

# count KIND: sets counts, by outcome.
count() {
    local results=$work/$1.json
    [[ -e $results ]] || : >"$results"
    counts=([failed]=$(count_of failed) [known]=$(count_of known))
    counts[second]=$(jq -r 'select(.outcome == "ok at the second try" or (.at_first and .outcome != "failed")) | .id' \
        "$results" | wc -l)
    counts[tried]=$(jq -r 'select(.outcome != "not reached") | .id' "$results" | wc -l)
    counts[ok]=$((counts[tried] - counts[failed] - counts[second] - counts[known]))
}

# show_row KIND: fails when it has failed.
show_row() {
    local status=none seconds=0 complaint verdict=ok
    local -A counts
    [[ ! -s $work/$1.status ]] || read -r status seconds <"$work/$1.status"
    [[ -e $work/$1.log ]] || : >"$work/$1.log"
    count "$1"
    complaint=$(complaint_on "$1" "$status") || verdict="not run in whole: see $work/$1.log"
    [[ -z $complaint ]] || verdict="FAILED, $complaint: see $work/$1.log"
    printf '%-18s %7d %7d %11d %6d %7d %6d s  %s\n' "$1" "${counts[tried]}" "${counts[ok]}" "${counts[second]}" \
        "${counts[known]}" "${counts[failed]}" "$seconds" "$verdict"
    [[ -z $complaint ]]
}

show_table() {
    local kind failed=false
    printf '\n%-18s %7s %7s %11s %6s %7s %8s\n' kind tried ok 'second try' known failed time
    for kind in "${kinds[@]}"; do
        show_row "$kind" || failed=true
    done
    ! "$failed"
}

# --- the command ----------------------------------------------------------------------------------------------------

main() {
    local kind status=0
    while [[ ${1-} == --* ]]; do
        case $1 in
        --quick | --full) extent=${1#--} ;;
        --seed) seed=${2:?} && shift ;;
        --json) json=${2:?} && shift ;;
        --work) work=${2:?} && shift ;;
        --help) usage && exit ;;
        *) misuse "unknown option '$1' (see --help)" ;;
        esac
        shift
    done
    ((!$#)) || kinds=("$@")
    for kind in "${kinds[@]}"; do
        [[ -x tests/fault/$kind.sh ]] || misuse "there is no kind '$kind'"
    done
    mkdir -p "$work"
    printf 'drawn from %s\n' "$seed"
    try_all
    show_table || status=1
    if [[ -n $json ]]; then
        for kind in "${kinds[@]}"; do
            cat "$work/$kind.json"
        done >"$json"
    fi
    return $status
}

[[ ${BASH_SOURCE[0]} != "$0" ]] || main "$@"
