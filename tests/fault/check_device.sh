#!/usr/bin/env bash
# Judges a device after a fault: whether it starts, tells the truth about what happened, and can be upgraded and rolled
# back as if nothing had been. It knows what the device is for and nothing of how its libraries work.
#
#   check_device.sh [OPTION...] STATE RELEASE...
#
# STATE is a twin that has lost its power. Each RELEASE is a directory DIR of components with their package, DIR.pkg,
# beside it: those that the device ran or was about to run.
#
#   --build DIR   the build whose upgradectl and emulated microcontroller are used
#   --next DIR    the release that is installed in the end (required)
#   --run DIR     the release that the run which was cut off was about to bring
#   --over DIR    a release that was installed and activated, and never started, when that run began: the last success may
#                 be told of it, and its package stays the current one when the boot loader goes back from what it lost
#   --before DIR  the release that was installed last before, and started: the last success may be told of it
#   --keeps-package  the device had a current package before, so it must have one now
#   --keeps-way-back  the device was upgraded and activated, and what was cut off takes no package to roll back to away (an
#                 activation, a confirmation, an init, a start): where nothing awaits activation, there must be one now
#   --discards    what was cut off drops what awaits its activation: its package may be gone already
#   --skip-init   what init mends stays torn: shows that this is noticed
#   --quick       without the installations and rollbacks: starts, trials, files and init only
#
# Every step that asks for a device of its own works on a copy of STATE, in STATE.copy. One line for each thing that does
# not hold; exit status 1 if there is any. "all holds" is the last line of a judgement that came to its end, and only
# with exit status 0.
set -euo pipefail

root=$(cd -- "${BASH_SOURCE[0]%/*}/../.." && pwd)
twin=$root/twin/twin
package_bytes=134217728

build=$root/build/release next='' run_release='' over='' before='' quick=false keeps_package=false keeps_way_back=false
skip_init=false discards=false written_unmarked=false
while [[ ${1-} == --* ]]; do
    case $1 in
    --build) build=$(realpath -- "$2") && shift ;;
    --next) next=$(realpath -- "$2") && shift ;;
    --run) run_release=$(realpath -- "$2") && shift ;;
    --over) over=$(realpath -- "$2") && shift ;;
    --before) before=$(realpath -- "$2") && shift ;;
    --quick) quick=true ;;
    --skip-init) skip_init=true ;;
    --discards) discards=true ;;
    --keeps-package) keeps_package=true ;;
    --keeps-way-back) keeps_way_back=true ;;
    *) printf "%s: unknown option %s\n" "$0" "$1" >&2 && exit 2 ;;
    esac
    shift
done
state=$(realpath -- "$1")
releases=()
for release in "${@:2}" "$next"; do
    releases+=("$(realpath -- "$release")")
done
export KAVRO_TWIN_PROGRAMS=$build/twin

# --- what is said ---------------------------------------------------------------------------------------------------

faults=0

# wrong TEXT: what does not hold.
wrong() {
    printf 'wrong: %s\n' "$1"
    faults=$((faults + 1))
}

note() {
    printf 'note: %s\n' "$1"
}

# must TEXT COMMAND...: what it says is shown when it fails.
must() {
    local said status=0
    said=$("${@:2}" 2>&1) || status=$?
    ((status == 0)) && return
    wrong "$1 (exit status $status): $(tail -n 3 <<<"$said" | tr '\n' '|')"
    return 1
}

# --- the device -----------------------------------------------------------------------------------------------------

# on_device DIR ARGUMENT...: of upgradectl, as a person would run it; its pauses are shortened.
on_device() {
    local clock=$build/tests/fault/libkavro_short_clock.so
    "$twin" run "$1" --visible "$build" --visible "${next%/*}" --env "KAVRO_CLOCK_SPEED=${KAVRO_CLOCK_SPEED:-8}" \
        -- env LD_PRELOAD="$clock" "$build/tools/upgradectl/upgradectl" "${@:2}"
}

holds_slot() {
    "$twin" compare "$1" "$2" "$3" >/dev/null 2>&1
}

# release_in DIR SLOT: prints which release the slot holds, wholly; fails when none.
release_in() {
    local release
    for release in "${releases[@]}"; do
        if holds_slot "$1" "$2" "$release"; then
            printf '%s\n' "$release"
            return
        fi
    done
    return 1
}

# look_at DIR: sets `shown`, what `twin show` says of the device, which looks at it from outside, and `current` and
# `rollback`, the releases whose packages it keeps.
look_at() {
    shown=$("$twin" show "$1") || { wrong "twin show fails" && return 1; }
    current=$(package_of "$1/firmware/current.pkg")
    rollback=$(package_of "$1/firmware/rollback.pkg")
}

# told WHAT: of what is shown.
told() {
    sed -n "s/^$1  *\([^(]*[^( ]\) *(.*$/\1/p" <<<"$shown"
}

# number_of RELEASE PART: hardware, main_processor, microcontroller or boot_loader.
number_of() {
    awk -v part="$2" '$1 == part { print $2 }' "$1/version_list.acs"
}

# versions_of RELEASE [MICROCONTROLLER]: as upgradectl says them.
versions_of() {
    printf 'V%02d.%03d.%03d.%03d\n' "$(number_of "$1" hardware)" "$(number_of "$1" main_processor)" \
        "${2:-$(number_of "$1" microcontroller)}" "$(number_of "$1" boot_loader)"
}

# application_in DIR, which was looked at: prints the release whose application the microcontroller holds, wholly, and would run; "none" when it
# runs none; fails when it runs anything else.
application_in() {
    local release version
    version=$(told microcontroller)
    if [[ $version == none ]]; then
        printf 'none\n'
        return
    fi
    for release in "${releases[@]}"; do
        if [[ $version == "$(number_of "$release" microcontroller)" ]] && holds_slot "$1" mcu "$release"; then
            printf '%s\n' "$release"
            return
        fi
    done
    return 1
}

# starts DIR TEXT: a restart; sets `slot` and `runs`, the release in it.
starts() {
    must "$2: the device does not start" "$twin" boot "$1" || return 1
    slot=$(<"$1/run/running_slot")
    if ! runs=$(release_in "$1" "$slot"); then
        wrong "$2: slot $slot, which was started, holds no release as a whole"
        return 1
    fi
}

# package_of FILE: prints the release whose package this is; "none" when there is no file, "other" for anything else.
package_of() {
    local release
    [[ -e $1 ]] || { printf 'none\n' && return; }
    for release in "${releases[@]}"; do
        if cmp -s "$1" "$release.pkg"; then
            printf '%s\n' "$release"
            return
        fi
    done
    printf 'other\n'
}

# carried_out STEP...: a step that ends early without saying what does not hold has failed, too.
carried_out() {
    local before=$faults
    "$@" || ((faults > before)) || wrong "the check ended early: $1"
}

# with_copy STEP...: the step on a device of its own, which is what this one is now. Both are attached. What runs on the
# copy is not what runs here.
with_copy() {
    local copy=$state.copy slot=$slot runs=$runs shown=$shown current=$current rollback=$rollback
    [[ ! -d $state/disks ]] || "$twin" detach "$state" || return 1
    rm -rf -- "$copy"
    cp -a --reflink=auto -- "$state" "$copy" || return 1
    attached "$state" && attached "$copy" || return 1
    carried_out "$@" "$copy"
    "$twin" remove "$copy"
}

# attached DIR: any command that looks at it attaches a device.
attached() {
    "$twin" show "$1" >/dev/null
}

# --- what must hold -------------------------------------------------------------------------------------------------

is_installed() {
    [[ -n $1 ]] && { holds_slot "$state" a "$1" || holds_slot "$state" b "$1"; }
}

# Sets `last_run`. None is what a device tells that was never upgraded, or was asked.
check_last_run() {
    local file=$state/config/upgrade_last_runtime word
    last_run=none
    [[ -e $file ]] || return 0
    word=$(<"$file")
    last_run=$word
    case $word in
    upgrade_failure | rollback_failure) ;;
    upgrade_success | rollback_success)
        if [[ -n $run_release ]] && ! is_installed "$run_release" && ! is_installed "$over" &&
            ! is_installed "$before"; then
            wrong "the last run is said to be a success ($word), but no slot holds ${run_release##*/}"
        fi
        ;;
    *) wrong "the last run's outcome is '$word'" ;;
    esac
}

# is_torn FILE: it is there, and not one JSON object. An empty one gives jq nothing to judge.
is_torn() {
    [[ -e $1 ]] && ! jq -es 'length == 1 and (.[0] | type == "object")' "$1" >/dev/null 2>&1
}

# check_whole_json note|wrong. The version file is made by `cp`, which flushes nothing: torn, it must be of no consequence, and whole after init.
check_whole_json() {
    ! is_torn "$state/config/written_slot.json" || wrong "/config/written_slot.json is torn"
    ! is_torn "$state/config/upgrade_config.json" || "$1" "/config/upgrade_config.json is torn"
}

check_file_systems() {
    local name
    for name in config firmware raw; do
        find "$state/$name" >/dev/null 2>&1 || wrong "/$name cannot be read"
    done
}

# Sets `awaiting`, the release in the slot that was written and awaits its activation. Of a run that reported success, it
# holds one.
check_written_slot() {
    local written
    awaiting=
    written=$(told 'written slot')
    # A record that names the slot that runs was used up by its activation.
    [[ $written != none && $written != "$slot" ]] || return 0
    awaiting=$(release_in "$state" "$written") || awaiting=other
    [[ $awaiting != other || $last_run != *_success ]] ||
        wrong "the last run is said to be a success ($last_run), but slot $written, which awaits its activation, holds no release"
}

# The package of what awaits its activation is there before the run tells of its success. Without it init drops what awaits
# its activation, so this is looked at before, too.
check_awaiting_package() {
    [[ -z $awaiting || $last_run != *_success || $rollback == "$awaiting" ]] ||
        wrong "${awaiting##*/} awaits its activation after $last_run, but rollback.pkg is ${rollback##*/}"
}

# The package that is kept as the current one is that of the software that starts, unless it awaits its activation.
check_packages() {
    [[ $current != other ]] || wrong "current.pkg is none of the packages that were given to the device"
    [[ $rollback != other ]] || wrong "rollback.pkg is none of the packages that were given to the device"
    [[ $current == none || $current == other || $current == "$runs" || $current == "$over" ]] ||
        wrong "${runs##*/} runs, but current.pkg is ${current##*/}"
    [[ $current != none ]] || ! "$keeps_package" ||
        wrong "current.pkg is gone (rollback.pkg is ${rollback##*/})"
    check_awaiting_package
    if "$keeps_way_back" && [[ -z $awaiting || $last_run != *_success ]]; then
        [[ $rollback != none && $rollback != "$current" ]] ||
            wrong "there is nothing to roll back to: current.pkg is ${current##*/}, rollback.pkg ${rollback##*/}"
    fi
    [[ ! -e $state/firmware/temp ]] || wrong "a package was left aside (/firmware/temp)"
}

# flashed_last: the release of the last run that reported success; empty where nothing tells. A boot loader that goes back
# leaves it the current package.
flashed_last() {
    if [[ -n $awaiting ]]; then
        printf '%s\n' "${awaiting#other}"
    elif [[ $current == */* ]]; then
        printf '%s\n' "$current"
    fi
}

# is_one_of RELEASE OTHER...: for the microcontroller, whose applications of the same version are as good as each other.
is_one_of() {
    local other
    for other in "${@:2}"; do
        [[ $other != */* || $(number_of "$1" microcontroller) != "$(number_of "$other" microcontroller)" ]] || return 0
    done
    return 1
}

# What the microcontroller has to hold, and the boot loader's partition. A run erases the application before it programs
# the next one, and tells of a failure from before that moment until it is done: only then may there be none, or that of
# the run.
check_firmware() {
    local holds last
    last=$(flashed_last)
    if ! holds=$(application_in "$state"); then
        wrong "the microcontroller runs version $(told microcontroller), and holds no release as a whole"
    elif [[ $last_run == *_failure ]]; then
        [[ $holds == none || -z $run_release ]] || is_one_of "$holds" "$runs" "$current" "$over" "$run_release" ||
            wrong "after $last_run the microcontroller holds ${holds##*/}, which is neither of before nor ${run_release##*/}"
    elif [[ $holds == none ]]; then
        wrong "the microcontroller holds no application, and the last run is said to be: $last_run"
    elif [[ -n $last ]]; then
        is_one_of "$holds" "$last" ||
            wrong "the microcontroller holds ${holds##*/}, but the last run ($last_run) was of ${last##*/}"
    fi
    "$skip_init" || ! has_package_of_what_runs || is_one_of "$holds" "$runs" ||
        wrong "after init ${runs##*/} runs, and the microcontroller holds ${holds##*/}"
    [[ $last_run == *_failure ]] || holds_a_boot_loader "$state" ||
        wrong "the boot loader's partition holds no release as a whole, and the last run is said to be: $last_run"
}

holds_a_boot_loader() {
    local release
    for release in "${releases[@]}"; do
        ! holds_slot "$1" bootloader "$release" || return 0
    done
    return 1
}

# is_told TEXT WHAT ACTUAL EXPECTED
is_told() {
    [[ $3 == "$4" ]] || wrong "$1: $2 is told as '$3', and is '$4'"
}

# check_versions DIR TEXT: after init, of a device that was looked at since. What a microcontroller without an application
# is said to hold is left open: it gives no answer, and the record may be of before.
check_versions() {
    local said microcontroller record
    said=$(on_device "$1" versions --json 2>/dev/null) || { wrong "$2: upgradectl versions fails" && return 1; }
    microcontroller=$(told microcontroller)
    is_told "$2" "the microcontroller" "$(jq -r .microcontroller <<<"$said")" "${microcontroller/#none/null}"
    is_told "$2" "the factory version" "$(jq -r .factory_version <<<"$said")" "$(versions_of "$runs")"
    [[ $microcontroller == none ]] || is_told "$2" "the current version" "$(jq -r .current_version <<<"$said")" \
        "$(versions_of "$runs" "$microcontroller")"
    IFS=. read -ra record < <(told 'version record')
    "$skip_init" || is_told "$2" "the version record" "$(printf 'V%02d.%03d.%03d.%03d' "${record[@]}")" \
        "$(jq -r .current_version <<<"$said")"
    is_told "$2" "current.pkg" "$(jq -r '.packages[0].version' <<<"$said")" "$(versions_of_package "$current")"
    is_told "$2" "rollback.pkg" "$(jq -r '.packages[1].version' <<<"$said")" "$(versions_of_package "$rollback")"
}

# versions_of_package RELEASE|none|other: null where there is no such file, or none that is known.
versions_of_package() {
    if [[ $1 == */* ]]; then
        versions_of "$1"
    else
        printf 'null\n'
    fi
}

# starts_left: of a slot on trial, before the boot loader gives it up; 0 when none is on trial.
starts_left() {
    local trial
    trial=$(told trial)
    if [[ $trial =~ ^start\ ([0-9]+)\ of\ ([0-9]+)$ ]]; then
        printf '%d\n' $((BASH_REMATCH[2] - BASH_REMATCH[1] + 1))
    else
        printf '0\n'
    fi
}

# packages_that_follow SLOT CURRENT ROLLBACK: the two after a trial of that slot, with these before. Those that the boot
# loader has gone back from and to change places. Without a package of what runs the device may know, by its history.
packages_that_follow() {
    if [[ $slot != "$1" && ($3 == "$runs" || ($3 == none && $2 != "$runs" && $rollback == "$2")) ]]; then
        printf '%s,%s\n' "$3" "$2"
    else
        printf '%s,%s\n' "$2" "$3"
    fi
}

# tells_of_fallback DIR FAILED: whoever asks is told from which release the device fell back.
tells_of_fallback() {
    is_told "after the trial" "what the device fell back from" \
        "$(on_device "$1" status --json 2>/dev/null | jq -r .fallback.release)" "$(versions_of "$2")"
}

# has_package_of_what_runs: and nothing else awaits its activation, so that init brings the microcontroller to it.
has_package_of_what_runs() {
    [[ -z $awaiting && ($current == "$runs" || $rollback == "$runs") ]]
}

# runs_trial_out DIR: on a copy, a trial that nobody confirms. The boot loader goes back to the other slot, unless that one
# was written since and never activated, or is half a slot. Whichever runs then is whole and ready, and nothing is lost.
runs_trial_out() {
    local left tried=$slot failed=$runs held before_current=$current before_rollback=$rollback firmware
    left=$(starts_left) firmware=$(told microcontroller)
    held=$(release_in "$1" "$(tr ab ba <<<"$slot")") || held=none
    while ((left-- > 0)); do
        starts "$1" "a start on trial" || return 1
    done
    if [[ $slot == "$tried" ]]; then
        [[ $held == none || -n $awaiting || $last_run == *_failure ]] ||
            wrong "after its trial slot $tried still runs, though the other one holds ${held##*/} as a whole"
    else
        [[ -z $awaiting ]] || wrong "after its trial slot $tried was given up for one that was never activated"
    fi
    must "init fails after the trial" on_device "$1" init || return 1
    look_at "$1" || return 1
    is_told "after the trial" "the packages" "$current,$rollback" \
        "$(packages_that_follow "$tried" "$before_current" "$before_rollback")"
    [[ $slot == "$tried" || $before_current != "$failed" || $rollback != "$failed" ]] || tells_of_fallback "$1" "$failed"
    ! has_package_of_what_runs || firmware=$(number_of "$runs" microcontroller)
    is_told "after the trial" "the microcontroller" "$(told microcontroller)" "$firmware"
    check_versions "$1" "after the trial"
}

can_roll_back() {
    [[ -e $1/firmware/rollback.pkg && $(stat -c %s "$1/firmware/rollback.pkg") == "$package_bytes" ]]
}

# is_switch_away DIR: the other slot holds the kept package's release since an upgrade that was done, and the microcontroller
# has a firmware of its version: a rollback has nothing to write.
is_switch_away() {
    [[ $written_unmarked == false && $last_run == *_success && $rollback == */* && $(told microcontroller) == "$(number_of "$rollback" microcontroller)" ]] &&
        holds_slot "$1" "$(tr ab ba <<<"$slot")" "$rollback"
}

# written_by_runs DIR: changes with each run that installs a package, and with no switch.
written_by_runs() {
    sha256sum <"$1/mcu/flash.bin"
    stat -c '%s bytes of %y' "$1/firmware/recv.tar.xz" 2>/dev/null || true
}

# has_failed_trial DIR RELEASE: by what the device has noted.
has_failed_trial() {
    [[ -e $1/config/upgrade_history.jsonl && $2 == */* ]] && jq -eRn --arg release "$(versions_of "$2")" '
        [inputs | fromjson? | select(.release == $release and .outcome == "ok" and (.event == ("fallback", "confirm")))] |
        last.event == "fallback"' "$1/config/upgrade_history.jsonl" >/dev/null
}

# Back to what has failed here leads no way.
refuses_to_roll_back() {
    local status=0
    on_device "$1" rollback >/dev/null 2>&1 || status=$?
    ((status == 3)) || wrong "a rollback to ${rollback##*/}, which has failed its trial, ends with exit status $status"
}

# On a copy: the step that the user may take next.
rolls_back() {
    local to=$rollback written=''
    ! has_failed_trial "$1" "$rollback" || { refuses_to_roll_back "$1" && return; }
    ! is_switch_away "$1" || written=$(written_by_runs "$1")
    must "rollback fails" on_device "$1" rollback || return 1
    [[ -z $written || $written == "$(written_by_runs "$1")" ]] ||
        wrong "a rollback to ${to##*/}, which the other slot holds and the microcontroller fits, was no mere switch"
    starts "$1" "after a rollback" || return 1
    [[ $to == other || $to == "$runs" ]] || wrong "after a rollback to ${to##*/} ${runs##*/} runs"
    must "init fails after the rollback" on_device "$1" init || return 1
    look_at "$1" || return 1
    [[ $(application_in "$1") == */* ]] || wrong "after the rollback the microcontroller holds no release as a whole"
    check_versions "$1" "after the rollback"
}

activates() {
    local to=$rollback
    must "activate fails" on_device "$1" activate || return 1
    starts "$1" "after the activation that was waited for" || return 1
    [[ $to == other || $to == "$runs" ]] || wrong "after the activation of ${to##*/} ${runs##*/} runs"
    must "init fails after the activation" on_device "$1" init || return 1
    look_at "$1" || return 1
    [[ $current == "$runs" ]] || wrong "after the activation ${runs##*/} runs, but current.pkg is ${current##*/}"
    check_versions "$1" "after the activation"
    awaiting='' runs_trial_out "$1"
}

# On a copy: the installed package is dropped. The device goes on with what it runs, and is of one release then, where the
# package that brings it is kept.
discards_it() {
    local running=$slot holds kept=$current
    must "discard fails" on_device "$1" discard || return 1
    look_at "$1" || return 1
    [[ $current,$rollback == "$kept,none" && ! -e $1/config/upgraded && $(told 'written slot') == none ]] ||
        wrong "after a discard the packages are ${current##*/} and ${rollback##*/}, or something awaits its activation still"
    if [[ $current == "$runs" ]]; then
        holds=$(application_in "$1") || holds=other
        is_one_of "$holds" "$runs" || wrong "after a discard the microcontroller holds ${holds##*/}, and ${runs##*/} runs"
    fi
    starts "$1" "after a discard" || return 1
    [[ $slot == "$running" ]] || wrong "after a discard slot $slot starts, and slot $running ran"
    must "init fails after the discard" on_device "$1" init || return 1
    look_at "$1" || return 1
    check_versions "$1" "after the discard"
}

takes_next() {
    # What runs on trial is the only way back; an installation would write to the other slot.
    must "confirm fails before the next installation" on_device "$state" confirm || return 1
    must "the next installation fails" on_device "$state" install "$next.pkg" || return 1
    must "the next activation fails" on_device "$state" activate || return 1
    starts "$state" "after the next upgrade" || return 1
    [[ $runs == "$next" ]] || wrong "after the next upgrade ${runs##*/} runs"
    must "init fails after the next upgrade" on_device "$state" init || return 1
    must "confirm fails" on_device "$state" confirm || return 1
    must "the microcontroller does not hold ${next##*/}" "$twin" compare "$state" mcu "$next" || return 1
    must "the boot loader is not that of ${next##*/}" "$twin" compare "$state" bootloader "$next" || return 1
    look_at "$state" || return 1
    check_versions "$state" "after the next upgrade" || return 1
    [[ $current == "$next" ]] || wrong "after the next upgrade current.pkg is ${current##*/}"
    [[ $(told 'last run') == upgrade_success ]] || wrong "after the next upgrade the last run is told as $(told 'last run')"
    if can_roll_back "$state"; then
        rolls_back "$state"
    else
        ! "$keeps_package" || wrong "after the next upgrade there is no package to roll back to"
    fi
}

check() {
    starts "$state" "after the fault" || return 0
    printf 'starts slot %s, %s\n' "$slot" "${runs##*/}"
    check_file_systems
    check_last_run
    check_whole_json note
    look_at "$state"
    check_written_slot
    "$discards" || check_awaiting_package
    # Without its marker the record of a slot goes with the start, and what the slot holds is not known then.
    [[ -z $awaiting || -e $state/config/upgraded ]] || written_unmarked=true
    "$skip_init" || must "init fails" on_device "$state" init || return 0
    check_whole_json wrong
    must "the history cannot be read" on_device "$state" history --json || true
    look_at "$state"
    check_written_slot
    check_packages
    check_firmware
    carried_out check_versions "$state" "after init"
    (($(starts_left) == 0)) || with_copy runs_trial_out
    ! "$quick" || return 0
    if [[ -e $state/config/upgraded ]]; then
        with_copy activates
        with_copy discards_it
    elif can_roll_back "$state"; then
        with_copy rolls_back
    fi
    carried_out takes_next
}

check
((faults == 0)) || exit 1
printf 'all holds\n'
