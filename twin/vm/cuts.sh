#!/usr/bin/env bash
# Power cuts of a whole device, in the virtual machine, at moments that are drawn within an installation, an activation, a
# rollback and the start after an activation: one in each of as many equal shares as there are cuts of that kind. Each time the device must come up from a whole slot, be ready for upgrades,
# and take the next one. There are two kinds:
#
#   killed     the emulators of both processors are killed. What the kernel of the device has not handed over to its disk
#              is lost, and so is what the microcontroller was about to write
#   unflushed  the writes to the disk were logged, and its image is made anew from the log, up to some write. Of what was
#              not flushed by then a part is lost, here and there, as with a disk that has a cache of its own. The writes
#              of the boot loader are few: `loader` and `loader-back` are an installation and a rollback that are cut off
#              just there
#
#   cuts.sh HOST_BUILD ARM64_BUILD SYSROOT WORK [NUMBER_KILLED [NUMBER_UNFLUSHED [SEED]]]
#
# SEED is what the moments, and the kinds of the first ones, are drawn from: any word. It is the id of the commit unless
# given, so that every state of the code is cut elsewhere. Exit status 1 when a cut failed, or has no verdict.
set -euo pipefail
shopt -s inherit_errexit

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=releases.sh
source "$here/releases.sh"

host=$(realpath -- "$1") target=$(realpath -- "$2") sysroot=$(realpath -- "$3")
work=$(realpath -m -- "$4")/cuts
number=${5:-10} unflushed=${6:-10}
seed=${7:-$(git -C "$here" rev-parse HEAD 2>/dev/null || printf 'no commit')}
machine=$work/machine
export KAVRO_TWIN_PROGRAMS=$host/twin

first=1.104.7.2
second=1.105.8.3
third=1.106.9.4

# What is cut: of a device in which state, and which command; the start has none.
declare -A base_of=([install]=new [activate]=installed [start]=activated [rollback]=second)
declare -A command_of=([install]="upgradectl install --plain /media/$second.pkg" [activate]="upgradectl activate"
    [rollback]="upgradectl rollback --plain" [start]="")
kinds_killed=(install start install activate rollback)
kinds_unflushed=(install loader start install activate rollback loader-back)
declare -A loader_written_by=([loader]=install [loader-back]=rollback)
# The version of the microcontroller's application before the command and after it.
declare -A mcu_before=([install]=7 [activate]=8 [start]=8 [rollback]=8) mcu_after=([install]=8 [rollback]=7)
declare -A milliseconds_of=() cuts_of=() done_of=()
judged=0

now_in_milliseconds() {
    printf '%d\n' $((${EPOCHREALTIME/./} / 1000))
}

make_packages() {
    say "three releases"
    rm -rf "$work"
    mkdir -p "$work"
    make_key
    make_package "$first"
    make_package "$second"
    make_package "$third"
    make_stick "$second" "$third"
}

# time_command KIND: on the device that runs.
time_command() {
    local begin
    begin=$(now_in_milliseconds)
    machine_run "${command_of[$1]}" >"$work/$1.log" || { cat "$work/$1.log" && return 1; }
    milliseconds_of[$1]=$(($(now_in_milliseconds) - begin))
}

# keep NAME: the device as it is now, off.
keep() {
    machine_switch_off
    machine_copy "$machine" "$work/$1"
}

power_on() {
    mcu_start "$machine"
    machine_boot "$machine"
}

# The states that cuts begin from, and how long each command takes when nothing disturbs it.
make_states() {
    say "a device before and after each command"
    machine_create "$work/new" "$work/release-$first" "$work/$first.pkg"
    ln "$work/stick.img" "$work/new/stick.img"
    machine_copy "$work/new" "$machine"
    power_on
    time_command install
    keep installed
    power_on
    time_command activate
    keep activated
    local begin
    begin=$(now_in_milliseconds)
    power_on
    milliseconds_of[start]=$(($(now_in_milliseconds) - begin))
    keep second
    power_on
    time_command rollback
    machine_cut
    local kind
    for kind in install activate start rollback; do
        printf '  %-10s %6d ms\n' "$kind" "${milliseconds_of[$kind]}"
    done
}

# count_cuts KIND...
count_cuts() {
    local kind
    cuts_of=() done_of=()
    for kind; do
        cuts_of[$kind]=$((${cuts_of[$kind]-0} + 1))
    done
}

# hear_for MILLISECONDS: sets `heard` to the last line that the device says meanwhile.
hear_for() {
    local end line
    end=$(($(now_in_milliseconds) + $1))
    heard=
    while (($(now_in_milliseconds) < end)); do
        if IFS= read -r -t 0.05 -u "$control_out" line && [[ -n $line ]]; then heard=${line%$'\r'}; fi
    done
}

# cut_at KIND MILLISECONDS
cut_at() {
    machine_copy "$work/${base_of[$1]}" "$machine"
    mcu_start "$machine"
    if [[ -n ${command_of[$1]} ]]; then
        machine_boot "$machine"
        machine_send "${command_of[$1]}"
    else
        machine_start "$machine"
    fi
    hear_for "$2"
    machine_cut
}

# loader_of: which boot loader the disk of the device has, by the last number of its release; a `part` of one otherwise.
loader_of() {
    local version component
    machine_read_loader "$machine"
    for version in "$first" "$second" "$third"; do
        component=$work/release-$version/bld_release.bin
        if cmp -s -n "$(stat -c %s "$component")" "$component" "$machine/loader.bin"; then
            printf '%s\n' "${version##*.}"
            return
        fi
    done
    printf 'part\n'
}

# ask COMMAND...: what the device answers; that it does not is a fault, too.
ask() {
    answer=$(machine_run "$@") || faults+=("'$*' fails: $(tail -n 1 <<<"$answer")")
}

# check_microcontroller RUN: init brings it to the release that runs, unless a package awaits its activation.
check_microcontroller() {
    local wanted state
    wanted=$(cut -d. -f3 <<<"$release")
    answer=$(machine_run "upgradectl status --json 2>/dev/null") || true  # which fails where somebody must act
    state=$(jq -r .state <<<"$answer") || state=unreadable
    [[ $state != installed ]] || wanted=${put:-${mcu_after[$1]-${mcu_before[$1]}}}
    [[ $mcu == "$wanted" ]] || faults+=("the microcontroller runs $mcu, $release runs, the state is: $state")
}

# come_back RUN: the power is there again. Each of these must be so; what is not is in `faults`.
come_back() {
    starts=0 slot=- release=- mcu=- next=-
    loader=$(loader_of)
    mcu_start "$machine" || { faults+=("the microcontroller does not start") && return; }
    machine_boot "$machine" || { faults+=("does not come up") && return; }
    ask fw_printenv -n boot_slot
    slot=$answer
    ask cat /etc/kavro-release
    release=$answer
    case $1 in
    install) [[ $release == "$first" ]] || faults+=("left the old slot") ;;
    start | activate | rollback) [[ $release == "$first" || $release == "$second" ]] || faults+=("no whole slot") ;;
    esac
    ask upgradectl init
    ask upgradectl versions --json
    mcu=$(jq .microcontroller <<<"$answer") || faults+=("upgradectl versions says: $answer")
    check_microcontroller "$1"
}

# install_next: as if nothing had been.
install_next() {
    machine_run upgradectl install --plain "/media/$third.pkg" >"$work/next.log" &&
        machine_run upgradectl activate >>"$work/next.log" &&
        machine_restart "$machine" &&
        next=$(machine_run cat /etc/kavro-release) &&
        [[ $next == "$third" && $(machine_run fw_printenv -n upgrade_available) == 0 &&
            $(machine_run upgradectl versions --json | jq .microcontroller) == 9 ]]
}

# drawn LIMIT WORD...: a number from 0 to LIMIT - 1, always the same of the same words and the same seed.
drawn() {
    local digest
    digest=$(printf '%s ' "$seed" "${@:2}" | sha256sum)
    printf '%d\n' $((16#${digest:0:12} % $1))
}

# share_of KIND WHOLE: a moment within the share of the next cut of its kind.
share_of() {
    local number=${done_of[$1]-0} from to
    from=$(($2 * number / cuts_of[$1]))
    to=$(($2 * (number + 1) / cuts_of[$1]))
    printf '%d\n' $((from + $(drawn $((to > from ? to - from : 1)) "$1" "$number")))
}

# judge KIND AT WHAT [RUN]: what becomes of the device after the cut.
judge() {
    local verdict=ok
    faults=()
    come_back "${4-$1}"
    ((${#faults[@]})) || install_next || faults+=("the next installation: $(tail -n 1 "$work/next.log")")
    ((${#faults[@]})) || [[ $(loader_of) == "${third##*.}" ]] || faults+=("the boot loader is that of $(loader_of)")
    machine_cut
    faults+=("${machine_faults[@]}")
    machine_faults=()
    if ((${#faults[@]})); then
        verdict="FAIL: $(printf '%s; ' "${faults[@]}")"
        failures=$((failures + 1))
        mv "$machine" "$work/failed-$failures"
    fi
    done_of[$1]=$((${done_of[$1]-0} + 1))
    judged=$((judged + 1))
    printf '%-11s %12s  %-48.48s %-6s %6d %-4s %-10s %-5s %-10s %s\n' "$1" "$2" "$3" "$loader" "$starts" "$slot" \
        "$release" "$mcu" "$next" "$verdict"
}

kill_during() {
    local at
    at=$(share_of "$1" "${milliseconds_of[$1]}")
    cut_at "$1" "$at"
    put=
    judge "$1" "$at ms" "$heard"
}

# --- what was not flushed -------------------------------------------------------------------------------------------

# log_writes KIND: of a run that nothing disturbs, in WORK/KIND.writes.
log_writes() {
    [[ ! -e $work/$1.writes ]] || return 0
    machine_copy "$work/${base_of[$1]}" "$work/logged"
    machine_log=$work/$1.writes
    mcu_start "$work/logged"
    machine_boot "$work/logged"
    machine_log=
    [[ -z ${command_of[$1]} ]] || machine_run "${command_of[$1]}" >"$work/$1.log"
    machine_run sync
    machine_cut
    mv "$work/logged/mcu/flash.bin" "$work/$1.mcu"
}

# put_microcontroller KIND RUN: as it was, without its application, or done: nobody knows at which write it was where. Sets
# `put`, what it is then; a command that does not program it leaves it as it was.
put_microcontroller() {
    put=${mcu_before[$2]}
    [[ -n ${mcu_after[$2]-} ]] || return 0
    case $(drawn 3 microcontroller "$1" "${done_of[$1]-0}") in
    1)
        "$KAVRO_TWIN_PROGRAMS/mcu-emulator" format "$machine/mcu/flash.bin"
        put=null
        ;;
    2)
        cp "$work/$2.mcu" "$machine/mcu/flash.bin"
        put=${mcu_after[$2]}
        ;;
    esac
}

# entries_of KIND LOG: the numbers of the first and the last entry of the log behind which the power may go.
entries_of() {
    if [[ -n ${loader_written_by[$1]-} ]]; then
        "$KAVRO_TWIN_PROGRAMS/disk-replay" find "$2" "${MACHINE_START[bootloader]}" "$(machine_partition_bytes bootloader)"
    else
        printf '1 %d\n' "$("$KAVRO_TWIN_PROGRAMS/disk-replay" count "$2")"
    fi
}

lose_during() {
    local run=${loader_written_by[$1]-$1} from to at said
    local log=$work/$run.writes
    log_writes "$run"
    read -r from to < <(entries_of "$1" "$log")
    at=$((from + $(share_of "$1" $((to - from + 1)))))
    machine_copy "$work/${base_of[$run]}" "$machine"
    said=$("$KAVRO_TWIN_PROGRAMS/disk-replay" cut "$log" "$machine/disk.img" "$at" $((at + 1)))
    put_microcontroller "$1" "$run"
    judge "$1" "$at/$("$KAVRO_TWIN_PROGRAMS/disk-replay" count "$log")" "$said" "$run"
}

# cuts FUNCTION HEADING KIND...
cuts() {
    local kind
    (($# > 2)) || return 0
    count_cuts "${@:3}"
    say "$(($# - 2)) cuts: $2"
    printf '%-11s %12s  %-48s %-6s %6s %-4s %-10s %-5s %-10s\n' during at "" loader starts slot release MCU next
    for kind in "${@:3}"; do
        "$1" "$kind"
    done
}

# choose NUMBER KIND...: sets `chosen` to as many kinds, over and over, from a drawn one on.
choose() {
    local index first
    chosen=()
    first=$(drawn $(($# - 1)) first "${@:2}")
    for ((index = 0; index < $1; index++)); do
        chosen+=("${@:2 + (first + index) % ($# - 1):1}")
    done
}

# Also when the script ends early: a cut without a verdict is a failure.
conclude() {
    local status=$?
    machine_cut
    printf '\n%d cuts of %d have a verdict, %d failed; drawn from %s\n' "$judged" $((number + unflushed)) "$failures" "$seed"
    ((status == 0 && judged == number + unflushed && judged > 0 && failures == 0)) || exit 1
}

trap conclude EXIT
say "drawn from $seed"
make_packages
make_states
choose "$number" "${kinds_killed[@]}"
cuts kill_during "both processors are killed" "${chosen[@]}"
choose "$unflushed" "${kinds_unflushed[@]}"
cuts lose_during "the disk loses what was not flushed" "${chosen[@]}"
