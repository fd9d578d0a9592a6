#!/usr/bin/env bash
# Cuts the power of an emulated device at the state-changing calls of everything that it does, and judges what starts.
#
#   power_cut.sh [OPTION...]
#
#   --quick            a bounded selection (the default): some cuts of each scenario, each POLICY, torn saves, and second
#                      cuts, of the start that follows a first one; which ones is drawn. One device of each scenario is
#                      upgraded and rolled back, the others are started
#   --seed TEXT        from what it is drawn: the commit's id unless given
#   --full             all cuts, with each way in which the kernel may have flushed what nobody flushed, and second cuts,
#                      of the start that follows the first
#   --list             the points of each scenario, and nothing is cut
#   --scenario NAME    this one only; may be repeated
#   --only ID          this cut only, as a failure names it
#   --self-test        the suite must lose what was not flushed, and must find deliberate faults, its own too
#   --jobs N           how many devices are judged side by side (3)
#   --build release=DIR  the build (build/release)
#   --json FILE        a line for each cut: kind, id, outcome, and why it failed
#   --work DIR         where the devices are (a directory of the build; a few GiB)
#   --keep             leaves the devices that failed there, in the image DIR/storage.img
#
# An id is SCENARIO/POLICY/CALL:PATH#NTH. A POLICY says what the kernel had written by itself at the instant of the cut:
# `none` nothing; `config`, `firmware`, `partitions` that one; `all` the journals of all file systems and the partitions;
# `torn` half of what is about to be flushed to a partition: of a save of the boot environment, say.
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
# shellcheck source=results.sh
source "$here/results.sh"

name=power_cut
judge_program=$here/check_device.sh
seed=$(commit_seed)
mode=quick only='' jobs=3 json='' work='' keep=false list=false self_test=false
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
    --seed) seed=$2 && shift ;;
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
    begin_results "$work"
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
    make_all_upgraded
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
order=(activate confirm rollback-switch rollback-equal discard init init-fallen start install rollback-flash install-over
    install-third)

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
    ((status == 0)) ||
        fail_suite "${2#"$storage/cuts/"}: the run that is cut failed, exit status $status: $(tail -n 2 "$2.log" | tr '\n' '|')"
}

# --- the states that cuts leave -------------------------------------------------------------------------------------

# Two digests tell states apart, as the next start finds them. The exact one is of all that lasts, but for the content of
# /raw, which the next run empties, and the history, which has times in it and decides nothing about a start. The other one is the same for states that differ only in how far something got that
# no program ever reads: a .part file, a slot's partition or the microcontroller's memory that holds no release as a whole.

exact_state() {
    (cd -- "$1" && tar --sparse --sort=name --mtime=@0 --exclude=lost+found --exclude='upgrade_history.jsonl*' -cf - config firmware etc-kavro mcu/flash.bin \
        disks/{kernel,dtb,rootfs}_{a,b}.img disks/bootloader.img disks/env_{a,b}.img) | sha256sum | cut -c 1-16
}

# held_by PARTITION COMPONENT: the first release whose component it holds.
held_by() {
    local release
    for release in "${release_names[@]}"; do
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
        (cd -- "$1" && tar --sparse --sort=name --mtime=@0 --exclude=lost+found --exclude='*.part' \
            --exclude=upgrade_history.jsonl -cf - config firmware etc-kavro disks/env_{a,b}.img)
        find "$1/config" "$1/firmware" -name '*.part' ! -name 'upgrade_history*' -printf '%P\n' | sort
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

# collect SCENARIO PREFIX OUT: the cuts of a run, each with its state.
collect() {
    local directory id synced
    for directory in "$3"/[0-9]*/; do
        [[ -e $directory/cut ]] || continue
        in_parallel write_state "${directory%/}"
    done
    await_children
    for directory in "$3"/[0-9]*/; do
        [[ -e $directory/cut ]] || continue
        while IFS=$'\t' read -r _ _ id _ _ synced; do
            [[ $synced != synced ]] || after_sync=$((after_sync + 1))
            select_id "$2/$id"
            cuts+=("$1"$'\t'"$2/$id"$'\t'"$(<"$directory/state")"$'\t'"${directory%/}")
        done <"$directory/cut"
    done
}

# judge_options_of SCENARIO: what the judge is told of the run that was cut. States of which it is told the same are judged once.
judge_options_of() {
    printf '%s\n' --run "$releases/${brings[$1]}"
    [[ $1 != install-over* ]] || printf '%s\n' --over "$releases/second"
    [[ $1 != discard* ]] || printf '%s\n' --discards
    [[ $1 != @(activate|confirm|init-fallen|start)?(+start) ]] || printf '%s\n' --keeps-way-back
}

# ask_judge SPEED DEVICE SAID OPTION...: a copy is judged, for that changes it. Ends the child that asks where not even that
# is possible.
ask_judge() {
    local device=$2.judged status=0
    copy_device "$2" "$device" || exit 1
    KAVRO_CLOCK_SPEED=$1 "$judge_program" --build "$build" --next "$releases/next" --keeps-package "${@:4}" "$device" \
        "${known_releases[@]}" >"$3" 2>&1 || status=$?
    ((status < 2)) || printf 'wrong: the judge ended with exit status %d\n' "$status" >>"$3"
    "$twin" remove "$device" || exit 1
    [[ $status == 0 && $(tail -n 1 "$3") == 'all holds' ]]
}

# complaints_in SAID: what does not hold; a judge that says nothing of the kind has not come to the end.
complaints_in() {
    grep '^wrong' "$1" || { printf 'the judge ended early: ' && tail -n 3 "$1" | tr '\n' '|'; }
}

# tells_of_a_crash SAID: a program that died of a signal, which no clock explains.
tells_of_a_crash() {
    grep -qE 'exit status (129|1[3-9][0-9]|2[0-9][0-9])\b|Sanitizer|runtime error: ' "$1"
}

# judge SCENARIO DIRECTORY [CHECK_OPTION...]: DIRECTORY.verdict has the outcome in its first line, and then why.
# On a busy machine an answer may come too late for the short clock: what fails is judged once more by the real one.
judge() {
    local options said=$2.said
    mapfile -t options < <(judge_options_of "$1")
    options+=("${judge_options[@]}" "${@:3}")
    if ask_judge 8 "$2" "$said" "${options[@]}"; then
        printf 'ok\n' >"$2.verdict"
    elif ! tells_of_a_crash "$said" && ask_judge 1 "$2" "$said.again" "${options[@]}"; then
        { printf 'ok at the second try\n' && complaints_in "$said"; } >"$2.verdict"
    else
        [[ ! -e $said.again ]] || said=$said.again
        { printf 'failed\n' && complaints_in "$said"; } >"$2.verdict"
    fi
}

declare -A first=() upgraded=()
looked_at=0

# judge_new, after all cuts, for a device that is judged calls `sync`, which flushes one that is cut too: of the cuts that
# were collected since the last time, each state that was not met before. One of those that differ only in what nobody
# reads is upgraded and rolled back, the others are started.
judge_new() {
    local line scenario id state directory told exact rough
    for line in "${cuts[@]:looked_at}"; do
        looked_at=$((looked_at + 1))
        IFS=$'\t' read -r scenario id state directory <<<"$line"
        told=$(judge_options_of "$scenario")
        exact=$told/${state% *} rough=$told/${state#* }
        [[ -z ${first[$exact]-} ]] || continue
        first[$exact]=$id$'\t'$directory
        if [[ -z ${upgraded[$rough]-} ]] && may_be_upgraded "$scenario"; then
            upgraded[$rough]=yes
            wholly[$scenario]=$((${wholly[$scenario]-0} + 1))
            in_parallel judge "$scenario" "$directory"
        else
            in_parallel judge "$scenario" "$directory" --quick
        fi
    done
    await_children
}

# may_be_upgraded SCENARIO: in the selection one state of each scenario is enough, for that is what takes most of the time.
may_be_upgraded() {
    [[ $mode == full || -n $only ]] || [[ $1 != *+start && -z ${wholly[$1]-} ]]
}

record_all() {
    local line scenario id state directory exact
    for line in "${cuts[@]}"; do
        IFS=$'\t' read -r scenario id state directory <<<"$line"
        exact=${first[$(judge_options_of "$scenario")/${state% *}]}
        record_cut "$scenario" "$id" "${exact#*$'\t'}" "${exact%%$'\t'*}"
    done
}

declare -A tried=() distinct=() wholly=() failed=()

# record_cut SCENARIO ID DIRECTORY FIRST: FIRST is the id of the first cut that left this state, DIRECTORY where it was judged. One
# that nobody judged has no result.
record_cut() {
    local outcome why
    tried[$1]=$((${tried[$1]-0} + 1))
    [[ $2 != "$4" ]] || distinct[$1]=$((${distinct[$1]-0} + 1))
    [[ -s $3.verdict ]] || return 0
    outcome=$(head -n 1 "$3.verdict") why=$(tail -n +2 "$3.verdict")
    [[ $outcome != failed ]] || failed[$1]=$((${failed[$1]-0} + 1))
    [[ $outcome == ok || $2 == "$4" ]] || why="as $4"
    record "$2" "$outcome" "$why"
}

show_table() {
    local scenario noted
    printf '%-22s %6s %8s %9s %8s\n' scenario cuts states upgraded failed
    for scenario in "${order[@]}" "${order[@]/%/+start}"; do
        [[ -n ${tried[$scenario]-} ]] || continue
        printf '%-22s %6d %8d %9d %8d\n' "$scenario" "${tried[$scenario]}" "${distinct[$scenario]-0}" \
            "${wholly[$scenario]-0}" "${failed[$scenario]-0}"
    done
    printf 'states: distinct ones, each judged once; upgraded: of those that differ in what a program reads one each, upgraded\n'
    printf 'and rolled back besides\n'
    noted=$(find "$storage/cuts" -name '*.said' -exec cat {} + | grep -c '^note' || true)
    printf 'states with a version file that was torn, and whole after init: %d\n' "$noted"
    printf 'cuts right after a sync, by the device or another program of this host: %d\n' "$after_sync"
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
policies=(none config firmware partitions all torn)
case $mode in
quick) one_in=16 draws=2 firsts=(none all) ;;
full) one_in=16 draws=0 firsts=(none all) ;;
esac
# The long ones have hundreds of points each, and most of them change nothing but one file system.
declare -A only_policies=([install]='none config all' [rollback-flash]='none config all' [install-third]='none all'
    [install-over]='none all')
saves_environment=(activate confirm rollback-switch rollback-equal rollback-flash start)
scenarios=("${order[@]}")
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

# The instants in which two packages change places, and an even spread of all others that left a state of their own.
is_first_of_two() {
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
        say_progress "$scenario"
    done
    cut_starts
    say_progress 'starts after a cut'
}

say_progress() {
    printf '%s: %d cuts so far, %d s\n' "$1" "${#cuts[@]}" "$SECONDS"
}

# drawn COUNT WHAT WORD...: so many of the words, in an order of their own for each WHAT.
drawn() {
    printf '%s\n' "${@:3}" | in_drawn_order "$seed/$2" | head -n "$1"
}

# Every scenario with one of the policies, every policy with one of the scenarios, and torn saves.
cut_drawn() {
    local among=() policy scenario number=0
    mapfile -t among < <(drawn 9 policies "${policies[@]/torn/}" | grep .)
    mapfile -t scenarios < <(drawn 99 scenarios "${scenarios[@]}")
    for scenario in "${scenarios[@]}"; do
        cut_some "$scenario" "${among[number++ % ${#among[@]}]}" "$draws"
    done
    mapfile -t among < <(comm -12 <(printf '%s\n' "${scenarios[@]}" | sort) <(printf '%s\n' "${saves_environment[@]}" | sort))
    ((${#among[@]} == 0)) || while read -r scenario; do
        cut_some "$scenario" torn 1 </dev/null
    done < <(drawn 2 torn "${among[@]}")
    cut_drawn_starts
}

# cut_some SCENARIO POLICY COUNT
cut_some() {
    local before=${#cuts[@]}
    cut_scenario "$1" "$2" --draw "$3" --seed "$seed/$1"
    ((${#cuts[@]} > before)) || fail_suite "$1/$2: nothing was cut"
    say_progress "$1/$2"
}

# Of each state that differs from all others in what a program reads, one start that is cut somewhere.
cut_drawn_starts() {
    local line scenario id state directory policy
    local -A seen=()
    for line in "${cuts[@]}"; do
        IFS=$'\t' read -r scenario id state directory <<<"$line"
        [[ -z ${seen[${state#* }]-} ]] || continue
        seen[${state#* }]=yes
        policy=$(drawn 1 "$id" "${firsts[@]}")
        cut_start "$scenario" "$id" "$directory" "$policy" --draw 1 --seed "$seed/$id"
    done
    say_progress 'starts after a cut'
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
    : >"$selected"
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

# forget: what was cut and what came of it.
forget() {
    cuts=() first=() upgraded=() looked_at=0
    rm -rf -- "$storage/cuts"
    begin_results "$work"
}

missed=0

# expect WHAT TEXT: of what was cut, something has come that TEXT, of a result, tells; and the suite has failed.
expect() {
    local status=0
    conclude_results >"$work/concluded" || status=$?
    if ((status == ${3-1})) && jq -r '"\(.outcome): \(.why)"' "$results" | grep -- "$2" >"$work/told"; then
        printf '%s: noticed, %d of %d results, as %s\n' "$1" "$(wc -l <"$work/told")" "$(wc -l <"$results")" \
            "$(head -n 1 "$work/told" | cut -c 1-200)"
    else
        printf 'FAILED self-test: %s is not noticed\n' "$1"
        cat "$work/concluded"
        missed=$((missed + 1))
    fi
    forget
}

judge_and_expect() {
    judge_new
    record_all
    expect "$@"
}

test_itself() {
    test_own_faults
    judge_options=(--quick)
    watched+=('KAVRO_FAULT_SWALLOW=fsync,fdatasync,syncfs,sync')
    # Right after the first renaming of a status file, and not after a `sync` of another program, which flushes it.
    local tries
    for ((tries = 0; tries < 10; tries++)); do
        forget
        after_sync=0
        cut_scenario install all --only 'fsync:/config#1'
        ((after_sync)) || break
    done
    judge_and_expect "a library that flushes nothing" '^failed: wrong'
    unset 'watched[-1]'
    judge_options=(--skip-init --quick)
    cut_scenario activate all
    judge_and_expect "a start that completes no activation" '^failed: wrong'
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
    select_id "$1"
    cuts=("install"$'\t'"$1"$'\t'"exact rough"$'\t'"$device")
    judge_and_expect "$1" '^failed: wrong'
}

# Everything that a verdict depends on goes wrong once; a program that does so stands in the place of the real one.
test_own_faults() {
    local judge_program=$work/stub_judge twin=$work/stub_twin
    stub "$twin" 'exit 0'
    try_stub "a judge that dies" '^failed: wrong: the judge ended with exit status 139' 'kill -SEGV $$'
    try_stub "a judge that ends early" 'the judge ended early' 'echo "starts slot a"'
    try_stub "a judge that fails without a complaint" 'the judge ended early' 'echo "all holds"; exit 1'
    try_stub "a program that crashes when time is short" '^failed: wrong' \
        '((KAVRO_CLOCK_SPEED == 1)) && echo "all holds" || { echo "wrong: init fails (exit status 139): "; exit 1; }'
    try_stub "what holds at the second try only" '^ok at the second try: wrong: too late' \
        '((KAVRO_CLOCK_SPEED == 1)) && echo "all holds" || { echo "wrong: too late"; exit 1; }' 0
    # shellcheck disable=SC2016  # the words of the stub
    try_stub "a child that dies before its verdict" 'nobody has said' 'kill -KILL $PPID'
    stub "$twin" 'exit 1'
    try_stub "a device that cannot be removed" 'nobody has said' 'echo "all holds"'
    judge_program=true
    select_id "a cut that nobody looked at"
    expect "a cut without a verdict" 'nobody has said'
}

# stub FILE TEXT
stub() {
    printf '#!/bin/bash\n%s\n' "$2" >"$1"
    chmod +x "$1"
}

# try_stub WHAT TELLS TEXT [STATUS]: of a judge that does as TEXT says.
try_stub() {
    local device=$storage/cuts/stub
    mkdir -p "$device"
    stub "$judge_program" "$3"
    select_id "$1"
    cuts=("install"$'\t'"$1"$'\t'"exact rough"$'\t'"$device")
    judge_and_expect "$1" "$2" "${4-1}"
}

make_storage
make_releases
measure_components
make_devices
check_method
SECONDS=0
if "$list"; then
    list_points
    exit
elif "$self_test"; then
    test_itself
    exit
elif [[ -n $only ]]; then
    cut_only "$only"
elif [[ $mode == quick ]]; then
    printf 'drawn from %s\n' "$seed"
    cut_drawn
else
    cut_all
fi
judge_new
record_all
show_table
conclude_results || exit 1
