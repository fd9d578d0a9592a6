#!/usr/bin/env bash
# Cuts the power of an emulated device at the state-changing calls of everything that it does, and judges what starts.
#
#   power_cut.sh [OPTION...]
#
#   --quick            a bounded selection (the default): some cuts of each scenario
#   --full             all cuts, with each way in which the kernel may have flushed what nobody flushed, and second cuts,
#                      of the start that follows the first
#   --list             the points of each scenario, and nothing is cut
#   --scenario NAME    this one only; may be repeated
#   --only ID          this cut only, as a failure names it
#   --self-test        the suite must lose what was not flushed, and must find deliberate faults
#   --jobs N           how many devices are judged side by side (2)
#   --build release=DIR  the build (build/release)
#   --json FILE        a line for each cut: kind, id, outcome, and why it failed
#   --work DIR         where the devices are (a directory of the build; a few GiB)
#   --keep             leaves the devices that failed there, in the image DIR/storage.img
#
# An id is SCENARIO/POLICY/CALL:PATH#NTH. A POLICY says what the kernel had written by itself at the instant of the cut:
# `none` nothing; `config`, `firmware`, `partitions` that one; `all` the journals of all file systems and the partitions;
# `torn` half of a save of the boot environment.
# A second cut, in the start that follows the first one, is FIRST+POLICY/CALL:PATH#NTH.
#
# Exit status 1 when something failed, 77 when the host cannot run it.
set -Eeuo pipefail

root=$(cd -- "${BASH_SOURCE[0]%/*}/../.." && pwd)
here=$root/tests/fault
twin=$root/twin/twin
# shellcheck source=../../twin/device.sh
source "$root/twin/device.sh"
# shellcheck source=releases.sh
source "$here/releases.sh"

mode=quick only='' jobs=2 json='' work='' keep=false list=false self_test=false
wanted=()
build=$root/build/release
given=("$@")
while (($#)); do
    case $1 in
    --quick | --full) mode=${1#--} ;;
    --list) list=true ;;
    --self-test) self_test=true ;;
    --keep) keep=true ;;
    --scenario) wanted+=("$2") && shift ;;
    --only) only=$2 && shift ;;
    --jobs) jobs=$2 && shift ;;
    --json) json=$(realpath -m -- "$2") && shift ;;
    --work) work=$(realpath -m -- "$2") && shift ;;
    --build)
        [[ $2 != release=* ]] || build=${2#release=}
        shift
        ;;
    *) printf '%s: unknown option %s\n' "$0" "$1" >&2 && exit 2 ;;
    esac
    shift
done
build=$(realpath -m -- "$build")
export KAVRO_TWIN_PROGRAMS=$build/twin
upgradectl=$build/tools/upgradectl/upgradectl
programs=$build/tests/fault

not_run() {
    printf 'power_cut: not run: %s\n' "$1"
    exit 77
}

die() {
    printf 'power_cut: %s\n' "$1" >&2
    exit 2
}

why=$(twin_why_no_block_devices)
[[ -z $why ]] || not_run "$why"
[[ -x $build/tests/fault/power_cut_watch ]] || not_run "$build has no tests/fault/power_cut_watch: './dev build' makes it"
command -v mkfs.xfs >/dev/null || not_run "mkfs.xfs is missing (package xfsprogs)"
modprobe -q xfs 2>/dev/null || true
grep -qw xfs /proc/filesystems || not_run "the kernel has no XFS"
twin_take_own_mounts "${BASH_SOURCE[0]}" "${given[@]}"

# --- the storage ----------------------------------------------------------------------------------------------------

# Devices that still are attached keep the image in use; what judges them ends by itself.
let_go() {
    local device file
    wait
    losetup --list --noheadings --output NAME,BACK-FILE | while read -r device file; do
        [[ $file != "$storage"/* ]] || losetup --detach "$device" || true
    done
    umount --recursive "$storage" || true
    "$keep" || rm -rf -- "$work"
}

make_storage() {
    [[ -n $work ]] || work=$(mktemp -d "$build/power_cut.XXXXXXXX")
    storage=$work/storage bases=$work/storage/bases releases=$work/releases
    mkdir -p "$storage"
    rm -f "$work/storage.img"
    truncate -s 64G "$work/storage.img"
    mkfs.xfs -q -m reflink=1 "$work/storage.img"
    mount -o loop,discard "$work/storage.img" "$storage" || not_run "an XFS image cannot be mounted"
    trap let_go EXIT
    trap 'printf "power_cut: line %d: %s\n" "$LINENO" "$BASH_COMMAND" >&2' ERR
    trap 'exit 143' TERM
    trap 'exit 130' INT
}

# copy_device FROM TO: of one that is detached.
copy_device() {
    rm -rf -- "$2"
    mkdir -p "${2%/*}"
    cp -a --reflink=always -- "$1" "$2"
}

# attach DEVICE COMMIT: mounts its file systems as severely as they can be: what was not flushed is not flushed by
# anybody else, but for the journal every COMMIT seconds.
attach() {
    local name
    for name in "${!TWIN_FILE_SYSTEM_SIZE[@]}"; do
        mount -t ext4 -o "loop,noinit_itable,noauto_da_alloc,commit=$2" "$1/disks/$name.img" "$1/$name"
    done
    twin_attach_disks "$1"
}

# --- releases, packages, devices ------------------------------------------------------------------------------------

declare -A component_bytes=()  # by RELEASE/COMPONENT

measure_components() {
    local file
    for file in "$releases"/*/*; do
        component_bytes[${file#"$releases/"}]=$(stat -c %s "$file")
    done
}

# grown FROM TO: a device that is going to be another one.
grown() {
    "$twin" detach "$bases/$1" 2>/dev/null || true
    copy_device "$bases/$1" "$bases/$2"
}

# What each scenario begins with.
make_devices() {
    mkdir -p "$bases"
    make_factory --block
    on_device "$bases/factory" init
    local release
    for release in second third; do
        make_upgraded "$release"
    done
    grown factory fresh
    "$twin" boot "$bases/fresh" >/dev/null
    rm "$bases/fresh/config/upgrade_config.json"
    local device
    for device in "$bases"/*; do
        sync -f "$device/config" "$device/firmware"
        "$twin" detach "$device" 2>/dev/null || true
        cp "$programs/libkavro_fault_interpose.so" "$device/mcu/interpose.so"
    done
}

# --- scenarios ------------------------------------------------------------------------------------------------------

begins_with+=([install-over]=activated_second [start]=activated_second)
does+=([install-over]='install RELEASES/third.pkg' [start]=START)
brings+=([install-over]=third [start]=second)
order=(activate confirm rollback-switch init start install rollback-flash install-over install-third)

watched=(LD_PRELOAD=/dev/kavro-mcu/interpose.so KAVRO_FAULT_BOARD=/dev/kavro-mcu/board)

# watch DEVICE WATCH_OPTION... -- START|ARGUMENT...: upgradectl with these arguments, or what happens at a start.
watch() {
    local device=$1 options=() environment=() pair
    shift
    while [[ $1 != -- ]]; do
        options+=("$1")
        shift
    done
    if [[ $2 == START ]]; then
        "$programs/power_cut_watch" --state "$device" "${options[@]}" -- \
            "$here/start_device.sh" "$device" "$upgradectl" "${watched[@]}"
        return
    fi
    for pair in "${watched[@]}"; do
        environment+=(--env "$pair")
    done
    "$programs/power_cut_watch" --state "$device" "${options[@]}" -- "$twin" run "$device" --visible "$build" \
        --visible "$releases" "${environment[@]}" -- "$upgradectl" "${@:2}"
}

# committed_by POLICY: for power_cut_watch.
committed_by() {
    case $1 in
    none) ;;
    all) printf -- '--commit\nconfig,firmware,raw,partitions\n' ;;
    config | firmware | partitions | torn) printf -- '--commit\n%s\n' "$1" ;;
    *) die "no policy '$1'" ;;
    esac
}

# cut_run FROM OUT POLICY COMMAND [WATCH_OPTION...]: makes the twins OUT/NUMBER, one for each cut.
cut_run() {
    local device=$storage/run policy words status=0
    copy_device "$1" "$device"
    cp "$programs/libkavro_fault_interpose.so" "$device/mcu/interpose.so"
    attach "$device" 300
    mapfile -t policy < <(committed_by "$3")
    read -ra words <<<"${4//RELEASES/$releases}"
    mkdir -p "$2"
    watch "$device" --out "$2" "${policy[@]}" "${@:5}" -- "${words[@]}" >"$2.log" 2>&1 || status=$?
    "$twin" detach "$device"
    rm -rf -- "$device"
    ((status == 0)) || remember_failure "${2#"$storage/cuts/"}/run" "the run that is cut failed, exit status $status: $(tail -n 2 "$2.log" | tr '\n' '|')"
}

# --- the states that cuts leave -------------------------------------------------------------------------------------

# Two digests tell states apart, as the next start finds them. The exact one is of all that lasts, but for the content of
# /raw, which the next run empties. The other one is the same for states that differ only in how far something got that
# no program ever reads: a .part file, a slot's partition or the microcontroller's memory that holds no release as a whole.

exact_state() {
    (cd -- "$1" && tar --sparse --sort=name --mtime=@0 --exclude=lost+found -cf - config firmware etc-kavro mcu/flash.bin \
        disks/{kernel,dtb,rootfs}_{a,b}.img disks/bootloader.img disks/env_{a,b}.img) | sha256sum | cut -c 1-16
}

# held_by PARTITION COMPONENT: the first release whose component it holds.
held_by() {
    local release
    for release in first second third next; do
        if cmp -s -n "${component_bytes[$release/$2]}" "$1" "$releases/$release/$2"; then
            printf '%s\n' "$release"
            return
        fi
    done
    printf 'none\n'
}

rough_state() {
    local slot part
    {
        (cd -- "$1" && tar --sparse --sort=name --mtime=@0 --exclude=lost+found --exclude='*.part' -cf - config firmware \
            etc-kavro disks/env_{a,b}.img)
        find "$1/config" "$1/firmware" -name '*.part' -printf '%P\n' | sort
        for slot in a b; do
            for part in kernel dtb rootfs; do
                held_by "$1/disks/${part}_$slot.img" "${TWIN_COMPONENT_OF[$part]}"
            done
        done
        held_by "$1/disks/bootloader.img" "${TWIN_COMPONENT_OF[bootloader]}"
        "$build/twin/mcu-emulator" version "$1/mcu/flash.bin" || true
    } | sha256sum | cut -c 1-16
}

# write_state DEVICE: both, in DEVICE/state.
write_state() {
    local name
    for name in config firmware; do
        mount -t ext4 -o loop,noinit_itable "$1/disks/$name.img" "$1/$name"
    done
    printf '%s %s\n' "$(exact_state "$1")" "$(rough_state "$1")" >"$1/state"
    for name in config firmware; do
        umount "$1/$name"
    done
}

# --- verdicts -------------------------------------------------------------------------------------------------------

# A line for each cut: SCENARIO, ID, STATE, DIRECTORY. Cuts that left the same may share a directory.
cuts=()
after_sync=0  # how many of them came after a flush of everything on this host, by the device or by another program
failures=0

remember_failure() {
    failures=$((failures + 1))
    printf 'FAILED %s: %s\n' "$1" "$2"
    report "$1" failed "$2"
}

# report ID OUTCOME [WHY]
report() {
    [[ -z $json ]] || jq -cn --arg id "$1" --arg outcome "$2" --arg why "${3-}" \
        '{kind: "power_cut", id: $id, outcome: $outcome} + if $why == "" then {} else {why: $why} end' >>"$json"
}

# collect SCENARIO PREFIX OUT: the cuts of a run, each with its state.
collect() {
    local directory id synced
    for directory in "$3"/[0-9]*/; do
        in_parallel write_state "${directory%/}"
    done
    wait
    for directory in "$3"/[0-9]*/; do
        while IFS=$'\t' read -r _ _ id _ _ synced; do
            [[ $synced != synced ]] || after_sync=$((after_sync + 1))
            cuts+=("$1"$'\t'"$2/$id"$'\t'"$(<"$directory/state")"$'\t'"${directory%/}")
        done <"$directory/cut"
    done
}

# judge SCENARIO DIRECTORY [CHECK_OPTION...]: on a device of its own; DIRECTORY.verdict says "ok" or what does not hold.
# On a busy machine an answer may come too late for the short clock: what fails is judged once more by the real one.
judge() {
    local device=$2.judged speed over=()
    [[ $1 != install-over* ]] || over=(--over "$releases/second")
    for speed in 8 1; do
        [[ ! -s $2.said ]] || cp -- "$2.said" "$2.said_before"
        copy_device "$2" "$device"
        KAVRO_CLOCK_SPEED=$speed "$here/check_device.sh" --build "$build" --next "$releases/next" \
            --run "$releases/${brings[$1]}" --keeps-package "${judge_options[@]}" "${over[@]}" "${@:3}" "$device" \
            "$releases"/{first,second,third} >"$2.said" 2>&1 || true
        "$twin" remove "$device"
        if [[ $(tail -n 1 "$2.said") == 'all holds' ]]; then
            printf 'ok\n' >"$2.verdict"
            return
        fi
    done
    grep '^wrong' "$2.said" >"$2.verdict" ||
        { printf 'the judge ended early: ' && tail -n 3 "$2.said" | tr '\n' '|'; } >"$2.verdict"
}

declare -A first=() upgraded=()
looked_at=0

# judge_new, after all cuts, for a device that is judged calls `sync`, which flushes one that is cut too: of the cuts that were collected since the last time, each state that was not met before, for each release
# that a run was to bring. One of those that differ only in what nobody reads is upgraded and rolled back, the others
# are started.
judge_new() {
    local line scenario id state directory exact rough
    for line in "${cuts[@]:looked_at}"; do
        looked_at=$((looked_at + 1))
        IFS=$'\t' read -r scenario id state directory <<<"$line"
        exact=${brings[$scenario]}/${state% *}
        rough=${brings[$scenario]}/${state#* }
        [[ -z ${first[$exact]-} ]] || continue
        first[$exact]=$id$'\t'$directory
        is_selected "${#first[@]}" || continue
        if [[ -z ${upgraded[$rough]-} ]]; then
            upgraded[$rough]=yes
            wholly[$scenario]=$((${wholly[$scenario]-0} + 1))
            in_parallel judge "$scenario" "$directory"
        else
            in_parallel judge "$scenario" "$directory" --quick
        fi
    done
}

count_all() {
    local line scenario id state directory exact
    wait
    for line in "${cuts[@]}"; do
        IFS=$'\t' read -r scenario id state directory <<<"$line"
        exact=${first[${brings[$scenario]}/${state% *}]}
        count "$scenario" "$id" "${exact#*$'\t'}" "${exact%%$'\t'*}"
    done
}

# Of the selection in CI, an even spread.
is_selected() {
    [[ $mode == full || -n $only ]] || (($1 % every == 0))
}

declare -A tried=() judged=() distinct=() wholly=() failed=()

# count SCENARIO ID DIRECTORY FIRST: FIRST is the id of the first cut that left this state, DIRECTORY where it was judged.
count() {
    local verdict
    tried[$1]=$((${tried[$1]-0} + 1))
    if [[ ! -s $3.verdict ]]; then
        report "$2" 'not judged'
        return
    fi
    judged[$1]=$((${judged[$1]-0} + 1))
    [[ $2 != "$4" ]] || distinct[$1]=$((${distinct[$1]-0} + 1))
    verdict=$(<"$3.verdict")
    if [[ $verdict == ok ]]; then
        report "$2" ok
        return
    fi
    failed[$1]=$((${failed[$1]-0} + 1))
    failures=$((failures + 1))
    [[ $2 != "$4" ]] || printf 'FAILED %s\n    %s\n' "$2" "${verdict//$'\n'/$'\n'    }"
    report "$2" failed "$verdict"
}

show_table() {
    local scenario total=0 total_judged=0 noted
    printf '%-22s %6s %8s %8s %9s %8s\n' scenario cuts judged states upgraded failed
    for scenario in "${order[@]}" "${order[@]/%/+start}"; do
        [[ -n ${tried[$scenario]-} ]] || continue
        printf '%-22s %6d %8d %8d %9d %8d\n' "$scenario" "${tried[$scenario]}" "${judged[$scenario]-0}" \
            "${distinct[$scenario]-0}" "${wholly[$scenario]-0}" "${failed[$scenario]-0}"
        total=$((total + tried[$scenario]))
        total_judged=$((total_judged + ${judged[$scenario]-0}))
    done
    printf 'judged: cuts whose state was judged; states: distinct ones, each started once; upgraded: states of those that\n'
    printf 'differ in what a program reads, each upgraded and rolled back besides\n'
    noted=$(find "$storage/cuts" -name '*.said' -exec cat {} + | grep -c '^note' || true)
    printf 'states with a version file that was torn, and whole after init: %d\n' "$noted"
    printf 'cuts right after a sync, by the device or another program of this host: %d\n' "$after_sync"
    printf 'power_cut: tried %d, ok %d, failed %d\n' "$total_judged" $((total_judged - failures)) "$failures"
}

# --- the method -----------------------------------------------------------------------------------------------------

# What was flushed is there after a cut, what was not is not: with the name and without its content when the journal was
# committed, without the name otherwise.
check_method() {
    local tries
    for ((tries = 0; tries < 5; tries++)); do
        ! cuts_as_expected || return 0
    done
    die "the method does not cut the power: after a cut there was '$found', not '$expected'"
}

# Another program's `sync` may come in between.
cuts_as_expected() {
    local device=$storage/method policy copy options good=true
    copy_device "$bases/factory" "$device"
    attach "$device" 300
    for policy in none config; do
        rm -rf -- "$storage/method_cut" "$device"/config/{flushed,not_flushed}
        printf 'flushed' | dd of="$device/config/flushed" conv=fsync status=none
        sync -f "$device/config"
        printf 'not flushed' >"$device/config/not_flushed"
        mapfile -t options < <(committed_by "$policy")
        "$programs/power_cut_watch" --state "$device" --out "$storage/method_cut" "${options[@]}" -- true
        copy=$storage/method_cut/0001
        mount -t ext4 -o loop,noinit_itable "$copy/disks/config.img" "$copy/config"
        found="$(<"$copy/config/flushed"),$(cat "$copy/config/not_flushed" 2>/dev/null || printf 'no such file')"
        umount "$copy/config"
        expected="flushed,no such file"
        [[ $policy == none ]] || expected="flushed,"
        [[ $found == "$expected" ]] || { good=false && break; }
    done
    "$twin" detach "$device"
    rm -rf -- "$storage/method_cut"
    "$good" || return 1
    printf 'a cut keeps what was flushed and loses what was not\n'
}

# --- the suite ------------------------------------------------------------------------------------------------------

judge_options=()
case $mode in
quick) policies=(none all) one_in=64 every=4 firsts=(none) scenarios=(install activate rollback-switch start) ;;
full) policies=(none config firmware partitions all torn) one_in=16 every=1 firsts=(none all) scenarios=("${order[@]}") ;;
esac
# The long ones have hundreds of points each, and most of them change nothing but one file system.
declare -A only_policies=([install]='none config all' [rollback-flash]='none config all' [install-third]='none all'
    [install-over]='none all')
((${#wanted[@]} == 0)) || scenarios=("${wanted[@]}")

# A start that is cut off belongs to a scenario of its own, with what the first one was to bring.
for scenario in "${order[@]}"; do
    brings[$scenario+start]=${brings[$scenario]}
done

# cut_scenario SCENARIO POLICY [WATCH_OPTION...]
cut_scenario() {
    local out=$storage/cuts/$1/$2
    cut_run "$bases/${begins_with[$1]}" "$out" "$2" "${does[$1]}" --one-in "$one_in" "${@:3}"
    collect "$1" "$1/$2" "$out"
}

# cut_start SCENARIO ID DIRECTORY POLICY [WATCH_OPTION...]: the start that follows the cut of this id.
cut_start() {
    local out=$3.starts/$4
    cut_run "$3" "$out" "$4" START "${@:5}"
    collect "$1+start" "$2+$4" "$out"
}

# The instants in which two packages change places, and of a full run an even spread of all others that left a state of
# their own.
is_first_of_two() {
    if [[ $mode == quick ]]; then
        [[ $1 == activate/none/rename:* ]]
        return
    fi
    case $1 in
    activate/*/rename:/firmware/* | rollback-*/*/rename:/firmware/*.pkg#* | */unlink:/config/upgraded#*) return 0 ;;
    *) (($2 % 40 == 0)) ;;
    esac
}

cut_starts() {
    local line scenario id state directory policy known=0
    local -A seen=()
    for line in "${cuts[@]}"; do
        IFS=$'\t' read -r scenario id state directory <<<"$line"
        [[ -z ${seen[$state]-} ]] || continue
        seen[$state]=$((++known))
        is_first_of_two "$id" "$known" || continue
        for policy in "${firsts[@]}"; do
            cut_start "$scenario" "$id" "$directory" "$policy"
        done
    done
}

cut_all() {
    local scenario policy
    for scenario in "${scenarios[@]}"; do
        for policy in "${policies[@]}"; do
            [[ ${only_policies[$scenario]-$policy} == *"$policy"* ]] || continue
            cut_scenario "$scenario" "$policy"
        done
        printf '%s: %d cuts so far, %d s\n' "$scenario" "${#cuts[@]}" "$SECONDS"
    done
    cut_starts
    printf 'starts after a cut: %d cuts so far, %d s\n' "${#cuts[@]}" "$SECONDS"
}

# cut_only SCENARIO/POLICY/POINT[+POLICY/POINT]
cut_only() {
    local begin=${1%%+*} second='' scenario directory
    [[ $1 != *+* ]] || second=${1#*+}
    scenario=${begin%%/*}
    [[ -n ${does[$scenario]-} ]] || die "no scenario '$scenario'"
    begin=${begin#*/}
    cut_scenario "$scenario" "${begin%%/*}" --only "${begin#*/}"
    ((${#cuts[@]} == 1)) || die "there was no such point: ${1%%+*}"
    [[ -n $second ]] || return 0
    directory=${cuts[0]##*$'\t'}
    cuts=()
    cut_start "$scenario" "${1%%+*}" "$directory" "${second%%/*}" --only "${second#*/}"
    ((${#cuts[@]} == 1)) || die "there was no such point: $second"
}

list_points() {
    local scenario device=$storage/run words
    for scenario in "${scenarios[@]}"; do
        copy_device "$bases/${begins_with[$scenario]}" "$device"
        attach "$device" 300
        words_of "$scenario"
        watch "$device" --list --one-in "$one_in" -- "${words[@]}" 2>/dev/null | grep -P '^\d{4}\t' |
            awk -v scenario="$scenario" -F '\t' '{ printf "%s %s %s %s %s\n", scenario, $2, $4, $3, $5 }'
        "$twin" detach "$device"
    done
}

# --- the suite's own test -------------------------------------------------------------------------------------------

# expect_failures WHAT: of what was cut, some must fail.
expect_failures() {
    failures=0
    judge_new
    count_all >"$work/expected"
    if ((failures)); then
        printf '%s: noticed, %d of %d cuts fail, as\n' "$1" "$failures" "${#cuts[@]}"
        grep -m 1 -A 1 '^FAILED' "$work/expected"
    else
        printf 'FAILED self-test: %s is not noticed\n' "$1"
        missed=$((missed + 1))
    fi
    cuts=() first=() upgraded=() looked_at=0
    rm -rf -- "$storage/cuts"
}

test_itself() {
    missed=0
    judge_options=(--quick)
    watched+=('KAVRO_FAULT_SWALLOW=fsync,fdatasync,syncfs,sync')
    # Right after the first renaming of a status file, and not after a `sync` of another program, which flushes it.
    local tries
    for ((tries = 0; tries < 10; tries++)); do
        cuts=() after_sync=0
        rm -rf -- "$storage/cuts"
        cut_scenario install all --only 'fsync:/config#1'
        ((after_sync)) || break
    done
    expect_failures "a library that flushes nothing"
    unset 'watched[-1]'
    judge_options=(--skip-init --quick)
    cut_scenario activate all
    expect_failures "a start that completes no activation"
    test_judge "an empty record of the written slot" '' config/written_slot.json
    test_judge "an outcome that is cut in the middle" 'upgrade_succ' config/upgrade_last_runtime
    ((missed == 0))
}

# test_judge WHAT CONTENT FILE: a file of the device with this content must be noticed.
test_judge() {
    local device=$storage/cuts/judged
    copy_device "$bases/installed_second" "$device"
    attach "$device" 300
    printf '%s' "$2" >"$device/$3"
    "$twin" detach "$device"
    judge install "$device"
    if [[ $(<"$device.verdict") == ok ]]; then
        printf 'FAILED self-test: %s is not noticed\n' "$1"
        missed=$((missed + 1))
    else
        printf '%s: noticed, %s\n' "$1" "$(head -n 1 "$device.verdict")"
    fi
}

make_storage
make_releases
measure_components
make_devices
check_method
[[ -z $json ]] || : >"$json"
SECONDS=0
if "$list"; then
    list_points
    exit
elif "$self_test"; then
    test_itself
    exit
elif [[ -n $only ]]; then
    cut_only "$only"
else
    cut_all
fi
judge_new
count_all
show_table
((failures == 0))
