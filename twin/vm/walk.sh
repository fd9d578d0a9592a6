#!/usr/bin/env bash
# The life of a whole device, in a virtual machine: it runs a release, takes the package of the next one, installs it,
# restarts, is activated, runs the next one from the other slot, and goes back. What is checked is what the running machine
# says of itself.
#
#   walk.sh HOST_BUILD ARM64_BUILD SYSROOT WORK
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=releases.sh
source "$here/releases.sh"

host=$(realpath -- "$1") target=$(realpath -- "$2") sysroot=$(realpath -- "$3")
work=$(realpath -m -- "$4")/walk
machine=$work/machine
export KAVRO_TWIN_PROGRAMS=$host/twin

first=1.104.7.2
second=1.105.8.3
summary=()

on_device() {
    printf '$ %s\n' "$*"
    machine_run "$@"
}

# asked COMMAND: what the device answers; that it fails shows in the answer.
asked() {
    machine_run "$@" || true
}

# --- what the steps check -------------------------------------------------------------------------------------------

word_of_command_line() {
    asked cat /proc/cmdline | tr ' ' '\n' | sed -n "s/^$1=//p"
}

root_partition() {
    # shellcheck disable=SC2016  # for the shell on the device
    asked 'sed -n s/^PARTNAME=//p /sys/dev/block/$(awk '"'"'$5 == "/" { print $3 }'"'"' /proc/self/mountinfo)/uevent'
}

boot_loader_release() {
    strings "$machine/loader.bin" | sed -n 's/^boot loader of release //p'
}

# expect_running VERSION SLOT LOADER MCU: of everything that a release brings.
expect_running() {
    expect "architecture" "$(asked uname -m)" aarch64
    expect "root file system" "$(root_partition)" "rootfs_$2"
    expect "its release" "$(asked cat /etc/kavro-release)" "$1"
    expect "slot on the kernel's command line" "$(word_of_command_line boot_slot)" "$2"
    expect "release of the device tree" "$(word_of_command_line kavro.release)" "$1"
    expect "release of the boot loader" "$(boot_loader_release)" "$3"
    expect "microcontroller" "$(asked upgradectl versions --json | jq .microcontroller)" "$4"
}

# expect_next SLOT TRIAL
expect_next() {
    expect "next start" "$(asked fw_printenv -n boot_slot)" "$1"
    expect "on trial" "$(asked fw_printenv -n upgrade_available)" "$2"
}

# device_status: as JSON; that somebody must act, which is told on standard error, is no failure here.
device_status() {
    asked "upgradectl status --json 2>/dev/null"
}

# expect_status STATE LAST_RUN
expect_status() {
    local status
    status=$(device_status)
    expect "state" "$(jq -r .state <<<"$status")" "$1"
    expect "last run" "$(jq -r .last_run <<<"$status")" "$2"
}

# remember STEP: a line of the table that ends the walk.
remember() {
    summary+=("$(printf '%-22s %-11s %-5s %-5s %-6s %-4s %-17s %5d s' "$1" "$(asked cat /etc/kavro-release)" \
        "$(word_of_command_line boot_slot)" "$(asked fw_printenv -n boot_slot)" \
        "$(asked fw_printenv -n upgrade_available)" "$(asked upgradectl versions --json | jq .microcontroller)" \
        "$(device_status | jq -r .last_run)" "$SECONDS")")
}

# --- the steps ------------------------------------------------------------------------------------------------------

make_packages() {
    say "two releases, $first and $second"
    rm -rf "$work"
    mkdir -p "$work"
    make_key
    make_package "$first"
    make_package "$second"
    make_stick "$first" "$second"
    ls -l "$work/release-$second" "$work"/*.pkg
}

start() {
    say "$1"
    machine_boot "$machine" || expect "the device" "is silent" "obeys"
    expect "starts" "$starts" 1
    asked "dmesg | sed -n 's/.*\(init: version .*\)/\1/p'"
}

make_device() {
    machine_create "$machine" "$work/release-$first" "$work/$first.pkg"
    ln "$work/stick.img" "$machine/stick.img"
    mcu_start "$machine"
    start "a device with $first in slot a"
    asked uname -a
    expect_running "$first" a "$first" 7
    expect_next a 0
    expect_status idle none
    remember "new"
}

restart() {
    machine_reset || expect "the restart" "did not come" "comes"
    start "a restart"
}

install_second() {
    say "installing $second"
    on_device upgradectl install --plain "/media/$second.pkg" || expect "exit code" "$?" 0
    expect_status installed upgrade_success
    remember "installed $second"
}

check_first_still_runs() {
    expect_running "$first" a "$second" 8
    expect_next a 0
    expect_status installed upgrade_success
    remember "restarted"
}

activate_second() {
    say "activating $second"
    on_device upgradectl activate || expect "exit code" "$?" 0
    expect_next b 1
    remember "activated $second"
}

check_second_runs() {
    expect_running "$second" b "$second" 8
    expect_next b 0
    expect_status idle upgrade_success
    remember "restarted, confirmed"
}

roll_back() {
    say "rolling back to $first"
    on_device upgradectl rollback --plain || expect "exit code" "$?" 0
    expect_next a 1
    remember "rolled back"
}

check_first_runs_again() {
    expect_running "$first" a "$first" 7
    expect_next a 0
    expect_status idle rollback_success
    remember "restarted, confirmed"
}

show_summary() {
    say "what the device said of itself"
    printf '%-22s %-11s %-5s %-5s %-6s %-4s %-17s %s\n' step release runs next trial MCU "last run" "after"
    printf '%s\n' "${summary[@]}"
}

trap machine_cut EXIT
make_packages
make_device
install_second
restart
check_first_still_runs
activate_second
restart
check_second_runs
roll_back
restart
check_first_runs_again
show_summary
machine_cut
expect "emulators that ended by themselves" "${#machine_faults[@]}" 0
end_with_failures device
