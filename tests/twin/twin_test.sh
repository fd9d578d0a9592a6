#!/usr/bin/env bash
# The tests of the device twin: each function test_NAME is a case. `twin_test.sh NAME` runs one, `--list` names all.
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
twin=$root/twin/twin
not_run=77

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

new_twin() {
    "$twin" create device "$@"
}

on_device() {
    "$twin" run device -- "$@"
}

make_release() {
    "$root/twin/demo/make_release.sh" release "$@" >/dev/null
}

boot_state() {
    printf '{"boot_slot": "%s", "complete": {"a": %s, "b": %s}, "pending_slot": ""}\n' "$@" \
        >device/config/boot_state.json
}

# --- create ---------------------------------------------------------------------------------------------------------

test_a_new_device_has_the_given_versions() {
    new_twin --hw 3 --mpu 1 --mcu 0 --bld 12
    equal "version file" "$(jq -cS . device/etc-kavro/version.json)" \
        '{"bld_version":12,"hw_version":3,"mcu_version":0,"mpu_version":1}'
    equal "version in the flash memory" "$(od -An -tu4 -j 32776 -N 4 device/mcu/flash.bin | tr -d ' ')" 0
    equal "slot that starts" "$(jq -r .boot_slot device/config/boot_state.json)" a
    equal "running slot" "$(cat device/run/running_slot)" a
}

test_a_new_device_has_erased_flash_memory_behind_a_header() {
    new_twin --mcu 258
    equal "size" "$(stat -c %s device/mcu/flash.bin)" 524288
    equal "header" "$(od -An -tx1 -j 32768 -N 16 device/mcu/flash.bin)" \
        " 4b 41 56 52 4f 4d 43 55 02 01 00 00 00 00 00 00"
    equal "bytes that are not erased" "$(tr -d '\377' <device/mcu/flash.bin | wc -c)" 16
}

test_partitions_have_their_sizes() {
    new_twin
    local sizes
    sizes=$(cd device/partitions && stat -c '%n %s' -- *)
    equal "sizes" "$sizes" "bootloader 4194304
dtb_a 1048576
dtb_b 1048576
kernel_a 33554432
kernel_b 33554432
rootfs_a 100663296
rootfs_b 100663296"
}

test_platform_file_names_partitions_that_exist_inside() {
    new_twin
    local path paths
    paths=$(jq -r '.mpu.slots[][], .mpu.bootloader, .mpu.boot_state, .mpu.running_slot, .mcu.flash' \
        device/etc-kavro/platform.json)
    equal "number of paths" "$(wc -l <<<"$paths")" 10
    for path in $paths; do
        on_device test -f "$path" || die "$path does not exist on the device"
    done
}

test_components_fill_slot_a_the_boot_loader_and_the_microcontroller() {
    make_release 1 105 8 3
    new_twin --mpu 105 --mcu 8 --bld 3 --components release
    local place
    for place in a bootloader mcu; do
        "$twin" compare device "$place" release || die "$place differs"
    done
    ! "$twin" compare device b release >/dev/null || die "slot b is filled"
    cmp <(srec_cat release/mcu_flash_app.s19 -offset -32768 -o - -binary) \
        <(tail -c +32769 device/mcu/flash.bin | head -c $((16 + 96 * 1024)))
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
        [[ ! -e device ]] || die "a create without $component left something behind"
        mv kept "release/$component"
    done
    new_twin --components release
}

test_every_command_tells_its_usage() {
    local command
    for command in create run restart show compare reset remove; do
        "$twin" "$command" --help | grep -q "^       twin $command\|^usage: twin $command" || die "$command --help shows no usage"
        "$twin" "$command" -h | grep -q '^usage: ' || die "$command -h shows no usage"
    done
    [[ ! -e --help && ! -e -h ]] || die "a device was made"
}

test_wrong_arguments_are_refused() {
    fails_with "unknown command" "$twin" nonsense
    fails_with "directory is missing" "$twin" create
    fails_with "takes a number" "$twin" create device --hw one
    fails_with "needs a value" "$twin" create device --hw
    fails_with "does not know" "$twin" create device --unknown 1
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
    "$twin" create other
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
        "$1" run "$2" -- sh -c "id -u >/config/uid; tar -cf /raw/a.tar -C /etc/kavro . && tar -xf /raw/a.tar -C /raw"
        "$1" restart "$2"' bash "$command" "$device" "$PWD/copy"
    equal "uid inside" "$(cat "$device/config/uid")" 65534
    [[ -f $device/raw/platform.json ]] || die "tar did not unpack"
}

# --- restart --------------------------------------------------------------------------------------------------------

test_a_restart_runs_the_slot_that_the_boot_state_names() {
    new_twin
    boot_state b true true
    "$twin" restart device
    equal "running slot" "$(cat device/run/running_slot)" b
    boot_state a true true
    "$twin" restart device
    equal "running slot" "$(cat device/run/running_slot)" a
}

test_a_restart_empties_what_lies_in_memory_and_keeps_the_rest() {
    new_twin
    on_device sh -c 'mkdir /tmp/deep && touch /tmp/deep/x /tmp/.hidden /run/kavro/reset_request /raw/keep /config/keep'
    "$twin" restart device
    equal "/tmp" "$(ls -A device/tmp)" ""
    equal "/run/kavro" "$(ls -A device/run)" running_slot
    [[ -e device/raw/keep && -e device/config/keep ]] || die "more than memory was emptied"
}

test_a_restart_takes_the_versions_of_the_slots_root_file_system() {
    make_release 1 105 8 3
    new_twin
    dd if=release/ext4 of=device/partitions/rootfs_b bs=1M conv=notrunc status=none
    boot_state b true true
    "$twin" restart device
    equal "main processor" "$(jq .mpu_version device/etc-kavro/version.json)" 105
    equal "boot loader" "$(jq .bld_version device/etc-kavro/version.json)" 3
}

test_a_restart_without_a_root_file_system_keeps_the_versions() {
    new_twin --mpu 42
    "$twin" restart device
    equal "main processor" "$(jq .mpu_version device/etc-kavro/version.json)" 42
    [[ ! -e device/etc-kavro/version.json.new ]] || die "a half-made file is left"
}

test_a_slot_without_a_whole_image_does_not_start() {
    new_twin
    boot_state b true false
    fails_with "slot b holds no whole image" "$twin" restart device
    equal "running slot" "$(cat device/run/running_slot)" a
}

test_without_a_whole_boot_state_the_slot_that_ran_starts_again() {
    new_twin
    boot_state b true true
    "$twin" restart device
    local text
    for text in '' '{' '[]' '{"boot_slot": "c"}' '{"boot_slot": "../a"}' '{"boot_slot": 5}' \
        '{"boot_slot": "a", "complete": {"a": true, "b": true}}' \
        '{"boot_slot": "a", "complete": {"a": true}, "pending_slot": ""}' \
        '{"boot_slot": "a", "complete": {"a": true, "b": true}, "pending_slot": ""} {}'; do
        printf '%s' "$text" >device/config/boot_state.json
        equal "restart with '$text'" "$("$twin" restart device 2>err.txt)" "restarted from slot b"
        grep -q 'missing or damaged' err.txt || die "nothing is said about '$text'"
        equal "running slot" "$(cat device/run/running_slot)" b
        equal "boot state" "$(cat device/config/boot_state.json)" "$text"
    done
    rm device/config/boot_state.json
    "$twin" restart device
    equal "running slot" "$(cat device/run/running_slot)" b
}

test_without_boot_state_and_running_slot_nothing_starts() {
    new_twin
    rm device/config/boot_state.json device/run/running_slot
    fails_with "the running slot is unknown" "$twin" restart device
}

test_a_restart_waits_for_no_running_program() {
    new_twin
    on_device sh -c 'touch /raw/ready; until [ -e /raw/go ]; do sleep 0.1; done' &
    until [[ -e device/raw/ready ]]; do sleep 0.05; done
    fails_with "a program still runs" "$twin" restart device
    fails_with "a program still runs" "$twin" remove device
    touch device/raw/go
    wait
    "$twin" restart device
}

# --- show, reset, remove --------------------------------------------------------------------------------------------

test_show_tells_what_is_on_the_device() {
    new_twin --mpu 105
    printf 'upgrade_success' >device/config/upgrade_last_runtime
    : >device/config/upgraded
    printf 'package' >device/firmware/current.pkg
    boot_state b true true
    "$twin" show device --digests >shown.txt
    local line
    for line in 'versions  *1\.105\.7\.2 ' 'version record  *none ' 'microcontroller  *7 ' 'running slot  *a' \
        'next start  *b (whole images: a true, b true)' 'last run  *upgrade_success ' 'to be activated  *yes ' \
        "  current\.pkg  *7  sha256 $(printf 'package' | sha256sum | head -c 16)" \
        "  kernel_a  *33554432  sha256 $(head -c 32M /dev/zero | sha256sum | head -c 16)"; do
        grep -q "^$line" shown.txt || die "no line '$line' in: $(cat shown.txt)"
    done
}

test_show_without_digests_names_the_same_files() {
    new_twin
    printf 'package' >device/firmware/current.pkg
    diff <("$twin" show device | sed 's/ *$//') <("$twin" show device --digests | sed 's/ *sha256.*//')
}

test_show_reports_no_microcontroller_version_without_a_header() {
    new_twin
    head -c 524288 /dev/zero | tr '\0' '\377' >device/mcu/flash.bin
    "$twin" show device >shown.txt
    grep -q '^microcontroller  *none ' shown.txt || die "a version is shown"
}

test_reset_makes_the_device_as_it_was_created() {
    make_release 1 106 9 4
    new_twin --mpu 106 --mcu 9 --bld 4 --components release
    on_device sh -c 'rm /config/boot_state.json; touch /firmware/x; echo x >/dev/disk/by-partlabel/kernel_a'
    "$twin" reset device
    [[ -e device/config/boot_state.json && ! -e device/firmware/x ]] || die "the device is not as new"
    equal "main processor" "$(jq .mpu_version device/etc-kavro/version.json)" 106
    "$twin" compare device a release
}

test_remove_deletes_what_programs_made_unreadable() {
    new_twin
    on_device sh -c 'mkdir -p /raw/d/e && chmod 0 /raw/d/e /raw/d'
    "$twin" remove device
    [[ ! -e device ]] || die "it is still there"
}

# --- the launcher of the tests --------------------------------------------------------------------------------------

test_launcher_removes_its_device_and_passes_the_status_on() {
    local status=0
    "$root/tests/support/in_twin.sh" "$PWD/twins" "$root" --run /bin/sh -c 'touch /config/x; exit 5' || status=$?
    equal "status" "$status" 5
    equal "devices left" "$(ls -A twins)" ""
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
declare -F "test_$1" >/dev/null || die "there is no case '$1'"
scratch=$(mktemp -d)
trap 'chmod -R u+rwX "$scratch" && rm -rf "$scratch"' EXIT
cd "$scratch"
"test_$1"
