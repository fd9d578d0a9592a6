#!/usr/bin/env bash
# Every check that there is, each a step of its own whose result is kept: what has to hold before a release.
# `./dev verify` calls it.
#
#   verify.sh              all steps, anew
#   verify.sh --continue   the steps that have no result at this commit yet, as after an interruption
#   verify.sh STEP...      these steps
#   verify.sh --list       the steps and their commands
#   --tree DIR             of the checkout there, instead of this one
#
# tests/verify/steps is the table of the steps. What a step says goes to build/verify/STEP.log, what came of all of them to
# build/verify.json. A result belongs to the commit at which it was obtained; uncommitted changes are another commit, so
# the whole is only run without them.
#
# Exit status 0 only when each of the steps asked for has run at this commit and passed.
set -euo pipefail

usage() {
    sed -n '2,/^[^#]/s/^# \?//p' "${BASH_SOURCE[0]}"
}

misuse() {
    printf 'verify: %s\n' "$1" >&2
    exit 2
}

parse_options() {
    tree=${BASH_SOURCE[0]%/*}/../.. begin=anew selected=()
    while (($#)); do
        case $1 in
        --continue) begin=continued ;;
        --list) begin=listed ;;
        --tree) tree=${2:?} && shift ;;
        --help) usage && exit ;;
        -*) misuse "unknown option '$1' (see --help)" ;;
        *) selected+=("$1") ;;
        esac
        shift
    done
    cd -- "$tree"
    results=build/verify
}

# --- the table --------------------------------------------------------------------------------------------------------

read_steps() {
    local name when counts command
    steps=()
    declare -gA when_of=() counts_of=() command_of=()
    while read -r name when counts command; do
        [[ -n $name && $name != '#'* ]] || continue
        steps+=("$name")
        when_of[$name]=$when counts_of[$name]=$counts command_of[$name]=$command
    done <tests/verify/steps
}

# choose_steps: sets `chosen`, in the order of the table.
choose_steps() {
    local name
    for name in "${selected[@]}"; do
        [[ -n ${command_of[$name]-} ]] || misuse "there is no step '$name' (see --list)"
    done
    chosen=()
    for name in "${steps[@]}"; do
        if ((!${#selected[@]})) || [[ " ${selected[*]} " == *" $name "* ]]; then
            chosen+=("$name")
        fi
    done
}

list_steps() {
    local name
    for name in "${steps[@]}"; do
        printf '%-16s %s\n' "$name" "${command_of[$name]}"
    done
}

# --- results ----------------------------------------------------------------------------------------------------------

# state_of_sources: the commit, and whether something differs from it.
state_of_sources() {
    local commit changes
    commit=$(git rev-parse HEAD)
    changes=$(git status --porcelain)
    printf '%s%s\n' "$commit" "${changes:+-dirty}"
}

# record STEP COMMIT STATUS TRIED FAILED SKIPPED SECONDS TRIES
record() {
    jq -nc --arg step "$1" --arg commit "$2" --arg status "$3" --argjson tried "$4" --argjson failed "$5" \
        --argjson skipped "$6" --argjson seconds "$7" --argjson tries "$8" \
        '{$step, $commit, $status, $tried, $failed, $skipped, $seconds, $tries}' >"$results/$1.json.new"
    mv -- "$results/$1.json.new" "$results/$1.json"
}

# recorded STEP FIELD
recorded() {
    jq -r ".$2" "$results/$1.json" 2>/dev/null || true
}

# standing STEP: its status, as far as it is about the sources as they are.
standing() {
    if [[ $(recorded "$1" commit) == "$sources" ]]; then
        recorded "$1" status
    else
        printf 'not run\n'
    fi
}

# collect: all results, in the order of the table.
collect() {
    local name files=()
    for name in "${steps[@]}"; do
        [[ ! -f $results/$name.json ]] || files+=("$results/$name.json")
    done
    jq -s . "${files[@]}" </dev/null >build/verify.json
}

# --- counts -----------------------------------------------------------------------------------------------------------

# Each prints how many were tried, failed and skipped, and takes the log and the exit status of the command.

count_once() {
    printf '1 %d 0\n' $(($2 != 0))
}

count_cases() {
    awk '/tests? failed out of [0-9]+$/ { tried += $NF; failed += $(NF - 5) }
        /^The following tests did not run:/ { listing = 1 }
        /^The following tests FAILED:/ { listing = 0 }
        listing && / \(Skipped\)$/ { skipped++ }
        listing && / \(Disabled\)$/ { disabled++ }
        END { print tried - skipped, failed + 0, skipped + disabled }' "$1"
}

count_said() {
    sed -nE -e 's/^[a-z_]+: tried ([0-9]+), .* failed ([0-9]+)(,.*)?$/\1 \2/p' \
        -e 's/^([0-9]+) [a-z]+, ([0-9]+) failed$/\1 \2/p' "$1" |
        awk '{ tried += $1; failed += $2 } END { print tried + 0, failed + 0, 0 }'
}

count_marks() {
    awk '/^ *ok / { tried++ } /^ *FAIL / { tried++; failed++ } END { print tried + 0, failed + 0, 0 }' "$1"
}

# unexpected_skips LOG: the cases of ctest that did not run and should have.
unexpected_skips() {
    local may_skip
    may_skip=$(grep -v -e '^#' -e '^$' tests/verify/may_skip) || true
    sed -nE 's/^\t *[0-9]+ - (.*) \((Skipped|Disabled)\)$/\1/p' "$1" | { grep -vxE -e "${may_skip:-^$}" || true; }
}

# verdict STATUS TRIED FAILED LOG: a command that says it has succeeded must have tried something.
verdict() {
    if (($1 == 77)); then
        printf 'skipped\n'
    elif (($1 || $3 || !$2)); then
        printf 'failed\n'
    elif [[ -n $(unexpected_skips "$4") ]]; then
        printf 'incomplete\n'
    else
        printf 'passed\n'
    fi
}

# --- running ----------------------------------------------------------------------------------------------------------

say() {
    printf '%s  %s\n' "$(date +%T)" "$*"
}

# duration SECONDS
duration() {
    printf '%d:%02d:%02d' $(($1 / 3600)) $(($1 / 60 % 60)) $(($1 % 60))
}

# end_step: what runs in it, and waits until all of that has cleaned up.
end_step() {
    local attempts
    kill -TERM -- "-$group" 2>/dev/null || return 0
    for ((attempts = 0; attempts < 600; attempts++)); do
        kill -0 -- "-$group" 2>/dev/null || return 0
        sleep 0.1
    done
}

# execute STEP: sets `status`. In a process group of its own, so that it can be ended with all that it has started; and
# the interrupt key, which the shell lets a job in the background ignore, is again the business of what it starts.
execute() {
    local priority=0
    [[ ${when_of[$1]} != computes ]] || priority=19
    status=0
    setsid nice -n "$priority" env --default-signal bash -c "${command_of[$1]}" >"$results/$1.log" 2>&1 </dev/null &
    group=$!
    wait "$group" || status=$?
    group=''
}

# run_step STEP: what is recorded while it runs is what stays if it is cut off.
run_step() {
    local name=$1 before began=$SECONDS tries=1 tried failed skipped outcome
    before=$(state_of_sources)
    if [[ $(recorded "$name" commit) == "$before" && $(recorded "$name" status) == failed ]]; then
        tries=$(($(recorded "$name" tries) + 1))
    fi
    record "$name" "$before" interrupted 0 0 0 0 "$tries"
    say "$name begins"
    execute "$name"
    read -r tried failed skipped < <("count_${counts_of[$name]}" "$results/$name.log" "$status")
    outcome=$(verdict "$status" "$tried" "$failed" "$results/$name.log")
    # A command may fail apart from what it has counted.
    [[ $outcome != failed ]] || ((failed)) || failed=1
    [[ $outcome != skipped ]] || { tried=0 failed=0 skipped=1; }
    [[ $(state_of_sources) == "$before" ]] || before+=-changed
    record "$name" "$before" "$outcome" "$tried" "$failed" "$skipped" $((SECONDS - began)) "$tries"
    say "$name: $outcome, tried $tried, failed $failed, skipped $skipped, $(duration $((SECONDS - began)))"
    [[ $outcome == passed ]] || tail -n 15 "$results/$name.log" | sed 's/^/    | /'
}

# run_steps WHEN: of the steps to run those with this word, one after another.
run_steps() {
    local name
    group=''
    trap '[[ -z $group ]] || end_step; exit 143' TERM
    for name in "${to_run[@]}"; do
        # Nobody waits for the rest when the whole was killed.
        kill -0 "$$" 2>/dev/null || exit
        [[ ${when_of[$name]} != "$1" ]] || run_step "$name"
    done
}

interrupt() {
    trap '' INT TERM HUP
    say "interrupted"
    kill -TERM "${lanes[@]}" 2>/dev/null || true
    wait "${lanes[@]}" || true
    show_table || true
    printf '\n./dev verify --continue goes on\n'
    exit 130
}

run_all() {
    lanes=()
    trap interrupt INT TERM HUP
    run_steps waits &
    lanes=("$!")
    run_steps computes &
    lanes+=("$!")
    wait "${lanes[@]}"
    run_steps alone &
    lanes=("$!")
    wait "${lanes[@]}"
    trap - INT TERM HUP
}

# take_lock: what runs in the steps holds it as well, also when this script was killed.
take_lock() {
    mkdir -p build
    exec {lock}>>build/verify.lock
    flock --wait 5 "$lock" || misuse "another verification works on this tree, or what a killed one has left: end it first"
}

# steps_to_run: sets `to_run`; forgets what is to be obtained anew.
steps_to_run() {
    local name
    to_run=("${chosen[@]}")
    if [[ $begin == continued ]]; then
        to_run=()
        for name in "${chosen[@]}"; do
            [[ $(standing "$name") == @(passed|failed|skipped|incomplete) ]] || to_run+=("$name")
        done
    elif ((!${#selected[@]})); then
        rm -rf -- "$results"
    fi
    mkdir -p "$results"
}

# show_table: fails unless each of the chosen steps stands as passed.
show_table() {
    local name outcome result=0
    collect
    printf '\n%-16s %7s %7s %7s %9s  %s\n' step tried failed skipped time result
    for name in "${chosen[@]}"; do
        outcome=$(standing "$name")
        [[ $outcome == passed ]] || result=1
        if [[ $outcome == 'not run' ]]; then
            printf '%-16s %7s %7s %7s %9s  %s\n' "$name" - - - - "$outcome"
            continue
        fi
        [[ $outcome == passed ]] || outcome+=": see $results/$name.log"
        (($(recorded "$name" tries) == 1)) || outcome+=", at try $(recorded "$name" tries)"
        printf '%-16s %7d %7d %7d %9s  %s\n' "$name" "$(recorded "$name" tried)" "$(recorded "$name" failed)" \
            "$(recorded "$name" skipped)" "$(duration "$(recorded "$name" seconds)")" "$outcome"
    done
    printf '\ncommit %s\n' "$sources"
    return "$result"
}

parse_options "$@"
read_steps
if [[ $begin == listed ]]; then
    list_steps
    exit
fi
choose_steps
sources=$(state_of_sources)
[[ $sources != *-dirty ]] || ((${#selected[@]})) ||
    misuse "there are uncommitted changes: commit them, or run single steps (git status shows them)"
take_lock
steps_to_run
run_all
sources=$(state_of_sources)
show_table
