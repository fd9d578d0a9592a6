#!/usr/bin/env bash
# The tests of the device twin: each function test_NAME is a case. `twin_test.sh [--block] NAME` runs one, on a device of
# the plain form or of the block form, `--list` names all. A line above a function says that the case runs on both forms,
# or on the block form only. KAVRO_TWIN_PROGRAMS names the directory of the built mcu-emulator.
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
twin=$root/twin/twin
not_run=77
form=plain

# shellcheck source=../../twin/device.sh
source "$root/twin/device.sh"

die() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# equal WHAT ACTUAL EXPECTED
equal() {
    [[ $2 == "$3" ]] || die "$1 is '$2', not '$3'"
}

# fails_with PATTERN COMMAND...: it fails and says so on standard error, and only there.
fails_with() {
    local pattern=$1 status=0
    shift
    "$@" >out.txt 2>err.txt || status=$?
    ((status)) || die "succeeded: $*"
    grep -q -- "$pattern" err.txt || die "'$*' does not say '$pattern' but: $(cat err.txt)"
    [[ ! -s out.txt ]] || die "'$*' failed and printed: $(cat out.txt)"
}

# ends_with_status STATUS PATTERN COMMAND...: as fails_with, and with this exit code.
ends_with_status() {
    local expected=$1 status=0
    shift
    fails_with "$@"
    shift
    "$@" >/dev/null 2>&1 || status=$?
    equal "the exit code of '$*'" "$status" "$expected"
}

new_twin() {
    "$twin" create device "--$form" "$@"
}

on_device() {
    "$twin" run device -- "$@"
}

make_release() {
    "$root/twin/demo/make_release.sh" release "$@" >/dev/null
}

# set_environment NAME=VALUE...
set_environment() {
    twin_save_environment "$PWD/device" "$@"
}

# variable NAME: of the boot environment.
variable() {
    twin_environment_tool "$PWD/device" fw_printenv | sed -n "s/^$1=//p"
}

# write_at PARTITION OFFSET TEXT
write_at() {
    printf '%s' "$3" | dd of="device/partitions/$1" bs=1 seek="$2" conv=notrunc status=none
}

# fill_slot SLOT: with little, of which the environment knows.
fill_slot() {
    local part text digest holds=()
    for part in kernel dtb rootfs; do
        text="the $part of slot $1"
        write_at "${part}_$1" 0 "$text"
        digest=$(printf '%s' "$text" | sha256sum)
        holds+=("slot_$1_$part=${#text} ${digest%% *}")
    done
    set_environment "${holds[@]}"
}

# make_startable SLOT: what a boot loader looks for, and nothing else.
make_startable() {
    write_at "kernel_$1" 56 $'ARM\x64'
    printf '\xd0\x0d\xfe\xed' | dd of="device/partitions/dtb_$1" conv=notrunc status=none
    printf '\x53\xef' | dd of="device/partitions/rootfs_$1" bs=1 seek=1080 conv=notrunc status=none
}

damage_environment() {
    local copy
    for copy; do
        write_at "$copy" 100 damage
    done
}

environment_digest() {
    cat device/partitions/env_a device/partitions/env_b | sha256sum
}

boot() {
    "$twin" boot device >boot.txt || die "the device does not start: $(cat boot.txt)"
}

# says LINE...: of the last boot.
says() {
    local line
    for line; do
        grep -qx -- "$line" boot.txt || die "no line '$line' in: $(cat boot.txt)"
    done
}

# runs SLOT
runs() {
    equal "running slot" "$(cat device/run/running_slot)" "$1"
}

# --- create ---------------------------------------------------------------------------------------------------------

test_a_new_device_has_the_given_versions() {
    new_twin --hw 3 --mpu 1 --mcu 0 --bld 12
    equal "version file" "$(jq -cS . device/etc-kavro/version.json)" \
        '{"bld_version":12,"hw_version":3,"mcu_version":0,"mpu_version":1}'
    equal "version in the flash memory" "$(od -An -tu4 -j 32776 -N 4 device/mcu/flash.bin | tr -d ' ')" 0
    equal "environment" "$(on_device fw_printenv | sort)" "boot_slot=a
bootcount=0
bootlimit=3
slots_unchecked=1
upgrade_available=0"
    runs a
}

test_a_new_device_has_two_whole_copies_of_its_environment() {
    local copy
    for copy in env_a env_b; do
        new_twin
        damage_environment "$copy"
        equal "without $copy" "$(variable boot_slot)" a
        "$twin" remove device
    done
}

# on both forms
test_partitions_have_their_sizes() {
    new_twin
    # shellcheck disable=SC2016  # expanded on the device
    equal "sizes" "$(on_device sh -c 'cd /dev/disk/by-partlabel; for p in *; do echo "$p $(wc -c <$p)"; done')" \
        "bootloader 4194304
dtb_a 1048576
dtb_b 1048576
env_a 16384
env_b 16384
kernel_a 33554432
kernel_b 33554432
rootfs_a 100663296
rootfs_b 100663296"
}

# on both forms
test_platform_file_names_partitions_that_exist_inside() {
    new_twin
    local path paths kind=-f
    [[ $form == plain ]] || kind=-b
    paths=$(jq -r '.mpu.slots[][], .mpu.bootloader' device/etc-kavro/platform.json)
    equal "number of partitions" "$(wc -l <<<"$paths")" 7
    for path in $paths; do
        on_device test "$kind" "$path" || die "$path does not exist on the device"
    done
    for path in $(jq -r '.mpu.boot_environment, .mpu.running_slot' device/etc-kavro/platform.json); do
        on_device test -f "$path" || die "$path does not exist on the device"
    done
    for path in $(on_device sed 's/ .*//' /etc/fw_env.config); do
        on_device test "$kind" "$path" || die "$path does not exist on the device"
    done
}

# on both forms
test_components_fill_slot_a_the_boot_loader_and_the_microcontroller() {
    make_release 1 105 8 3
    new_twin --mpu 105 --mcu 8 --bld 3 --components release
    local place part
    for place in a bootloader mcu; do
        "$twin" compare device "$place" release || die "$place differs"
    done
    ! "$twin" compare device b release >/dev/null || die "slot b is filled"
    cmp <(srec_cat release/mcu_flash_app.s19 -offset -32768 -o - -binary) \
        <(tail -c +32769 device/mcu/flash.bin | head -c $((16 + 96 * 1024)))
    for part in kernel dtb rootfs; do
        local component=release/${TWIN_COMPONENT_OF[$part]}
        equal "what slot a holds as $part" "$(variable "slot_a_$part")" \
            "$(stat -c %s "$component") $(sha256sum "$component" | cut -d ' ' -f 1)"
        equal "what slot b holds as $part" "$(variable "slot_b_$part")" ""
    done
    "$twin" show device >shown.txt
    grep -q '^microcontroller  *8 ' shown.txt || die "the application does not run: $(cat shown.txt)"
}

test_one_changed_byte_makes_a_slot_differ() {
    make_release 1 104 7 2
    new_twin --components release
    printf 'x' | dd of=device/partitions/rootfs_a bs=1 seek=60000000 conv=notrunc status=none
    ! "$twin" compare device a release >compare.txt || die "the change goes unseen"
    grep -q 'rootfs_a *differs' compare.txt || die "rootfs_a is not named"
    grep -q 'kernel_a *=' compare.txt || die "kernel_a is not compared"
}

test_a_component_larger_than_its_partition_is_refused() {
    make_release 1 104 7 2
    truncate -s $((1024 * 1024 + 1)) release/cv22_kavro_qz7.dtb
    fails_with "does not fit its partition" "$twin" create device --components release
    [[ ! -e device ]] || die "a refused create left something behind"
}

test_a_release_without_a_component_leaves_nothing_behind() {
    make_release 1 104 7 2
    local component
    for component in bld_release.bin mcu_flash_app.s19; do
        mv "release/$component" kept
        fails_with "$component" "$twin" create device --components release
        ! grep -q 'stat: ' err.txt || die "a tool's own words are told: $(cat err.txt)"
        [[ ! -e device ]] || die "a create without $component left something behind"
        grep -q '^  next: ' err.txt || die "no next step is told: $(cat err.txt)"
        mv kept "release/$component"
    done
    new_twin --components release
}

test_every_command_tells_its_usage() {
    local command
    for command in create run boot show compare reset detach remove; do
        "$twin" "$command" --help | grep -q "^       twin $command\|^usage: twin $command" || die "$command --help shows no usage"
        "$twin" "$command" -h | grep -q '^usage: ' || die "$command -h shows no usage"
    done
    [[ ! -e --help && ! -e -h ]] || die "a device was made"
}

test_wrong_arguments_are_refused() {
    fails_with "unknown command" "$twin" nonsense
    fails_with "directory is missing" "$twin" create
    fails_with "takes a number" "$twin" create device --hw one
    ends_with_status 2 "takes a number from 0 to 999, not '1000'" "$twin" create device --mpu 1000
    ends_with_status 2 "^  next: .*twin help$" "$twin" create device --mpu -1
    fails_with "needs a value" "$twin" create device --hw
    fails_with "does not know" "$twin" create device --unknown 1
    fails_with "is not a twin" "$twin" boot device
    fails_with "does not exist" "$twin" create device --components nowhere
    fails_with "is not a twin" "$twin" show .
    [[ ! -e device ]] || die "a refused create left something behind"
}

test_a_directory_that_holds_something_is_left_alone() {
    mkdir device
    echo precious >device/file
    fails_with "is not empty" "$twin" create device
    fails_with "is not a twin" "$twin" remove device
    equal "file" "$(cat device/file)" precious
}

# --- run ------------------------------------------------------------------------------------------------------------

# on both forms
test_what_is_written_inside_is_in_the_state_directory() {
    new_twin
    # shellcheck disable=SC2016  # expanded on the device
    on_device sh -c 'for d in config firmware raw etc/kavro tmp run/kavro dev/disk/by-partlabel dev/kavro-mcu; do
        echo "of $d" >/$d/note; done'
    equal "config" "$(cat device/config/note)" "of config"
    equal "firmware" "$(cat device/firmware/note)" "of firmware"
    equal "raw" "$(cat device/raw/note)" "of raw"
    equal "etc-kavro" "$(cat device/etc-kavro/note)" "of etc/kavro"
    equal "tmp" "$(cat device/tmp/note)" "of tmp"
    equal "run" "$(cat device/run/note)" "of run/kavro"
    equal "partitions" "$(cat device/partitions/note)" "of dev/disk/by-partlabel"
    equal "mcu" "$(cat device/mcu/note)" "of dev/kavro-mcu"
    equal "seen by the next run" "$(on_device cat /raw/note)" "of raw"
}

test_nothing_of_the_host_is_written() {
    new_twin
    local name=twin-test-$$ directory
    # shellcheck disable=SC2016  # expanded on the device
    on_device sh -c 'for d in / /usr /usr/lib /etc /tmp /var /var/tmp /home /root /run /dev /dev/shm "$2" "$2/twin"; do
        touch "$d/$1"; done 2>/dev/null; true' sh "$name" "$root"
    for directory in / /usr /usr/lib /etc /tmp /var /var/tmp /home /root /run /dev /dev/shm "$root" "$root/twin"; do
        [[ ! -e $directory/$name ]] || die "$directory/$name was written on the host"
    done
    [[ -e device/tmp/$name ]] || die "the program inside wrote nothing at all"
}

test_a_link_that_a_program_makes_lends_nothing_of_the_host() {
    new_twin
    mkdir precious
    on_device ln -s "$PWD/precious" /dev/disk/by-partlabel/precious
    ! on_device test -e "$PWD/precious" || die "the directory behind the link is on the device"
}

test_the_source_tree_is_read_only_inside() {
    new_twin
    on_device test -x "$twin" || die "the source tree is not visible"
    ! on_device sh -c ": >'$root/twin/device.sh'" 2>/dev/null || die "the source tree is writable"
    ! on_device touch "$root/twin/device.sh" 2>/dev/null || die "the source tree can be touched"
}

test_a_visible_directory_is_read_only_inside() {
    new_twin
    mkdir lent
    echo text >lent/file
    equal "file" "$("$twin" run device --visible lent -- cat "$PWD/lent/file")" text
    ! "$twin" run device --visible lent -- rm "$PWD/lent/file" 2>/dev/null || die "it is writable"
}

test_the_exit_status_is_the_programs() {
    new_twin
    local status=0
    on_device sh -c 'exit 57' || status=$?
    equal "status" "$status" 57
}

test_environment_is_passed_on() {
    new_twin
    equal "value" "$("$twin" run device --env 'GREETING=a=b c' -- printenv GREETING)" "a=b c"
}

test_the_uid_is_kept() {
    new_twin
    equal "uid" "$(on_device id -u)" "$(id -u)"
}

test_processes_of_the_host_are_not_seen() {
    new_twin
    ! on_device sh -c "kill -0 $$" 2>/dev/null || die "the host's process $$ can be signalled"
}

test_nothing_outlives_a_run() {
    new_twin
    on_device sh -c 'setsid sh -c "sleep 1; echo late >/raw/late" & :'
    sleep 2
    [[ ! -e device/raw/late ]] || die "a process lived on"
}

test_an_interrupt_goes_to_the_program_which_decides() {
    new_twin
    # shellcheck disable=SC2016  # expanded on the device
    setsid --wait "$twin" run device -- sh -c \
        'trap "echo interrupted >/raw/note; exit 9" INT; echo ready >/raw/ready; while :; do sleep 0.1; done' &
    local group=$! status=0
    until [[ -e device/raw/ready ]]; do sleep 0.05; done
    kill -INT -- "-$group"
    wait "$group" || status=$?
    equal "status" "$status" 9
    equal "note" "$(cat device/raw/note)" interrupted
}

test_a_small_disk_fills_up() {
    new_twin
    local status=0
    "$twin" run device --tmpfs-size /raw=64K -- dd if=/dev/zero of=/raw/file bs=1K count=65 status=none 2>err.txt || status=$?
    ((status)) || die "65 KiB fit on a disk of 64 KiB"
    grep -q 'No space left' err.txt || die "it failed for another reason: $(cat err.txt)"
    [[ ! -e device/raw/file ]] || die "the small disk was not in the place of /raw"
}

test_twins_side_by_side_do_not_see_each_other() {
    new_twin
    "$twin" create other --plain
    on_device touch /tmp/mine /config/mine
    equal "what the other sees" "$("$twin" run other -- sh -c 'ls /tmp /config | grep mine || echo none')" none
}

test_an_ordinary_user_can_run_it() {
    ((EUID == 0)) || return 0 # then every other case shows it
    setpriv --reuid 65534 --regid 65534 --clear-groups unshare --user true 2>/dev/null || exit "$not_run"
    mkdir copy
    cp -r "$root/twin" copy/
    chmod -R a+rX . && chown -R 65534:65534 copy
    local device=$PWD/copy/device command="$PWD/copy/twin/twin"
    # shellcheck disable=SC2016  # expanded by the ordinary user
    setpriv --reuid 65534 --regid 65534 --clear-groups bash -euc '
        cd "$3"
        "$1" create "$2"
        test -f "$2/partitions/kernel_a"
        ! "$1" create "$2-block" --block 2>err.txt
        grep -q "only root" err.txt
        "$1" run "$2" -- fw_setenv boot_slot b
        "$1" run "$2" -- sh -c "id -u >/config/uid; tar -cf /raw/a.tar -C /etc/kavro . && tar -xf /raw/a.tar -C /raw"
        "$1" boot "$2"' bash "$command" "$device" "$PWD/copy"
    equal "uid inside" "$(cat "$device/config/uid")" 65534
    equal "running slot" "$(cat "$device/run/running_slot")" b
    [[ -f $device/raw/platform.json ]] || die "tar did not unpack"
}

# --- the microcontroller --------------------------------------------------------------------------------------------

test_the_microcontroller_has_power_during_a_run() {
    new_twin
    on_device sh -c 'test -S /dev/kavro-mcu/link && ! flock --nonblock /dev/kavro-mcu/flash.bin true'
    flock --timeout 30 device/mcu/flash.bin true || die "it has power after the run"
}

test_runs_side_by_side_share_one_microcontroller() {
    new_twin
    on_device sh -c 'cat /proc/sys/kernel/random/uuid >>/dev/kavro-mcu/log; until [ -e /raw/go ]; do sleep 0.05; done' &
    until [[ $(wc -l <device/mcu/log) -gt 0 ]] 2>/dev/null && grep -q '.\{36\}' device/mcu/log; do sleep 0.05; done
    cp device/mcu/log before.txt
    on_device test -S /dev/kavro-mcu/link
    on_device sh -c '! flock --nonblock /dev/kavro-mcu/flash.bin true' || die "the first run is left without"
    equal "the log of the first" "$(head -c "$(wc -c <before.txt)" device/mcu/log)" "$(cat before.txt)"
    fails_with "too late for its faults" "$twin" run device --mcu-fault drop=1 -- true
    fails_with "runs already" "$twin" run device --no-mcu -- true
    touch device/raw/go
    wait
}

test_the_emulator_may_be_named_by_a_relative_path() {
    new_twin
    ln -s "$KAVRO_TWIN_PROGRAMS" programs
    KAVRO_TWIN_PROGRAMS=programs on_device test -S /dev/kavro-mcu/link
}

test_a_run_may_leave_the_microcontroller_without_power() {
    new_twin
    KAVRO_TWIN_PROGRAMS=/nowhere "$twin" run device --no-mcu -- flock --nonblock /dev/kavro-mcu/flash.bin true
    fails_with "needs a microcontroller" "$twin" run device --no-mcu --mcu-fault drop=1 -- true
}

# The emulator notices the end of a run a moment later.
test_a_run_right_after_another_has_a_microcontroller_of_its_own() {
    new_twin
    local round
    for round in 1 2 3 4 5; do
        on_device true
        "$twin" run device --mcu-fault drop=1.. -- true || die "round $round: the run before still holds it"
        echo "of the run before" >>device/mcu/log
        on_device true
        ! grep -q "of the run before" device/mcu/log || die "round $round: it is the one with the fault"
    done
}

test_a_fault_that_does_not_exist_is_refused_before_the_program_runs() {
    new_twin
    ends_with_status 2 "^twin: the fault 'nonsense=1' is not KIND" "$twin" run device --mcu-fault nonsense=1 -- touch /raw/note
    ends_with_status 2 "next: .*docs/mcu.md" "$twin" run device --mcu-fault nonsense=1 -- touch /raw/note
    ! grep -q 'mcu-emulator' err.txt || die "a program that no user calls is named: $(cat err.txt)"
    [[ ! -e device/raw/note ]] || die "the program ran"
}

test_without_the_emulator_it_is_said_how_to_get_it() {
    local command
    KAVRO_TWIN_PROGRAMS=/nowhere fails_with "/nowhere/mcu-emulator is missing" "$twin" create device
    [[ ! -e device ]] || die "a refused create left something behind"
    new_twin
    for command in "show device" "run device -- true" "reset device"; do
        # shellcheck disable=SC2086  # words
        KAVRO_TWIN_PROGRAMS=/nowhere fails_with "./dev build" "$twin" $command
    done
    [[ -e device/created-with ]] || die "the device is gone"
}

# --- boot -----------------------------------------------------------------------------------------------------------

# on both forms
test_a_boot_runs_the_slot_that_the_environment_names() {
    new_twin
    fill_slot a
    fill_slot b
    set_environment boot_slot=b
    boot
    says "Loading environment... OK" "Slot b: kernel, dtb and rootfs are as expected" "Starting slot b"
    runs b
    set_environment boot_slot=a
    boot
    runs a
}

test_a_boot_without_a_trial_leaves_the_environment_alone() {
    new_twin
    fill_slot a
    local before
    before=$(environment_digest)
    boot
    equal "environment" "$(environment_digest)" "$before"
}

test_a_boot_says_when_it_cannot_check_a_slot() {
    new_twin
    boot
    says "Slot a: not checked, the environment does not know its content"
    runs a
}

test_a_boot_empties_what_lies_in_memory_and_keeps_the_rest() {
    new_twin
    on_device sh -c 'mkdir /tmp/deep && touch /tmp/deep/x /tmp/.hidden /run/kavro/note /raw/keep /config/keep \
        /dev/kavro-mcu/reset_request'
    boot
    equal "/tmp" "$(ls -A device/tmp)" ""
    equal "/run/kavro" "$(ls -A device/run)" running_slot
    [[ -e device/raw/keep && -e device/config/keep ]] || die "more than memory was emptied"
    [[ ! -e device/mcu/reset_request ]] || die "the reset is still asked for"
}

# on both forms
test_a_boot_takes_the_versions_of_the_slots_root_file_system() {
    make_release 1 105 8 3
    new_twin
    dd if=release/ext4 of=device/partitions/rootfs_b bs=1M conv=notrunc status=none
    set_environment boot_slot=b
    boot
    equal "main processor" "$(jq .mpu_version device/etc-kavro/version.json)" 105
    equal "boot loader" "$(jq .bld_version device/etc-kavro/version.json)" 3
}

test_a_boot_without_a_root_file_system_keeps_the_versions() {
    new_twin --mpu 42
    boot
    equal "main processor" "$(jq .mpu_version device/etc-kavro/version.json)" 42
    [[ ! -e device/etc-kavro/version.json.new ]] || die "a half-made file is left"
}

# on both forms
test_a_slot_on_trial_is_counted_and_left_when_nobody_confirms_it() {
    new_twin
    fill_slot a
    fill_slot b
    set_environment boot_slot=b upgrade_available=1 bootlimit=2
    local start
    for start in 1 2; do
        boot
        says "Slot b: on trial, start $start of 2" "Starting slot b"
        equal "bootcount" "$(variable bootcount)" "$start"
        runs b
    done
    boot
    says "Warning: Bootlimit (2) exceeded: slot b was started that often and never confirmed" "Starting slot a"
    runs a
    equal "left for good" "$(variable boot_slot) $(variable upgrade_available) $(variable bootcount)" "a 0 0"
    boot
    runs a
}

test_a_confirmed_slot_is_not_counted() {
    new_twin
    set_environment boot_slot=b upgrade_available=1 bootlimit=1
    boot
    set_environment upgrade_available=0 bootcount=0
    boot
    boot
    runs b
    equal "bootcount" "$(variable bootcount)" 0
}

test_a_slot_that_nobody_has_activated_is_no_fall_back() {
    new_twin
    set_environment slots_unchecked=0
    fill_slot a
    write_at kernel_a 3 X
    ! "$twin" boot device >boot.txt 2>err.txt || die "it starts"
    says "Slot a: kernel is not what the environment expects" \
        "Slot b: was never activated, the environment does not know its content"
    equal "boot_slot" "$(variable boot_slot)" a
}

test_a_slot_on_trial_stays_when_the_other_cannot_start() {
    new_twin
    fill_slot a
    fill_slot b
    write_at rootfs_a 3 X
    set_environment boot_slot=b upgrade_available=1 bootcount=3
    boot
    says "Slot a: rootfs is not what the environment expects" "Staying with slot b" "Starting slot b"
    runs b
    equal "still on trial" "$(variable boot_slot) $(variable upgrade_available) $(variable bootcount)" "b 1 4"
}

test_a_trial_without_a_limit_goes_on() {
    new_twin
    set_environment boot_slot=b upgrade_available=1 bootcount=998 bootlimit=
    boot
    runs b
    equal "bootcount" "$(variable bootcount)" 999
}

# on both forms
test_a_slot_with_another_content_is_refused() {
    local part
    for part in kernel dtb rootfs; do
        new_twin
        fill_slot a
        fill_slot b
        set_environment boot_slot=b upgrade_available=1
        write_at "${part}_b" 3 X
        boot
        says "Slot b: $part is not what the environment expects" "Starting slot a"
        runs a
        equal "who starts next" "$(variable boot_slot) $(variable upgrade_available) $(variable bootcount)" "a 0 0"
        "$twin" remove device
    done
}

test_what_lies_behind_the_content_of_a_slot_does_not_matter() {
    new_twin
    fill_slot a
    write_at kernel_a 4096 "of another kernel"
    boot
    runs a
}

test_a_slot_that_the_environment_knows_in_part_is_refused() {
    local value
    for value in "" "17" "x 0" "17 $(printf '%064d' 0)x"; do
        new_twin
        fill_slot a
        fill_slot b
        set_environment boot_slot=b "slot_b_dtb=$value"
        boot
        runs a
        "$twin" remove device
    done
}

# on both forms
test_without_a_slot_that_can_start_nothing_runs() {
    new_twin
    fill_slot a
    fill_slot b
    write_at kernel_a 3 X
    write_at dtb_b 3 X
    ! "$twin" boot device >boot.txt 2>err.txt || die "it starts"
    grep -q "no slot can be started: the device does not start" err.txt || die "it says: $(cat err.txt)"
    says "Slot a: kernel is not what the environment expects" "Slot b: dtb is not what the environment expects"
    fails_with "the device does not run" "$twin" run device -- true
    equal "boot_slot" "$(variable boot_slot)" a
    fill_slot b
    boot
    runs b
}

test_one_damaged_copy_of_the_environment_does_no_harm() {
    local copy
    for copy in env_a env_b; do
        new_twin
        set_environment boot_slot=b
        set_environment boot_slot=b
        damage_environment "$copy"
        boot
        says "Loading environment... OK"
        runs b
        "$twin" remove device
    done
}

# on both forms
test_a_damaged_environment_is_replaced_by_the_default_one() {
    new_twin
    make_startable a
    make_startable b
    set_environment boot_slot=b upgrade_available=1 bootcount=2 bootlimit=9 slot_a_kernel=x
    damage_environment env_a env_b
    boot
    says 'Loading environment... \*\*\* Warning - bad CRC, using default environment' "Starting slot a"
    runs a
    equal "environment" "$(on_device fw_printenv | sort)" "boot_slot=a
bootcount=0
bootlimit=3
upgrade_available=0"
}

test_a_default_environment_takes_no_slot_unseen_at_any_start() {
    new_twin
    make_startable a
    damage_environment env_a env_b
    boot
    runs a
    write_at kernel_a 56 XXXX
    ! "$twin" boot device >boot.txt 2>err.txt || die "it starts"
    says "Slot a: kernel cannot be started" "Slot b: kernel cannot be started"
}

test_a_default_environment_starts_the_slot_that_can_be_started() {
    local part
    for part in kernel dtb rootfs; do
        new_twin
        make_startable a
        make_startable b
        head -c 2048 /dev/zero | dd of="device/partitions/${part}_a" conv=notrunc status=none
        damage_environment env_a env_b
        boot
        says "Slot a: $part cannot be started" "Starting slot b"
        runs b
        equal "boot_slot" "$(variable boot_slot)" b
        "$twin" remove device
    done
}

test_a_default_environment_starts_nothing_when_there_is_nothing() {
    new_twin
    damage_environment env_a env_b
    ! "$twin" boot device >boot.txt 2>err.txt || die "it starts"
    grep -q "the device does not start" err.txt || die "it says: $(cat err.txt)"
    equal "boot_slot" "$(variable boot_slot)" a
}

test_an_unknown_boot_slot_is_taken_for_slot_a() {
    local name
    for name in "" c ../a; do
        new_twin
        set_environment "boot_slot=$name"
        boot
        runs a
        "$twin" remove device
    done
}

test_a_boot_waits_for_no_running_program() {
    new_twin
    on_device sh -c 'touch /raw/ready; until [ -e /raw/go ]; do sleep 0.1; done' &
    until [[ -e device/raw/ready ]]; do sleep 0.05; done
    fails_with "a program still runs" "$twin" boot device
    fails_with "a program still runs" "$twin" remove device
    touch device/raw/go
    wait
    boot
}

# --- block devices --------------------------------------------------------------------------------------------------

# on block devices
test_a_block_device_has_file_systems_of_its_sizes() {
    new_twin
    local place
    for place in config firmware raw; do
        equal "file system of /$place" "$(on_device findmnt -no FSTYPE "/$place")" ext4
    done
    local images
    images=$(cd device/disks && stat -c '%n %s' config.img firmware.img raw.img)
    equal "sizes" "$images" "config.img 16777216
firmware.img 469762048
raw.img 2147483648"
}

loop_devices() {
    losetup --noheadings --output BACK-FILE | grep -c "^$PWD/device/" || true
}

# on block devices
test_a_device_is_of_block_devices_where_they_are_possible() {
    "$twin" create device >out.txt
    grep -q "twin detach" out.txt || die "it does not say what is left on the host: $(cat out.txt)"
    [[ -b device/partitions/kernel_a ]] || die "its partitions are no block devices"
    equal "form that is remembered" "$(head -n 1 device/created-with)" --block
    "$twin" remove device
}

# on block devices
test_a_removed_block_device_leaves_nothing_on_the_host() {
    new_twin
    equal "loop devices" "$(loop_devices)" 12
    "$twin" remove device
    equal "loop devices left" "$(loop_devices)" 0
    [[ ! -e device ]] || die "the directory is left"
}

# on block devices
test_a_device_below_a_long_path_is_removed() {
    local place
    place=$(printf 'long%.0s' {1..40})
    mkdir "$place"
    "$twin" create "$place/device" --mpu 104 --mcu 7 --bld 2 >/dev/null
    "$twin" remove "$place/device"
    equal "loop devices left" "$(losetup --list --noheadings --output BACK-FILE | grep -c "$place")" 0
    [[ ! -e $place/device ]] || die "the directory is left"
}

# on block devices
test_a_refused_create_leaves_no_block_devices() {
    make_release 1 104 7 2
    truncate -s $((1024 * 1024 + 1)) release/cv22_kavro_qz7.dtb
    fails_with "does not fit its partition" "$twin" create device --block --components release
    equal "loop devices left" "$(loop_devices)" 0
    [[ ! -e device ]] || die "the directory is left"
}

# on block devices
test_a_detached_block_device_is_attached_again_when_it_is_needed() {
    new_twin
    on_device sh -c 'echo kept >/config/note; echo kept >/dev/disk/by-partlabel/kernel_b'
    "$twin" detach device
    equal "loop devices" "$(loop_devices)" 0
    [[ ! -e device/config/note ]] || die "the file system is still mounted"
    equal "what the next run sees" "$(on_device cat /config/note)" kept
    equal "what the next run reads" "$(on_device head -n 1 /dev/disk/by-partlabel/kernel_b)" kept
    "$twin" detach device
    boot
    equal "loop devices" "$(loop_devices)" 12
}

# on block devices
test_a_loop_device_of_another_image_is_not_taken() {
    new_twin
    "$twin" detach device
    truncate -s 1M other.img
    local other
    other=$(losetup --find --show "$PWD/other.img")
    ln -s "$other" device/partitions/kernel_a
    on_device sh -c 'echo mine >/dev/disk/by-partlabel/kernel_a'
    losetup --detach "$other"
    equal "bytes in the other image" "$(tr -d '\0' <other.img | wc -c)" 0
}

# --- show, reset, remove --------------------------------------------------------------------------------------------

# on both forms
test_show_tells_what_is_on_the_device() {
    new_twin --mpu 105
    printf 'upgrade_success' >device/config/upgrade_last_runtime
    : >device/config/upgraded
    printf '{"slot": "b"}' >device/config/written_slot.json
    printf 'package' >device/firmware/current.pkg
    set_environment boot_slot=b upgrade_available=1 bootcount=2
    "$twin" show device --digests >shown.txt
    local line
    for line in 'versions  *1\.105\.7\.2 ' 'version record  *none ' 'microcontroller  *7 ' 'running slot  *a' \
        'next start  *b ' 'trial  *start 2 of 3 ' 'written slot  *b ' 'last run  *upgrade_success ' \
        'to be activated  *yes ' "  current\.pkg  *7  sha256 $(printf 'package' | sha256sum | head -c 16)" \
        "  kernel_a  *33554432  sha256 $(head -c 32M /dev/zero | sha256sum | head -c 16)"; do
        grep -q "^$line" shown.txt || die "no line '$line' in: $(cat shown.txt)"
    done
}

test_show_tells_that_there_is_no_trial_and_no_written_slot() {
    new_twin
    "$twin" show device >shown.txt
    grep -q '^trial  *none ' shown.txt || die "a trial is shown"
    grep -q '^written slot  *none ' shown.txt || die "a written slot is shown"
}

test_show_tells_that_the_environment_is_damaged() {
    new_twin
    damage_environment env_a env_b
    "$twin" show device >shown.txt
    grep -q '^next start  *unknown ' shown.txt || die "a slot is shown: $(cat shown.txt)"
}

test_show_without_digests_names_the_same_files() {
    new_twin
    printf 'package' >device/firmware/current.pkg
    diff <("$twin" show device | sed 's/ *$//') <("$twin" show device --digests | sed 's/ *sha256.*//')
}

test_show_reports_no_microcontroller_version_without_an_application() {
    new_twin
    "${KAVRO_TWIN_PROGRAMS:?}/mcu-emulator" format device/mcu/flash.bin
    "$twin" show device >shown.txt
    grep -q '^microcontroller  *none ' shown.txt || die "a version is shown"
}

# on both forms
test_reset_makes_the_device_as_it_was_created() {
    make_release 1 106 9 4
    new_twin --mpu 106 --mcu 9 --bld 4 --components release
    on_device sh -c 'touch /firmware/x; echo x >/dev/disk/by-partlabel/kernel_a; fw_setenv boot_slot b'
    "$twin" reset device
    equal "boot_slot" "$(variable boot_slot)" a
    [[ ! -e device/firmware/x ]] || die "the device is not as new"
    equal "main processor" "$(jq .mpu_version device/etc-kavro/version.json)" 106
    equal "a block device" "$([[ -L device/partitions/kernel_a ]] && echo block || echo plain)" "$form"
    "$twin" compare device a release
}

test_remove_deletes_what_programs_made_unreadable() {
    new_twin
    on_device sh -c 'mkdir -p /raw/d/e && chmod 0 /raw/d/e /raw/d'
    "$twin" remove device
    [[ ! -e device ]] || die "it is still there"
}

# --- the launcher of the tests --------------------------------------------------------------------------------------

# What the launcher keeps is a device that no case has used.
devices_left() {
    find twins -mindepth 1 -maxdepth 1 ! -name 'new-*'
}

test_launcher_removes_its_device_and_passes_the_status_on() {
    local status=0
    "$root/tests/support/in_twin.sh" "$PWD/twins" "$root" --run /bin/sh -c 'touch /config/x; exit 5' || status=$?
    equal "status" "$status" 5
    equal "devices left" "$(devices_left)" ""
}

# on block devices
test_launcher_leaves_nothing_of_its_block_devices() {
    local status=0
    "$root/tests/support/in_twin.sh" "$PWD/twins" "$root" --block --run /bin/sh -c \
        'test -b /dev/disk/by-partlabel/kernel_a && touch /config/x && exit 5' || status=$?
    equal "status" "$status" 5
    equal "devices left" "$(devices_left)" ""
    equal "loop devices left" "$(losetup --noheadings --output BACK-FILE | grep -c "^$PWD/" || true)" 0
}

# on both forms
test_launcher_gives_each_case_a_new_device() {
    local launcher=("$root/tests/support/in_twin.sh" "$PWD/twins" "$root") partition=/dev/disk/by-partlabel/kernel_a
    [[ $form == plain ]] || launcher+=(--block)
    "${launcher[@]}" --run /bin/sh -c "touch /config/x /raw/x; fw_setenv boot_slot b; echo x >$partition"
    "${launcher[@]}" --run /bin/sh -c "test ! -e /config/x && test ! -e /raw/x && fw_printenv | grep -qx boot_slot=a &&
        test \"\$(head -c 1 $partition | tr -d '\\0')\" = ''" || die "a case has found what another one left"
}

test_launcher_adds_options_to_the_name_space() {
    local kibibytes
    kibibytes=$("$root/tests/support/in_twin.sh" "$PWD/twins" "$root" -- --size 65536 --tmpfs /firmware --run \
        /bin/df -k --output=size /firmware | tail -n 1)
    equal "size of the small disk" "${kibibytes// /}" 64
}

# --- run one ----------------------------------------------------------------------------------------------------------

if [[ ${1-} == --list ]]; then
    declare -F | sed -n 's/^declare -f test_//p'
    exit
fi
if [[ $1 == --block ]]; then
    form=block
    why=$(twin_why_no_block_devices)
    if [[ -n $why ]]; then
        printf 'not run: %s\n' "$why"
        exit "$not_run"
    fi
    twin_take_own_mounts "$0" "$@"
    shift
fi
declare -F "test_$1" >/dev/null || die "there is no case '$1'"

clean_up() {
    ! twin_is_block "$scratch/device" || twin_detach_disks "$scratch/device"
    # A microcontroller may just be ending, and take its link away meanwhile.
    chmod -R u+rwX "$scratch" 2>/dev/null || true
    rm -rf "$scratch"
}
scratch=$(mktemp -d)
trap clean_up EXIT
cd "$scratch"
"test_$1"
