#!/usr/bin/env bash
# Tries every kind of fault there is a script for, one kind after the other, and prints a table of what came of it.
#
#   fault.sh [--quick|--full] [--json FILE] [--work DIR] [KIND...]
#
#   --quick      the selection that goes with every change
#   --full       everything (the default); some hours
#   --json FILE  all results, a line each: kind, id, outcome, and why it failed
#   --work DIR   what the scripts say and find goes there (build/fault)
#   KIND         one of the kinds in the table, or several
#
# The build is build/release; give-ups are also tried in build/asan and build/tsan, where those are.
#
# Exit status 1 when something failed. What this host cannot run is said, and counts for nothing.
set -euo pipefail
cd -- "${BASH_SOURCE[0]%/*}/../.."

build=$PWD/build/release
extent=full json='' work=build/fault

# The kinds, in the order in which they run, and how their scripts are called.
kinds=(power_cut call_fault package_mutation driver_fault soak_giveup soak_mixed)
declare -A takes_build=([call_fault]=1 [package_mutation]=1)

# usage: the comment above.
usage() {
    sed -n '2,/^[^#]/s/^# \?//p' "$0"
}

misuse() {
    printf 'fault.sh: %s\n' "$1" >&2
    exit 2
}

# try KIND: sets its status and seconds.
try() {
    local began=$SECONDS arguments=("--$extent" --json "$work/$1.json")
    [[ -z ${takes_build[$1]-} ]] || arguments+=("$build")
    status[$1]=0
    printf '\n== %s (%s)\n' "$1" "$extent"
    : >"$work/$1.json"
    "tests/fault/$1.sh" "${arguments[@]}" 2>&1 </dev/null | tee "$work/$1.log" || status[$1]=$?
    seconds[$1]=$((SECONDS - began))
}

# counts_of KIND: what its script says in the end: tried, ok, failed.
counts_of() {
    sed -nE "s/^$1: tried ([0-9]+), ok ([0-9]+), failed ([0-9]+)$/\1 \2 \3/p" "$work/$1.log"
}

show_row() {
    local kind=$1 verdict tried ok failures
    case ${status[$kind]} in
    0) verdict=ok ;;
    77) verdict="not run in whole: see $work/$kind.log" ;;
    *) verdict="FAILED: see $work/$kind.log" && failed=true ;;
    esac
    read -r tried ok failures < <(counts_of "$kind") || true
    printf '%-18s %7d %7d %7d %6d s  %s\n' "$kind" "${tried:-0}" "${ok:-0}" "${failures:-0}" "${seconds[$kind]}" "$verdict"
}

while [[ ${1-} == --* ]]; do
    case $1 in
    --quick | --full) extent=${1#--} ;;
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
declare -A status=() seconds=()
for kind in "${kinds[@]}"; do
    try "$kind"
done

failed=false
printf '\n%-18s %7s %7s %7s %8s\n' kind tried ok failed time
for kind in "${kinds[@]}"; do
    show_row "$kind"
done
if [[ -n $json ]]; then
    for kind in "${kinds[@]}"; do
        cat "$work/$kind.json"
    done >"$json"
fi
! "$failed"
