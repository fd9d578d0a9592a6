#!/usr/bin/env bash
# Gives a device two commands at once: a second process comes at a moment of the first one's life, in all pairs of the commands
# that change a device, and with those that only ask it. Twins of the plain form.
#
#   two_commands.sh [OPTION...] BUILD_DIR
#
#   --quick       each pair of commands once (the default): what the first one finds, the moment, and what becomes of it
#                 then are drawn
#   --full        each pair, beginning with each device, at many moments in each way
#   --list        the pairs, and nothing is tried
#   --only ID     this one only, as a failure names it
#   --pairs PATTERN  only those whose id has this in it (an extended regular expression)
#   --seed TEXT   from what it is drawn: the commit's id unless given
#   --jobs N      how many devices side by side (3)
#   --json FILE   a line for each: kind, id, outcome
#   --work DIR    where the devices are (DIR is emptied; else a directory in memory)
#   --keep        leaves them there
#   --failing POINT  of both commands: a call that fails, each time. POINT is PROGRAM|CALL|PATH|EFFECT
#   --self-test   devices without a lock must be found, and what goes wrong in the suite itself
#
# An id is SCENARIO+SECOND@MOMENT/HOW. MOMENT is in thousandths of the calls that the first one makes when it is alone. HOW:
#
#   beside    the second one comes, and does not wait
#   waits     it waits for its turn
#   killed    the first one is killed at that moment, and then the second one comes
#   stopped   the first one stands still while the second one asks: only for those that ask. Not while it reads or saves the boot
#             environment: for that each process waits for the other
#   alone     there is no second one: SCENARIO/alone
#
# What must hold:
#
#   - no crash, no hang, no process left behind; nobody is busy with a device that nobody has
#   - both end as one of these tells, and the device and its history are as that leaves them: one is busy and has done
#     nothing, or one came after the other
#   - what a command said that was done is true of the device
#   - who only asks neither waits nor fails, and tells of the process that has the device
#   - of each device that came of it, once: all that check_device.sh asks for without an installation
#
# What fails is tried once more in real time, but for a crash. Exit status 1 when something failed, 77 when the host cannot
# run it.
set -euo pipefail

root=$(cd -- "${BASH_SOURCE[0]%/*}/../.." && pwd)
here=$root/tests/fault
twin=$root/twin/twin
# shellcheck source=../../twin/device.sh
source "$root/twin/device.sh"
# shellcheck source=releases.sh
source "$here/releases.sh"
# shellcheck source=plain_devices.sh
source "$here/plain_devices.sh"
# shellcheck source=results.sh
source "$here/results.sh"

name=two_commands
judge_program=$here/check_device.sh
seed=$(commit_seed)
mode=quick only='' pairs='' failing='' jobs=3 json='' work='' keep=false list=false self_test=false
while [[ ${1-} == --* ]]; do
    case $1 in
    --quick | --full) mode=${1#--} ;;
    --list) list=true ;;
    --keep) keep=true ;;
    --only) only=$2 && shift ;;
    --pairs) pairs=$2 && shift ;;
    --seed) seed=$2 && shift ;;
    --jobs) jobs=$2 && shift ;;
    --json) json=$(realpath -m -- "$2") && shift ;;
    --work) work=$(realpath -m -- "$2") && shift ;;
    --failing) failing=$2 && shift ;;
    --self-test) self_test=true ;;
    *) printf '%s: unknown option %s\n' "$0" "$1" >&2 && exit 2 ;;
    esac
    shift
done
build=$(realpath -- "${1:-$root/build/release}")
export KAVRO_TWIN_PROGRAMS=$build/twin
upgradectl=$build/tools/upgradectl/upgradectl
programs=$build/tests/fault
speed=8

not_run() {
    printf 'two_commands: not run: %s\n' "$1"
    exit 77
}

die() {
    printf 'two_commands: %s\n' "$1" >&2
    exit 2
}

bwrap --ro-bind / / --unshare-pid --proc /proc --dev /dev -- true 2>/dev/null || not_run "bwrap cannot make name spaces here"
for program in "$upgradectl" "$programs"/libkavro_{short_clock,fault_interpose}.so "$build/twin/mcu-emulator"; do
    [[ -e $program ]] || not_run "$program is missing: ./dev build makes it"
done

make_work() {
    [[ -n $work ]] || work=$(directory_for_devices)
    rm -rf -- "${work:?}"/*
    bases=$work/bases releases=$work/releases
    mkdir -p "$bases" "$releases" "$work"/{alone,tried,after,states}
    begin_results "$work"
    "$keep" || trap 'rm -rf -- "$work"' EXIT
    trap 'exit 143' TERM
    trap 'exit 130' INT
}

# --- the commands ---------------------------------------------------------------------------------------------------

grown() {
    copy_device "$bases/$1" "$bases/$2"
}

make_devices() {
    make_factory --plain
    grown factory fresh
    on_device "$bases/factory" init
    make_all_upgraded
    make_torn
}

# What the first command may find: the devices that each may begin with.
declare -A firsts=([install]='install install-third install-fallen' [activate]='activate activate-fallen'
    [confirm]='confirm confirm-fallen' [rollback]='rollback-flash rollback-switch rollback-equal rollback-fallen'
    [init]='init init-trial init-torn init-fallen' [discard]='discard discard-equal discard-fallen')
changing=(install activate confirm rollback init discard)
asking=(status check history versions)
# The way on from a device that has fallen back.
fallen=(install-fallen activate-fallen confirm-fallen rollback-fallen init-fallen discard-fallen)

begins_with+=([install-fallen]=fallen_second [activate-fallen]=fallen_second [confirm-fallen]=fallen_second
    [rollback-fallen]=fallen_second [discard-fallen]=fallen_second)
does+=([install-fallen]='install RELEASES/third.pkg' [activate-fallen]=activate [confirm-fallen]=confirm
    [rollback-fallen]=rollback [discard-fallen]=discard)
brings+=([install-fallen]=third [activate-fallen]=second [confirm-fallen]=second [rollback-fallen]=first
    [discard-fallen]=second)
# How each ends that finds the device in order; 0 unless it is here.
declare -A ends_with=([activate-fallen]=1 [discard-fallen]=1 [rollback-fallen]=3)

# second_words COMMAND HOW: sets `words`, its arguments.
second_words() {
    case $1 in
    install | check) words=("$1" "$releases/third.pkg") ;;
    *) words=("$1") ;;
    esac
    [[ $1 == install || ${asking[*]} != *"$1"* ]] || words+=(--json)
    [[ $2 != waits ]] || words+=(--wait 3600)
}

# --- ids ------------------------------------------------------------------------------------------------------------

# take_apart ID: sets scenario, second, moment and how.
take_apart() {
    [[ $1 =~ ^([a-z-]+)(\+([a-z]+)@([0-9]+))?/([a-z]+)$ && -n ${does[${BASH_REMATCH[1]}]-} ]] || die "no pair '$1'"
    scenario=${BASH_REMATCH[1]} second=${BASH_REMATCH[3]} moment=${BASH_REMATCH[4]:-0} how=${BASH_REMATCH[5]}
}

# one_of SEED WORD...: drawn.
one_of() {
    printf '%s\n' "${@:2}" | in_drawn_order "$1" | sed -n 1p
}

# drawn_moment SEED
drawn_moment() {
    printf '%d\n' $((0x$(printf '%s' "$1" | sha256sum | cut -c 1-6) % 1000))
}

# drawn_pair FIRST SECOND HOW...: one of the devices, moments and ways.
drawn_pair() {
    local scenarios from=$seed/$1+$2
    read -ra scenarios <<<"${firsts[$1]}"
    printf '%s+%s@%d/%s\n' "$(one_of "$from/scenario" "${scenarios[@]}")" "$2" "$(drawn_moment "$from")" \
        "$(one_of "$from/how" "${@:3}")"
}

quick_pairs() {
    local first second
    for first in "${changing[@]}"; do
        for second in "${changing[@]}"; do
            drawn_pair "$first" "$second" beside waits killed
        done
        for second in "${asking[@]}"; do
            drawn_pair "$first" "$second" stopped
        done
    done
    printf '%s/alone\n' "${fallen[@]}"
}

full_pairs() {
    local first scenario second moment how
    for first in "${changing[@]}"; do
        for scenario in ${firsts[$first]}; do
            printf '%s/alone\n' "$scenario"
            for ((moment = 0; moment < 1000; moment += 125)); do
                for second in "${changing[@]}"; do
                    for how in beside waits killed; do
                        printf '%s+%s@%d/%s\n' "$scenario" "$second" $((moment + $(drawn_moment "$seed/$scenario/$second/$how") % 125)) $how
                    done
                done
                for second in "${asking[@]}"; do
                    printf '%s+%s@%d/stopped\n' "$scenario" "$second" $((moment + $(drawn_moment "$seed/$scenario/$second") % 125))
                done
            done
        done
    done
}

selected_pairs() {
    if [[ -n $only ]]; then
        printf '%s\n' "$only"
    else
        "${mode}_pairs" | { grep -E -- "$pairs" || true; }
    fi
}

# --- runs -----------------------------------------------------------------------------------------------------------

# failing_point: as the library that lets it fail knows it, the first such call and all later ones.
failing_point() {
    local program call path effect
    IFS='|' read -r program call path effect <<<"$failing"
    printf '%s\t%s\t%s\t1+\t%s' "$program" "$call" "$path" "$effect"
}

# run_pair DEVICE HOW CALLS FIRST... -- SECOND...: what came of it is in DEVICE/run/pair.
run_pair() {
    local settings=() status=0
    head -c 131072 /dev/zero >"$1/mcu/points"
    rm -rf -- "$1/run/pair"
    mkdir "$1/run/pair"
    [[ -z $failing ]] || settings=(--env "KAVRO_FAULT_FAIL=$(failing_point)")
    # shellcheck disable=SC2016  # for the shell on the device
    timeout --kill-after=20 400 "$twin" run "$1" --visible "$build" --visible "$releases" --env "KAVRO_CLOCK_SPEED=$speed" \
        --env KAVRO_FAULT_POINTS=/dev/kavro-mcu/points "${settings[@]}" \
        --env "PRELOADED=$programs/libkavro_short_clock.so:$programs/libkavro_fault_interpose.so" -- \
        "$here/two_commands_inside.sh" /run/kavro/pair "$2" "$3" "$upgradectl" "${@:4}" >"$1/run/pair/errors" 2>&1 || status=$?
    printf '%d\n' "$status" >"$1/run/pair/status"
    rm -f "$1/mcu/points"
}

# found DEVICE WHAT: what the run has left of it, or nothing.
found() {
    [[ ! -s $1/run/pair/$2 ]] || printf '%s' "$(<"$1/run/pair/$2")"
}

# write_facts DEVICE: to DEVICE.facts, with what its history tells and how the commands ended.
write_facts() {
    {
        facts_of "$1"
        [[ ! -e $1/config/upgrade_history.jsonl ]] ||
            jq -cR 'fromjson? | [.event, .outcome, .release]' "$1/config/upgrade_history.jsonl" | sed 's/^/history /'
    } >"$1.facts"
}

# run_one DEVICE ARGUMENT...: of upgradectl, by itself. On a busy machine an answer may come too late for the short clock, and
# what it does is what others are measured by: what fails otherwise than by a refusal is done once more in real time.
run_one() {
    local device=$1
    copy_device "$device" "$device.before"
    run_pair "$device" alone 0 "${@:2}"
    if [[ $(found "$device" first) != [013] ]]; then
        copy_device "$device.before" "$device"
        speed=1 run_pair "$device" alone 0 "${@:2}"
    fi
    rm -rf -- "$device.before"
    write_facts "$device"
}

# run_alone SCENARIO: the first command, in alone/SCENARIO. How many calls it makes is in alone/SCENARIO.calls.
run_alone() {
    local device=$work/alone/$1 words
    copy_device "$bases/${begins_with[$1]}" "$device"
    words_of "$1"
    run_one "$device" "${words[@]}"
    wc -l <"$device/run/pair/calls" >"$device.calls"
}

# reached NAME FROM ARGUMENT...: the device in after/NAME is what this one, FROM, is after the command; made once, for all who ask.
reached() {
    local device=$work/after/$1 lock speed=8
    exec {lock}>"$device.lock"
    flock "$lock"
    if [[ ! -e $device.facts ]]; then
        copy_device "$2" "$device"
        run_one "$device" "${@:3}" {lock}>&-
    fi
    exec {lock}>&-
}

# try_pair NUMBER ID: leaves the verdict in tried/NUMBER: the state, the outcome and why it failed, tabs in between.
try_pair() {
    local device=$work/tried/$1.device outcome=ok why again
    why=$(run_and_look "$device" "$2")
    if [[ -n $why && $why != *crash* ]]; then
        again=$(speed=1 && run_and_look "$device" "$2")
        if [[ -z $again ]]; then
            outcome='ok at the second try'
        else
            outcome=failed why=$again
        fi
    elif [[ -n $why ]]; then
        outcome=failed
    fi
    note_meeting "$device" "$2"
    printf '%s\t%s\t%s\n' "$(keep_state "$device" "$2")" "$outcome" "${why//$'\n'/; }" >"$work/tried/$1.verdict"
    mv "$work/tried/$1.verdict" "$work/tried/$1"
}

# run_and_look DEVICE ID: prints what does not hold.
run_and_look() {
    local scenario second moment how words first
    take_apart "$2"
    copy_device "$bases/${begins_with[$scenario]}" "$1"
    words_of "$scenario"
    first=("${words[@]}")
    if [[ $how == alone ]]; then
        run_pair "$1" alone 0 "${first[@]}"
    else
        second_words "$second" "$how"
        run_pair "$1" "$how" $(($(<"$work/alone/$scenario.calls") * moment / 1000 + 1)) "${first[@]}" -- "${words[@]}"
    fi
    write_facts "$1"
    look "$1"
}

# note_meeting DEVICE ID: whether the second command met the first one, and whether that had the device.
note_meeting() {
    [[ $2 != */alone ]] || return 0
    if [[ -e $1/run/pair/held ]]; then
        append "$work/meetings" held
    elif [[ -e $1/run/pair/alive ]]; then
        append "$work/meetings" alive
    else
        append "$work/meetings" late
    fi
}

# --- what is wrong --------------------------------------------------------------------------------------------------

# look DEVICE: prints what does not hold of the run that was made on it; the words of run_and_look are known.
look() {
    local ended_first ended_second status left
    ended_first=$(found "$1" first) ended_second=$(found "$1" second) status=$(found "$1" status) left=$(found "$1" left)
    if [[ $status != 0 ]]; then
        printf 'the commands did not end (%s): %s\n' "$status" "$(tail -n 3 "$1/run/pair/errors" | tr '\n' '|')"
    elif is_crash "$ended_first" && [[ $how != killed ]] || is_crash "${ended_second:-0}" ||
        grep -qE 'Sanitizer|runtime error: ' "$1"/run/pair/*.said "$1"/run/pair/*.errors 2>/dev/null; then
        printf 'a crash or a hang: %s ended with %s, %s with %s: %s\n' "$scenario" "$ended_first" "$second" "$ended_second" \
            "$(words_said "$1")"
    elif [[ $left != 0 ]]; then
        printf '%s processes left behind\n' "$left"
    elif [[ $how == stopped ]]; then
        look_at_question "$1"
    elif [[ $how == alone ]]; then
        look_at_one "$1"
    elif [[ $how == killed && $ended_first == 137 ]]; then
        look_at_survivor "$1"
    else
        look_at_both "$1"
    fi
}

is_crash() {
    ((${1:-255} >= 124))
}

words_said() {
    tail -q -n 2 "$1"/run/pair/*.said "$1"/run/pair/*.errors 2>/dev/null | tr '\n' '|'
}

# A command that is alone ends as it must, and has told the truth.
look_at_one() {
    [[ $ended_first == "${ends_with[$scenario]-0}" ]] || printf 'it ended with %s: %s\n' "$ended_first" "$(words_said "$1")"
    [[ $ended_first != 0 ]] || untrue "${words[0]}" "${words[1]-}" "$1.facts"
}

# The second one finds what the first one has left; nobody is busy with it any more.
look_at_survivor() {
    case $ended_second in
    0) untrue "${words[0]}" "${words[1]-}" "$1.facts" ;;
    1 | 3) [[ -s $1/run/pair/second.errors ]] || printf '%s fails without a word\n' "$second" ;;
    *) printf 'after %s was killed, %s ends with %s: %s\n' "$scenario" "$second" "$ended_second" "$(words_said "$1")" ;;
    esac
}

# as_one_after_the_other DEVICE REFERENCE FIRST SECOND: both ended like that, and the device is like this one.
as_one_after_the_other() {
    [[ $ended_first == "$3" && $ended_second == "$4" ]] && cmp -s "$1.facts" "$2.facts"
}

# look_at_both DEVICE: one of them was busy, or one came after the other.
look_at_both() {
    local after=$work/after alone=$work/alone/$scenario base=${begins_with[$scenario]} plain expected
    if [[ $ended_second == 6 && $how != waits ]]; then
        as_one_after_the_other "$1" "$alone" "$(found "$alone" first)" 6 || unlike "$1" "$alone" "$second was busy"
        return
    fi
    local waiting=("${words[@]}")
    second_words "$second" beside
    plain=("${words[@]}") words=("${waiting[@]}")
    expected=$scenario+$second
    reached "$expected" "$alone" "${plain[@]}"
    ! as_one_after_the_other "$1" "$after/$expected" "$(found "$alone" first)" "$(found "$after/$expected" first)" || return 0
    reached "$base.$second" "$bases/$base" "${plain[@]}"
    ! as_one_after_the_other "$1" "$after/$base.$second" 6 "$(found "$after/$base.$second" first)" || return 0
    reached "$base.$second+$scenario" "$after/$base.$second" "${first[@]}"
    ! as_one_after_the_other "$1" "$after/$base.$second+$scenario" "$(found "$after/$base.$second+$scenario" first)" \
        "$(found "$after/$base.$second" first)" || return 0
    unlike "$1" "$after/$expected" "$scenario ended with $ended_first, $second with $ended_second, as neither before nor after the other"
}

# unlike DEVICE REFERENCE WHAT
unlike() {
    printf '%s, and the device is not as that leaves it: %s %s\n' "$3" \
        "$(diff "$2.facts" "$1.facts" | grep '^[<>]' | head -n 8 | tr '\n' ';')" "$(words_said "$1")"
}

# look_at_question DEVICE: who asks gets an answer while the other one stands still, and does it no harm.
look_at_question() {
    local said=$1/run/pair/second.said alone=$work/alone/$scenario held=false
    [[ ! -e $1/run/pair/held ]] || held=true
    case $second in
    status) answers_status "$said" "$(found "$1" pid)" ;;
    check) answers_check "$said" ;;
    history) answers 0 'select(type == "object" and has("event")) | 1' ;;
    versions) answers 0 'select(has("packages") and .factory_version != null) | 1' ;;
    esac
    as_one_after_the_other "$1" "$alone" "$(found "$alone" first)" "$ended_second" ||
        unlike "$1" "$alone" "$scenario was asked by $second and ended with $ended_first"
}

# answers STATUS FILTER: it ends so, and each object that it prints passes.
answers() {
    local objects passed
    objects=$(jq -c . "$said" 2>/dev/null | wc -l) passed=$(jq -c "$2" "$said" 2>/dev/null | wc -l)
    [[ $ended_second == "$1" && $objects == "$passed" ]] ||
        printf '%s ends with %s: %s\n' "$second" "$ended_second" "$(words_said "$device")"
}

# answers_status SAID PID
answers_status() {
    if "$held"; then
        answers 0 "select(.state == \"running\" and .run.pid == $2 and .needs == []) | 1"
    else
        [[ $ended_second == 1 ]] || ended_second=${ended_second/#0/1}
        answers 1 'select(.run == null and .factory_version != null) | 1'
    fi
}

answers_check() {
    if "$held"; then
        [[ $ended_second == 6 ]] || ended_second=${ended_second/#3/6}
        answers 6 'select([.obstacles[].name] | index("busy")) | 1'
    else
        [[ $ended_second == 0 ]] || ended_second=${ended_second/#3/0}
        answers 0 'select([.obstacles[].name] | index("busy") | not) | 1'
    fi
}

# fact FACTS WHAT: its value.
fact() {
    sed -n "s|^$2: *||p" "$1" | sed 's/ *$//'
}

# slot_holds FACTS SLOT: prints the release that the slot holds, wholly.
slot_holds() {
    local held
    held=$(sed -n "s/^slot $2: [a-z]* //p" "$1" | sort -u)
    [[ $held == *$'\n'* ]] || printf '%s' "$held"
}

# untrue COMMAND PACKAGE FACTS: what the command says when it ends well, and is not so.
untrue() {
    local running starts current awaits=false written
    running=$(sed -n 's/^running slot //p' "$3") starts=$(sed -n 's/^environment boot_slot=//p' "$3")
    written=$(tr ab ba <<<"$running") current=$(fact "$3" /firmware/current.pkg)
    ! grep -q '^/config/upgraded:' "$3" || awaits=true
    case $1 in
    install)
        local release=${2##*/}
        [[ $(fact "$3" /firmware/rollback.pkg) == "${release%.pkg}" && $(slot_holds "$3" "$written") == "${release%.pkg}" ]] &&
            "$awaits" || printf 'installed %s, but it does not await its activation\n' "$2"
        ;;
    activate | rollback)
        [[ $current == "$(slot_holds "$3" "$starts")" ]] && ! "$awaits" ||
            printf '%s is done, but current.pkg is %s, and slot %s starts, which holds %s\n' "$1" "$current" "$starts" \
                "$(slot_holds "$3" "$starts")"
        ;;
    discard)
        ! "$awaits" && [[ -z $(fact "$3" /config/written_slot.json) && $(slot_holds "$3" "$starts") == "$current" ]] ||
            printf 'discarded, but something awaits its activation still, or current.pkg is %s\n' "$current"
        ;;
    confirm)
        [[ $starts != "$running" ]] || grep -qx 'environment upgrade_available=0' "$3" || printf 'confirmed, but on trial\n'
        ;;
    init)
        ! grep -q '^/firmware/temp:' "$3" && [[ -n $(fact "$3" /config/upgrade_config.json) ]] ||
            printf 'init is done, but a package is aside, or there is no record of the versions\n'
        ;;
    esac
}

# --- the devices that came of it ------------------------------------------------------------------------------------

# keep_state DEVICE ID: of those that are alike, and of which the judge is told the same, the first one stays, as the state
# whose name is printed.
keep_state() {
    local state
    judge_options_of "$1" "$2" >"$1.options"
    state=$(cat "$1.options" "$1.facts" | grep -v '^history ' | sha256sum | cut -c 1-16)
    if mkdir "$work/states/$state" 2>/dev/null; then
        mv "$1" "$work/states/$state/device"
        mv "$1.options" "$work/states/$state/options"
    else
        rm -rf -- "$1"
    fi
    printf '%s\n' "$state"
}

# judge_options_of DEVICE ID: what the judge is told, a word a line.
judge_options_of() {
    local scenario second moment how ended
    take_apart "$2"
    printf '%s\n' --keeps-package
    [[ $mode == full ]] || printf '%s\n' --quick
    ended=$(found "$1" second)
    if [[ $second == install && $ended == 0 ]]; then
        printf '%s\n' --run "$releases/third"
    elif [[ $second != rollback || $ended != 0 ]]; then
        printf '%s\n' --run "$releases/${brings[$scenario]}"
    fi
    # What was activated and never started may be what is written over.
    case $scenario in
    activate | rollback-flash | rollback-switch | rollback-equal) printf '%s\n' --over "$releases/${brings[$scenario]}" ;;
    *-fallen) printf '%s\n' --before "$releases/second" ;;
    discard*) printf '%s\n' --discards ;;
    esac
}

# judge_state STATE: what does not hold is in STATE/wrong then; in real time, when it did not under the short clock.
judge_state() {
    local options
    mapfile -t options <"$1/options"
    copy_device "$1/device" "$1/judged"
    hear_judge "$1/judged" "$1/said" "${options[@]}" >"$1/heard"
    if [[ -s $1/heard ]] && ! grep -qE 'exit status (129|1[3-9][0-9]|2[0-9][0-9])\b' "$1/heard"; then
        copy_device "$1/device" "$1/judged"
        speed=1 hear_judge "$1/judged" "$1/said" "${options[@]}" >"$1/heard"
    fi
    rm -rf -- "$1/judged" "$1/judged.copy"
    mv "$1/heard" "$1/wrong"
}

judge_states() {
    local state
    for state in "$work"/states/*/; do
        [[ ! -d $state ]] || in_parallel judge_state "${state%/}"
    done
    await_children
}

# --- the suite ------------------------------------------------------------------------------------------------------

try_pairs() {
    local number=10000 id scenario second moment how
    local -A needed=()
    while IFS= read -r id; do
        take_apart "$id"
        needed[$scenario]=yes
    done <"$work/selected_pairs"
    for scenario in "${!needed[@]}"; do
        in_parallel run_alone "$scenario"
    done
    await_children
    while IFS= read -r id; do
        number=$((number + 1))
        select_id "$id"
        printf '%s\n' "$id" >"$work/tried/$number.id"
        in_parallel try_pair $number "$id"
    done <"$work/selected_pairs"
    await_children
}

# record_pair NUMBER: without a verdict on its state, there is none on it.
record_pair() {
    local id state outcome why wrong
    id=$(<"$work/tried/$1.id")
    IFS=$'\t' read -r state outcome why <"$work/tried/$1" || return 0
    [[ -e $work/states/$state/wrong ]] || return 0
    wrong=$(tr '\n' ';' <"$work/states/$state/wrong")
    if [[ $outcome != failed && -n $wrong ]]; then
        outcome=failed why="the device then ($state): $wrong"
    fi
    record "$id" "$outcome" "$why"
}

# Commands that come when the other one is over try nothing.
require_meetings() {
    local late all
    all=$(wc -l <"$work/meetings") late=$(grep -c late "$work/meetings" || true)
    printf 'of %d second commands %d came while the first one had the device, %d before or after that, %d too late\n' "$all" \
        "$(grep -c held "$work/meetings" || true)" "$(grep -c alive "$work/meetings" || true)" "$late"
    [[ -n $only$pairs ]] || ((late * 4 <= all)) || fail_suite "$late of $all second commands came too late"
}

conclude() {
    local file
    for file in "$work"/tried/*[0-9]; do
        [[ ! -f $file ]] || record_pair "${file##*/}"
    done
    require_meetings
    printf '%d distinct devices were judged\n' "$(find "$work/states" -mindepth 1 -maxdepth 1 | wc -l)"
    conclude_results
}

# --- the suite's own test -------------------------------------------------------------------------------------------

missed=0

# noticed WHAT STATUS EXPECTED SAID TEXT: the status is the expected one, and this was said.
noticed() {
    if [[ $2 == "$3" ]] && grep -q -- "$5" <<<"$4"; then
        printf '%s: as it should be; %s\n' "$1" "$(tail -n 1 <<<"$4")"
    else
        printf 'FAILED self-test: %s: exit status %d, and said was\n%s\n' "$1" "$2" "$4"
        missed=$((missed + 1))
    fi
}

# stub_judge TEXT: what stands in the place of the judge does as it says.
stub_judge() {
    judge_program=$work/stub_judge
    printf '#!/bin/bash\n%s\n' "$1" >"$judge_program"
    chmod +x "$judge_program"
}

# concluded WHAT STATUS TEXT: of a pair that was tried.
concluded() {
    local status=0 said
    judge_states
    said=$(conclude 2>&1) || status=$?
    noticed "$1" "$status" "$2" "$said" "$3"
    make_work
}

# tried_pair ID: as try_pair leaves it.
tried_pair() {
    mkdir -p "$work/states/0123/device/mcu"
    : >"$work/states/0123/options"
    : >"$work/meetings"
    select_id "$1"
    printf '%s\n' "$1" >"$work/tried/10001.id"
    printf '0123\tok\t\n' >"$work/tried/10001"
}

# shellcheck disable=SC2016  # the words of the stubs
test_judges() {
    local id='install+activate@500/beside'
    only=$id
    known_releases=()
    stub_judge 'echo "all holds"' && tried_pair "$id"
    concluded "a device in order" 0 'tried 1, ok 1, failed 0'
    stub_judge 'kill -SEGV $$' && tried_pair "$id"
    concluded "a judge that dies" 1 'the judge ended early, exit status 139'
    stub_judge 'kill -KILL $PPID' && tried_pair "$id"
    concluded "a child that dies before its verdict" 1 'nobody has said whether it holds'
    stub_judge 'echo "all holds"' && tried_pair "$id" && rm "$work/tried/10001"
    concluded "a pair that nobody tried" 1 'nobody has said whether it holds'
    only='' && stub_judge 'echo "all holds"' && tried_pair "$id" && printf 'late\n' >"$work/meetings"
    concluded "a second command that never meets the first" 1 'came too late'
}

# made_device FIRST SECOND: what a run has left of an installation that was done, and how both commands ended.
made_device() {
    mkdir -p "$1/run/pair"
    printf '%s\n' "$2" >"$1/run/pair/first"
    printf '%s\n' "$3" >"$1/run/pair/second"
    printf '0\n' | tee "$1/run/pair/status" "$1/run/pair/left" >/dev/null
    printf '7\n' >"$1/run/pair/pid"
    printf 'it says so\n' >"$1/run/pair/second.errors"
    printf '%s\n' 'running slot a' 'environment boot_slot=a' '/config/upgraded: ' '/firmware/current.pkg: first' \
        '/firmware/rollback.pkg: third' 'slot a: kernel first' 'slot b: kernel third' >"$1.facts"
}

# looks WHAT TEXT ID FIRST SECOND [CHANGE...]: of a pair that ended so, and a device that a command has changed, TEXT is said;
# nothing where TEXT is empty.
looks() {
    local device=$work/tried/made scenario second moment how words first=() said
    rm -rf -- "$device" "$work/alone/install"
    made_device "$work/alone/install" 0 0
    made_device "$device" "$4" "$5"
    take_apart "$3"
    if [[ $how == alone ]]; then words=(install third.pkg); else second_words "$second" "$how"; fi
    (($# == 5)) || (cd -- "$device" && "${@:6}")
    said=$(look "$device")
    if [[ -n $2 ]]; then
        noticed "$1" 0 0 "$said" "$2"
    else
        noticed "$1" "${#said}" 0 "$said" ''
    fi
}

# shellcheck disable=SC2016  # the words of the shells
test_looks() {
    local answer='{"state":"running","run":{"pid":7},"needs":[]}' facts=$work/tried/made.facts
    release_names=() known_releases=()
    looks "a second command that was busy" '' install+activate@1/beside 0 6
    looks "one that was busy and changed something" 'was busy, and the device is not' install+activate@1/beside 0 6 \
        sed -i s/third/second/ "$facts"
    looks "one that is busy with a killed one" 'after install was killed, activate ends with 6' install+activate@1/killed 137 6
    looks "a crash" 'a crash or a hang' install+activate@1/beside 139 6
    looks "a query that waits" 'a crash or a hang' install+status@1/stopped 0 137
    looks "a process left behind" '3 processes left behind' install+activate@1/beside 0 6 bash -c 'echo 3 >run/pair/left'
    looks "a device that does not end" 'did not end' install+activate@1/beside 0 6 bash -c 'echo 124 >run/pair/status'
    looks "a query that fails because of a run" 'status ends with 1' install+status@1/stopped 0 1 \
        bash -c ': >run/pair/held; echo "$1" >run/pair/second.said' bash "$answer"
    looks "a query that tells of another process" 'status ends with 0' install+status@1/stopped 0 0 \
        bash -c ': >run/pair/held; echo "${1/7/8}" >run/pair/second.said' bash "$answer"
    looks "a check that finds nobody" 'check ends with 0' install+check@1/stopped 0 0 \
        bash -c ': >run/pair/held; echo "{\"obstacles\":[]}" >run/pair/second.said'
    looks "a query that does harm" 'was asked by history' install+history@1/stopped 4 0
    looks "an installation of something else" 'does not await its activation' install/alone 0 '' sed -i s/third/second/ "$facts"
    looks "an installation that ends badly" 'it ended with 3' install/alone 3 ''
}

test_itself() {
    local status=0 said
    make_work
    test_judges
    test_looks
    said=$("${BASH_SOURCE[0]}" --only 'install+install@0/beside' --failing 'upgradectl|flock|/config|ENOLCK' "$build" 2>&1) ||
        status=$?
    noticed "a device without a lock" "$status" 1 "$said" '^FAILED --only .install+install@0/beside'
    ((missed == 0))
}

if "$self_test"; then
    test_itself
    exit
fi
make_work
make_releases
make_devices
selected_pairs >"$work/selected_pairs"
if "$list"; then
    cat "$work/selected_pairs"
    exit
fi
[[ $mode == full ]] || printf 'drawn from %s\n' "$seed"
: >"$work/meetings"
SECONDS=0
try_pairs
printf 'tried in %d s\n' "$SECONDS"
judge_states
conclude
