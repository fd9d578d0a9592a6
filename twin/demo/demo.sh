#!/usr/bin/env bash
# The main job from end to end, on an emulated device: a signed package is installed, started on trial and confirmed; a
# run is cut off by a microcontroller that loses power, and repeated; a slot that nobody confirms is left again, and what
# it left behind is put right; the device is rolled back. What it then holds is compared with what the packages were made from; any difference ends the
# demo with an error.
#
#   demo.sh [--plain] [--brief] BUILD_DIR [WORK_DIR]
#
# As root the device has real file systems and block devices, unless --plain is given or the host has no loop devices.
# --brief is the same with small components.
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../device.sh
source "$here/../device.sh"
# shellcheck source=../checks.sh
source "$here/../checks.sh"

form=block release_options=() loses_power_at=40
if [[ $1 == --plain || -n $(twin_why_no_block_devices) ]]; then form=plain; fi
[[ $1 != --plain ]] || shift
# The microcontroller's application has fewer blocks then.
if [[ $1 == --brief ]]; then
    release_options=(--small) loses_power_at=4
    shift
fi
build=$(realpath -- "$1")
work=$(realpath -m -- "${2:-$build/demo}")
device=$work/device
upgradectl=$build/tools/upgradectl/upgradectl
export KAVRO_TWIN_PROGRAMS=$build/twin

first=1.104.7.2
second=1.105.8.3
third=1.106.9.3
package_bytes=134217728
start_limit=3
summary=()

twin() {
    "$here/../twin" "$@"
}

# look: at what shown tells.
look() {
    device_shown=$(twin show "$device")
}

# run_on_device [RUN_OPTION...] -- COMMAND...
run_on_device() {
    twin run "$device" --visible "$build" --visible "$work" "$@"
}

on_device() {
    printf '$ upgradectl %s\n' "$*"
    run_on_device -- "$upgradectl" "$@"
    look
}

boot_device() {
    twin boot "$device"
    look
}

# --- what the steps check -------------------------------------------------------------------------------------------

# shown NAME: a line of `twin show`, without what stands in brackets, when the demo looked last.
shown() {
    sed -n "s/^$1  *//p" <<<"$device_shown" | sed 's/ (.*//'
}

# expect_content PLACE VERSION: a slot, the boot loader or the microcontroller holds what is in that package.
expect_content() {
    if twin compare "$device" "$1" "$work/in-package-$2"; then
        printf '  ok    %s holds what is in the package %s\n' "$1" "$2"
    else
        printf '  FAIL  %s does not hold what is in the package %s\n' "$1" "$2"
        failures=$((failures + 1))
    fi
}

# expect_package NAME VERSION|none
expect_package() {
    local kept=$device/firmware/$1 held=another
    if [[ ! -e $kept ]]; then
        held=none
    elif cmp -s "$kept" "$work/$2.pkg"; then
        held=$2
    fi
    expect "/firmware/$1" "$held" "$2"
}

# expect_slots RUNNING NEXT TRIAL
expect_slots() {
    expect "running slot" "$(shown 'running slot')" "$1"
    expect "next start" "$(shown 'next start')" "$2"
    expect "trial" "$(shown trial)" "$3"
}

# What a run that fails must not touch: the slot that runs, and who starts next.
digest_of_what_runs() {
    local slot
    slot=$(shown 'running slot')
    (cd "$device/partitions" && cat "kernel_$slot" "dtb_$slot" "rootfs_$slot" env_a env_b) | b2sum | cut -c 1-16
}

# remember STEP: one line of the table that ends the demo.
remember() {
    summary+=("$(printf '%-38s %-11s %-5s %-5s %-13s %-4s %s' "$1" "$(shown versions)" "$(shown 'running slot')" \
        "$(shown 'next start')" "$(shown trial)" "$(shown microcontroller)" "$(shown 'last run')")")
}

# --- the steps ------------------------------------------------------------------------------------------------------

make_packages() {
    say "three releases, $first, $second and $third: components, signatures, packages"
    openssl genpkey -quiet -algorithm RSA -pkeyopt rsa_keygen_bits:3072 -out "$work/release-key.pem" 2>/dev/null
    local version
    for version in "$first" "$second" "$third"; do
        # shellcheck disable=SC2046  # the four numbers of the version
        "$here/make_release.sh" "${release_options[@]}" "$work/release-$version" $(tr . ' ' <<<"$version")
        "$upgradectl" pack --output "$work/$version.pkg" --key "$work/release-key.pem" --version "$version" \
            --stamp 20261121120000 --branch main --user demo "$work/release-$version"
        expect "size of $version.pkg" "$(stat -c %s "$work/$version.pkg")" "$package_bytes"
        mkdir "$work/in-package-$version"
        tar -xf "$work/$version.pkg" -C "$work/in-package-$version"
        expect "components in $version.pkg that differ from the release" \
            "$(diff -rq "$work/release-$version" "$work/in-package-$version" | grep -v '\.sign$\|version_list\.acs differ$' || echo none)" none
    done
    ls -l "$work/in-package-$second"
}

make_device() {
    say "a device ($form form) that runs $first from slot a"
    twin create "$device" "--$form" --hw 1 --mpu 104 --mcu 7 --bld 2 --components "$work/release-$first"
    cp "$work/$first.pkg" "$device/firmware/current.pkg"
    on_device init
    twin show "$device" --digests
    expect "versions" "$(shown versions)" "$first"
    expect "microcontroller" "$(shown microcontroller)" 7
    expect_content a "$first"
    remember "before"
}

start_anew() {
    say "a restart"
    boot_device
    on_device init
}

# Another program on the device follows the run by its messages and its log.
start_watching() {
    run_on_device -- timeout 120 "$upgradectl" watch --until-end >"$work/watch.txt" 2>&1 &
    watcher=$!
}

show_what_was_watched() {
    local status=0
    wait "$watcher" || status=$?
    printf '$ upgradectl watch --until-end, in a second program meanwhile\n'
    cat "$work/watch.txt"
    expect "exit code of the watcher" "$status" 0
    expect "the end that it saw" "$(grep -c 'state FINISH' "$work/watch.txt")" 1
}

install_second() {
    say "installing $second"
    start_watching
    on_device install "$work/$second.pkg"
    show_what_was_watched
    expect_content b "$second"
    expect_content bootloader "$second"
    expect_content mcu "$second"
    expect_content a "$first"
    expect_slots a a none
    expect "written slot" "$(shown 'written slot')" b
    expect "to be activated" "$(shown 'to be activated')" yes
    expect "last run" "$(shown 'last run')" upgrade_success
    expect_package current.pkg "$first"
    expect_package rollback.pkg "$second"
    remember "installed $second"
}

check_first_still_runs() {
    expect_slots a a none
    expect "versions" "$(shown versions)" "$first"
    remember "restarted"
}

# activate VERSION BEFORE RUNNING_SLOT NEXT_SLOT
activate() {
    say "activating $1"
    on_device activate
    expect_slots "$3" "$4" "start 0 of $start_limit"
    expect "written slot" "$(shown 'written slot')" none
    expect "to be activated" "$(shown 'to be activated')" no
    expect_package current.pkg "$1"
    expect_package rollback.pkg "$2"
    remember "activated $1"
}

confirm_second() {
    expect_slots b b "start 1 of $start_limit"
    expect "versions" "$(shown versions)" "$second"
    expect "microcontroller" "$(shown microcontroller)" 8
    remember "restarted"
    say "confirming slot b"
    on_device confirm
    on_device status
    expect_slots b b none
    expect "version record" "$(shown 'version record')" "$second"
    remember "confirmed $second"
}

fail_to_install_third() {
    say "installing $third while the microcontroller loses power"
    local before status=0
    before=$(digest_of_what_runs)
    printf '$ upgradectl install %s\n' "$work/$third.pkg"
    run_on_device --mcu-fault "power-loss=$loses_power_at" -- "$upgradectl" install "$work/$third.pkg" || status=$?
    look
    printf 'the last that was heard of the microcontroller:\n'
    tail -n 4 "$device/mcu/log"
    expect "exit code" "$status" 4
    expect "running slot and environment" "$(digest_of_what_runs)" "$before"
    expect "microcontroller" "$(shown microcontroller)" none
    expect "last run" "$(shown 'last run')" upgrade_failure
    expect_slots b b none
    remember "failed to install $third"
}

install_third() {
    say "installing $third again"
    on_device install "$work/$third.pkg"
    expect_content a "$third"
    expect_content mcu "$third"
    expect_content b "$second"
    expect "microcontroller" "$(shown microcontroller)" 9
    expect "last run" "$(shown 'last run')" upgrade_success
    remember "installed $third"
}

never_confirm_third() {
    say "slot a starts, and nobody confirms it"
    local start
    for ((start = 1; start <= start_limit; start++)); do
        boot_device
        expect_slots a a "start $start of $start_limit"
    done
    remember "started $start_limit times"
    boot_device
    expect_slots b b none
    expect "versions" "$(shown versions)" "$second"
    remember "started once more"
}

put_right() {
    say "the microcontroller and the packages follow the software that runs"
    expect "microcontroller" "$(shown microcontroller)" 9
    on_device init
    expect_content mcu "$second"
    expect_package current.pkg "$second"
    expect_package rollback.pkg "$third"
    expect_slots b b none
    remember "put right by init"
}

third_is_not_gone_back_to() {
    say "there is no way back to a release that failed its trial"
    local status=0
    printf '$ upgradectl rollback\n'
    run_on_device -- "$upgradectl" rollback || status=$?
    look
    expect "exit code" "$status" 3
    expect_slots b b none
    expect_package rollback.pkg "$third"
}

install_third_by_force() {
    say "installing $third once more, which takes --force"
    on_device install --force "$work/$third.pkg"
    expect_content a "$third"
    expect "microcontroller" "$(shown microcontroller)" 9
    remember "installed $third by force"
}

confirm_third() {
    on_device confirm
    expect_slots a a none
    expect "versions" "$(shown versions)" "$third"
    remember "confirmed $third"
}

roll_back() {
    say "rolling back to $second"
    on_device rollback
    expect_content b "$second"
    expect_content mcu "$second"
    expect_content a "$third"
    expect "last run" "$(shown 'last run')" rollback_success
    expect "to be activated" "$(shown 'to be activated')" no
    expect_slots a b "start 0 of $start_limit"
    expect_package current.pkg "$second"
    expect_package rollback.pkg none
    remember "rolled back to $second"
}

check_second_runs() {
    on_device confirm
    on_device status
    twin show "$device" --digests
    expect_slots b b none
    expect "versions" "$(shown versions)" "$second"
    expect "version record" "$(shown 'version record')" "$second"
    expect "microcontroller" "$(shown microcontroller)" 8
    remember "restarted and confirmed"
}

show_summary() {
    say "what changed on the device"
    printf '%-38s %-11s %-5s %-5s %-13s %-4s %s\n' step version runs next trial MCU "last run"
    printf '%s\n' "${summary[@]}"
    printf '\nThe device stays in %s (twin/twin show, twin/twin run, twin/twin remove).\n' "$device"
}

remove_old_device() {
    [[ ! -e $device/created-with ]] || twin remove "$device"
    rm -rf "$work"
}

# However the demo ends, nothing of the device stays mounted on the host.
let_go() {
    [[ ! -d $device/disks ]] || twin detach "$device"
}

trap let_go EXIT
remove_old_device
mkdir -p "$work"
make_packages
make_device
install_second
start_anew
check_first_still_runs
activate "$second" "$first" a b
start_anew
confirm_second
fail_to_install_third
install_third
start_anew
activate "$third" "$second" b a
never_confirm_third
put_right
third_is_not_gone_back_to
install_third_by_force
activate "$third" "$second" b a
start_anew
confirm_third
roll_back
start_anew
check_second_runs
show_summary

end_with_failures demo
