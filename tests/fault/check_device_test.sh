#!/usr/bin/env bash
# The judge's own test: of devices that are in order check_device.sh says that all holds, and of each that is damaged on
# purpose what does not hold, and nothing else. A fault that it overlooks here, the suites overlook as well.
#
#   check_device_test.sh BUILD_DIR
set -euo pipefail

root=$(cd -- "${BASH_SOURCE[0]%/*}/../.." && pwd)
here=$root/tests/fault
twin=$root/twin/twin
# shellcheck source=../../twin/device.sh
source "$root/twin/device.sh"
# shellcheck source=releases.sh
source "$here/releases.sh"
# shellcheck source=results.sh
source "$here/results.sh"

build=$(realpath -- "$1")
export KAVRO_TWIN_PROGRAMS=$build/twin
upgradectl=$build/tools/upgradectl/upgradectl
programs=$build/tests/fault
work=$(mktemp -d)
# shellcheck disable=SC2034  # both are of what the suites share
name=check_device_test jobs=4
begin_results "$work"
trap 'rm -rf -- "$work"' EXIT
bases=$work/bases releases=$work/releases
mkdir -p "$bases" "$releases"

die() {
    printf 'check_device_test: %s\n' "$1" >&2
    exit 2
}

copy_device() {
    cp -a -- "$1" "$2"
}

grown() {
    copy_device "$bases/$1" "$bases/$2"
}

# --- what is judged -------------------------------------------------------------------------------------------------

asked=0

# judge NUMBER BASE DAMAGE [OPTION...]: of a copy; sets `status` and `said`.
judge() {
    local device=$work/device.$1
    copy_device "$bases/$2" "$device"
    "$3" "$device"
    status=0
    said=$(KAVRO_CLOCK_SPEED=8 "$here/check_device.sh" --build "$build" --next "$releases/next" --run "$releases/second" \
        --keeps-package "${@:4}" "$device" "${known_releases[@]}" 2>&1) || status=$?
    rm -rf -- "$device" "$device.copy"
}

# judge_right NUMBER BASE DAMAGE [OPTION...]
judge_right() {
    local status said
    judge "$@"
    if ((status == 0)) && [[ $(tail -n 1 <<<"$said") == 'all holds' ]]; then
        printf 'all holds: %s\n' "${*:2}"
    else
        printf 'FAILED %s: called wrong, exit status %d: %s\n' "${*:2}" "$status" "$said"
    fi
}

# judge_wrong NUMBER WHY BASE DAMAGE [OPTION...]
judge_wrong() {
    local status said line
    judge "$1" "${@:3}"
    line=$(grep -m 1 "^wrong: .*$2" <<<"$said" || true)
    if ((status == 1)) && [[ -n $line && $said != *'all holds'* ]]; then
        printf 'noticed: %s, as %s\n' "${*:3}" "$line"
    else
        printf 'FAILED %s: exit status %d, and not told that %s: %s\n' "${*:3}" "$status" "$2" "$said"
    fi
}

# all_holds BASE DAMAGE [OPTION...]
all_holds() {
    asked=$((asked + 1))
    in_parallel judge_right "$asked" "$@" >"$work/verdict.$asked"
}

# is_wrong WHY BASE DAMAGE [OPTION...]: WHY is in one of the lines that say what does not hold.
is_wrong() {
    asked=$((asked + 1))
    in_parallel judge_wrong "$asked" "$@" >"$work/verdict.$asked"
}

# conclude: each one that was asked has a verdict.
conclude() {
    local right
    await_children
    cat "$work"/verdict.*
    right=$(cat "$work"/verdict.* | grep -cE '^(all holds|noticed): ' || true)
    printf 'check_device_test: judged %d, ok %d\n' "$asked" "$right"
    ((right == asked))
}

# --- the damage -----------------------------------------------------------------------------------------------------

nothing() {
    :
}

erased_microcontroller() {
    "$build/twin/mcu-emulator" format "$1/mcu/flash.bin"
}

# It starts by its checksum, and is of no release.
foreign_application() {
    "$build/twin/mcu-emulator" format "$1/mcu/flash.bin" --version 8
}

application_of_first() {
    "$build/twin/mcu-emulator" format "$1/mcu/flash.bin" --application "$releases/first/mcu_flash_app.s19"
}

no_boot_loader() {
    truncate -s 0 "$1/partitions/bootloader"
    truncate -s 4M "$1/partitions/bootloader"
}

no_rollback_package() {
    rm "$1/firmware/rollback.pkg"
}

no_current_package() {
    rm "$1/firmware/current.pkg"
}

twice_the_same_package() {
    cp --sparse=always "$1/firmware/current.pkg" "$1/firmware/rollback.pkg"
}

cut_rollback_package() {
    truncate -s 1M "$1/firmware/rollback.pkg"
}

package_beside() {
    cp --sparse=always "$1/firmware/rollback.pkg" "$1/firmware/temp"
}

# spoil DEVICE PARTITION
spoil() {
    printf 'spoilt' | dd of="$1/partitions/$2" bs=1 seek=4096 conv=notrunc status=none
}

damaged_running_slot() {
    spoil "$1" rootfs_a
}

damaged_other_slot() {
    spoil "$1" kernel_b
}

damaged_slots() {
    damaged_running_slot "$1"
    damaged_other_slot "$1"
}

# A boot loader that starts what it does not know would start this.
unchecked_damaged_slot() {
    local variable
    damaged_running_slot "$1"
    for variable in slot_a_{kernel,dtb,rootfs}; do
        twin_save_environment "$1" "$variable="
    done
    twin_save_environment "$1" slots_unchecked=1
}

torn_written_slot() {
    truncate -s 100 "$1/config/written_slot.json"
}

empty_version_record() {
    : >"$1/config/upgrade_config.json"
}

cut_outcome() {
    printf 'upgrade_succ' >"$1/config/upgrade_last_runtime"
}

told_as_success() {
    printf 'upgrade_success' >"$1/config/upgrade_last_runtime"
}

told_as_failure() {
    printf 'upgrade_failure' >"$1/config/upgrade_last_runtime"
}

# A run that was cut off while it programmed the microcontroller.
cut_while_programming() {
    told_as_failure "$1"
    rm "$1/config/upgraded" "$1/config/written_slot.json" "$1/firmware/rollback.pkg"
    erased_microcontroller "$1"
    damaged_other_slot "$1"
}

foreign_application_after_failure() {
    told_as_failure "$1"
    foreign_application "$1"
}

# Digits that are not those of the slot, which is whole.
spoilt_record_of_other_slot() {
    twin_save_environment "$1" "slot_a_kernel=1 $(printf 'ab%.0s' {1..32})"
}

# It is not to be programmed by anybody but an installation.
no_repair() {
    sed -i 's/"mcu": {/"mcu": { "repair": false,/' "$1/etc-kavro/platform.json"
}

# make_other NAME TEXT: a build whose upgradectl does as the text says, with the words that it is given; "$tool" is the real one.
make_other() {
    mkdir -p "$work/$1/tools/upgradectl"
    ln -s "$build/twin" "$build/tests" "$work/$1"
    printf '#!/bin/sh\ntool="%s"\n%s\n' "$upgradectl" "$2" >"$work/$1/tools/upgradectl/upgradectl"
    chmod +x "$work/$1/tools/upgradectl/upgradectl"
}

# make_liar NAME FILTER: one that tells other versions.
make_liar() {
    # shellcheck disable=SC2016  # for the program that is made
    make_other "$1" "$(printf '[ "$1" = versions ] || exec "$tool" "$@"\n"$tool" "$@" | jq "%s"' "$2")"
}

# --- the cases ------------------------------------------------------------------------------------------------------

make_releases
make_factory --plain
on_device "$bases/factory" init
make_upgraded second
make_upgraded fourth runs_second
make_fallen started_second fallen_second
# shellcheck disable=SC2016  # for the programs that are made
{
    make_other writer '[ "$1" != rollback ] || echo copied >/firmware/recv.tar.xz; exec "$tool" "$@"'
    make_other forgiver '[ "$1" = rollback ] || exec "$tool" "$@"'
    make_other forgetter '[ "$1" != status ] || { echo "{}" && exit; }; exec "$tool" "$@"'
    make_other dropper '"$tool" "$@" || exit; [ "$1" != discard ] || : >/config/upgraded'
}
make_liar first_liar '.microcontroller += 1'
make_liar second_liar '.factory_version = .packages[1].version'
make_liar third_liar '.packages[1].version = null'

# What is in order, wholly: awaiting its activation, on trial, confirmed, failed on the way.
all_holds installed_second nothing
all_holds started_second nothing --keeps-way-back
all_holds installed_second cut_while_programming
# Whose releases have a microcontroller's firmware of the same version: its rollback is a switch.
all_holds runs_fourth nothing --keeps-way-back
# That went back by itself, and has nothing but a new release to go to.
all_holds fallen_second nothing
# And by its looks alone.
all_holds factory nothing --quick
all_holds activated_second nothing --quick --keeps-way-back
all_holds trial_second nothing --quick --keeps-way-back
all_holds runs_second nothing --quick --keeps-way-back
all_holds installed_second empty_version_record --quick
all_holds trial_second damaged_running_slot --quick --keeps-way-back
all_holds installed_second told_as_failure --quick
# What init puts right.
all_holds runs_second application_of_first --quick
all_holds runs_second erased_microcontroller --quick

# The microcontroller and the boot loader.
is_wrong "the microcontroller holds no application" installed_second erased_microcontroller --quick
is_wrong "runs version 8, and holds no release" installed_second foreign_application --quick
is_wrong "runs version 8, and holds no release" installed_second foreign_application_after_failure --quick
is_wrong "the microcontroller holds first, but the last run .* was of second" installed_second application_of_first --quick
is_wrong "the boot loader's partition holds no release" runs_second no_boot_loader --quick

# The packages.
is_wrong "awaits its activation after upgrade_success, but rollback.pkg is none" installed_second no_rollback_package --quick
all_holds installed_second no_rollback_package --quick --discards
is_wrong "awaits its activation after upgrade_success, but rollback.pkg is first" installed_second twice_the_same_package --quick
is_wrong "rollback.pkg is none of the packages" installed_second cut_rollback_package --quick
is_wrong "there is nothing to roll back to" runs_second no_rollback_package --quick --keeps-way-back
is_wrong "there is nothing to roll back to" trial_second twice_the_same_package --quick --keeps-way-back
is_wrong "current.pkg is gone" runs_second no_current_package --quick
is_wrong "a package was left aside" runs_second package_beside --quick

# The slots.
is_wrong "the device does not start" installed_second damaged_slots --quick
is_wrong "slot a, which was started, holds no release" factory unchecked_damaged_slot --quick
is_wrong "slot b, which awaits its activation, holds no release" installed_second damaged_other_slot --quick
is_wrong "activate fails" installed_second damaged_other_slot

# The way back.
is_wrong "a rollback to second, .* was no mere switch" runs_fourth nothing --build "$work/writer"
is_wrong "a rollback to second, which has failed its trial, ends with exit status 0" fallen_second nothing \
    --build "$work/forgiver"
is_wrong "something awaits its activation still" installed_second nothing --build "$work/dropper"
is_wrong "after a discard the microcontroller holds second, and first runs" installed_second no_repair

# What is told.
is_wrong "no slot holds second" factory told_as_success --quick
is_wrong "the last run's outcome is 'upgrade_succ'" installed_second cut_outcome --quick
is_wrong "written_slot.json is torn" installed_second torn_written_slot --quick
is_wrong "upgrade_config.json is torn" installed_second empty_version_record --quick --skip-init
is_wrong "the microcontroller is told as '9', and is '8'" runs_second nothing --quick --build "$work/first_liar"
is_wrong "the factory version is told as 'V01.104" runs_second nothing --quick --build "$work/second_liar"
is_wrong "rollback.pkg is told as 'null'" runs_second nothing --quick --build "$work/third_liar"

# The trial.
is_wrong "after the trial: the microcontroller is told as '8', and is '7'" started_second no_repair --quick
is_wrong "what the device fell back from is told as 'null'" started_second nothing --quick --build "$work/forgetter"
is_wrong "after its trial slot b still runs, though the other one holds first" trial_second spoilt_record_of_other_slot --quick

conclude
