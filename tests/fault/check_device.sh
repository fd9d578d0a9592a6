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
#   --keeps-package  the device had a current package before, so it must have one now
#   --skip-init   what init mends stays torn: shows that this is noticed
#   --quick       without the installations and rollbacks: starts, files and init only
#
# Every step that asks for a device of its own works on a copy of STATE, in STATE.copy. One line for each thing that does
# not hold; exit status 1 if there is any.
set -euo pipefail

root=$(cd -- "${BASH_SOURCE[0]%/*}/../.." && pwd)
twin=$root/twin/twin
package_bytes=134217728

build=$root/build/release next='' run_release='' over='' quick=false keeps_package=false skip_init=false
while [[ ${1-} == --* ]]; do
    case $1 in
    --build) build=$(realpath -- "$2") && shift ;;
    --next) next=$(realpath -- "$2") && shift ;;
    --run) run_release=$(realpath -- "$2") && shift ;;
    --over) over=$(realpath -- "$2") && shift ;;
    --quick) quick=true ;;
    --skip-init) skip_init=true ;;
    --keeps-package) keeps_package=true ;;
    *) printf "%s: unknown option %s\n" "$0" "$1" >&2 && exit 2 ;;
    esac
    shift
done
state=$(realpath -- "$1")
releases=()
for release in "${@:2}"; do
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
    for release in "${releases[@]}" "$next"; do
        if holds_slot "$1" "$2" "$release"; then
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
    for release in "${releases[@]}" "$next"; do
        if cmp -s "$1" "$release.pkg"; then
            printf '%s\n' "$release"
            return
        fi
    done
    printf 'other\n'
}

# with_copy STEP...: the step on a device of its own, which is what this one is now. Both are attached.
with_copy() {
    local copy=$state.copy
    [[ ! -d $state/disks ]] || "$twin" detach "$state" || return 1
    rm -rf -- "$copy"
    cp -a --reflink=auto --sparse=always -- "$state" "$copy"
    attached "$state" && attached "$copy"
    "$@" "$copy" || true
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

check_last_run() {
    local file=$state/config/upgrade_last_runtime word
    [[ -e $file ]] || return 0
    word=$(<"$file")
    case $word in
    upgrade_failure | rollback_failure) ;;
    upgrade_success | rollback_success)
        if [[ -n $run_release ]] && ! is_installed "$run_release" && ! is_installed "$over"; then
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

# The package that is kept as the current one is that of the software that starts, unless it awaits its activation.
check_packages() {
    local current rollback
    current=$(package_of "$state/firmware/current.pkg")
    rollback=$(package_of "$state/firmware/rollback.pkg")
    [[ $current != other ]] || wrong "current.pkg is none of the packages that were given to the device"
    [[ $rollback != other ]] || wrong "rollback.pkg is none of the packages that were given to the device"
    [[ $current == none || $current == other || $current == "$runs" || $current == "$over" ]] ||
        wrong "${runs##*/} runs, but current.pkg is ${current##*/}"
    [[ $current != none ]] || ! "$keeps_package" ||
        wrong "current.pkg is gone (rollback.pkg is ${rollback##*/})"
    [[ ! -e $state/firmware/temp ]] || wrong "a package was left aside (/firmware/temp)"
}

can_roll_back() {
    [[ -e $1/firmware/rollback.pkg && $(stat -c %s "$1/firmware/rollback.pkg") == "$package_bytes" ]]
}

# On a copy: the step that the user may take next.
rolls_back() {
    local to
    to=$(package_of "$1/firmware/rollback.pkg")
    must "rollback fails" on_device "$1" rollback || return 1
    starts "$1" "after a rollback" || return 1
    [[ $to == other || $to == "$runs" ]] || wrong "after a rollback to ${to##*/} ${runs##*/} runs"
}

activates() {
    local to
    to=$(package_of "$1/firmware/rollback.pkg")
    must "activate fails" on_device "$1" activate || return 1
    starts "$1" "after the activation that was waited for" || return 1
    [[ $to == other || $to == "$runs" ]] || wrong "after the activation of ${to##*/} ${runs##*/} runs"
    must "init fails after the activation" on_device "$1" init || return 1
    [[ $(package_of "$1/firmware/current.pkg") == "$runs" ]] ||
        wrong "after the activation ${runs##*/} runs, but current.pkg is another"
}

takes_next() {
    must "the next installation fails" on_device "$state" install "$next.pkg" || return 1
    must "the next activation fails" on_device "$state" activate || return 1
    starts "$state" "after the next upgrade" || return 1
    [[ $runs == "$next" ]] || wrong "after the next upgrade ${runs##*/} runs"
    must "init fails after the next upgrade" on_device "$state" init || return 1
    must "confirm fails" on_device "$state" confirm || return 1
    must "the microcontroller does not hold ${next##*/}" "$twin" compare "$state" mcu "$next" || return 1
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
    "$skip_init" || must "init fails" on_device "$state" init || return 0
    check_whole_json wrong
    check_packages
    ! "$quick" || return 0
    if [[ -e $state/config/upgraded ]]; then
        with_copy activates
    elif can_roll_back "$state"; then
        with_copy rolls_back
    fi
    takes_next || true
}

check
((faults == 0)) || exit 1
printf 'all holds\n'
