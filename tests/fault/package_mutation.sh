#!/usr/bin/env bash
# Hands damaged, malicious and merely odd packages to emulated devices, and to `upgradectl verify`.
#
#   package_mutation.sh [OPTION...] BUILD_DIR
#
#   --quick       some of each kind (the default); --full, several hundred
#   --only ID     this one only, as a failure names it; ID,ID...: one after the other on the same device
#   --seconds N   begins no further package after this time, and says how many it left out
#   --jobs N      how many devices side by side (2)
#   --speed N     how many times faster the devices' clocks go (10)
#   --json FILE   a line for each package: kind, id, outcome
#   --work DIR    where the devices are; a temporary directory unless given
#
# A device that refuses a package is as it was: partitions, boot environment, microcontroller, versions and kept packages, and
# nothing lies outside of the places that a run works in. It says why, with an exit code of 1 or 3, and takes a good package
# afterwards. A device that takes a package has flashed nothing but what is signed in it. What `verify` finds in order, a
# device takes; what only `verify` refuses is of the kinds that `only_verify_refuses` lists.
#
# Exit status 1 when something failed, 77 when the host cannot run it.
set -euo pipefail

root=$(cd -- "${BASH_SOURCE[0]%/*}/../.." && pwd -P)
here=$root/tests/fault
twin=$root/twin/twin

mode=quick only='' seconds=86400 jobs=2 speed=10 json='' work=''
while [[ ${1-} == --* ]]; do
    case $1 in
    --quick | --full) mode=${1#--} ;;
    --only) only=$2 && shift ;;
    --seconds) seconds=$2 && shift ;;
    --jobs) jobs=$2 && shift ;;
    --speed) speed=$2 && shift ;;
    --json) json=$(realpath -m -- "$2") && shift ;;
    --work) work=$(realpath -m -- "$2") && shift ;;
    *) printf '%s: unknown option %s\n' "$0" "$1" >&2 && exit 2 ;;
    esac
    shift
done
build=$(realpath -- "${1:-$root/build/release}")
export KAVRO_TWIN_PROGRAMS=$build/twin
upgradectl=$build/tools/upgradectl/upgradectl
maker=$build/tests/fault/package_mutation_make
clock=$build/tests/fault/libkavro_short_clock.so

not_run() {
    printf 'package_mutation: not run: %s\n' "$1"
    exit 77
}

# What a device takes though `verify` refuses it, and why that is right.
only_verify_refuses() {
    case $1 in
    # Texts for people, and what stands behind them; numbers that a device reads with fewer digits or a sign.
    trailer_field | trailer_bit) ;;
    # `tar` knows by itself how a payload is compressed.
    compressed) ;;
    # The last one of a name counts, and it is checked.
    duplicate) ;;
    # What is none of the 14 files does not matter: `tar` keeps it within the directory, or leaves it out.
    besides | long_name | outside_name | link_then_through) ;;
    # The list of versions is for people: it is signed, and not flashed.
    empty_component) ;;
    # Names and types that `tar` makes a file of the right name of, by whose content all is decided: ".//ext4".
    component_renamed | link | other_type | header_bit | payload_bit_and_md5 | pax) ;;
    *) return 1 ;;
    esac
}

# What is signed, but nothing that can be flashed: the inactive slot is half written then, and nothing awaits activation.
fails_while_flashing() {
    [[ $1 == empty_component ]]
}

# --- a device -------------------------------------------------------------------------------------------------------

# make_device STATE: with a current and a kept package, which a refused package must leave alone.
make_device() {
    [[ ! -e $1 ]] || "$twin" remove "$1"
    "$twin" create "$1" --plain >/dev/null
    cp --sparse=always "$work/good.pkg" "$1/firmware/current.pkg"
    cp --sparse=always "$work/good.pkg" "$1/firmware/rollback.pkg"
    sync -f "$1"
}

# A content is changed by no write without the time of the change, which nobody can set.
facts() {
    (cd -- "$1" && find . \( -path ./raw/upgrade -o -path ./tmp -o -path ./mcu/log -o -path './mcu/link*' \) -prune -o \
        ! -path ./firmware/upgrade.pkg ! -path ./config/upgrade_last_runtime ! -path ./lock ! -path ./supply ! -path ./power_up \
        ! -path ./mcu/supply ! -path ./mcu/pid ! -type d -printf '%p %y %m %U %s %i %C@ %l\n' -o \
        -type d -printf '%p %y %m %U\n' | grep -v '^\./raw ' | sort)
}

# install STATE PACKAGE [OPTION...]: on the device, under the short clock. The microcontroller's limits get shorter with it, and
# a busy host misses them at a high speed. Sets code; what was said is in STATE.said.
install() {
    local state=$1 package=$2
    shift 2
    code=0
    "$twin" run "$state" --visible "$build" --visible "${package%/*}" --env "LD_PRELOAD=$clock" \
        --env "KAVRO_CLOCK_SPEED=$speed" "$@" -- "$here/package_mutation_inside.sh" "$upgradectl" "$package" \
        >"$state.said" 2>&1 </dev/null || code=$?
}

# options_of KIND: of the run, words of `twin run`.
options_of() {
    case $1 in
    bomb) printf '%s\n' --tmpfs-size /raw=16M ;;
    esac
}

# --- the judgement --------------------------------------------------------------------------------------------------

complaints=()
complain() {
    complaints+=("$1")
}

judge_refusal() {
    local state=$1 before=$2 changed
    changed=$(diff "$before" <(facts "$state") | grep '^[<>]' | head -n 4 || true)
    [[ -z $changed ]] || complain "the device is not as it was: $changed"
    grep -q '^upgradectl: ' "$state.said" || complain "upgradectl does not say what is wrong"
    grep -q '^  next: ' "$state.said" || complain "upgradectl does not say what to do next"
    ! grep -qs success "$state/config/upgrade_last_runtime" || complain "the last run counts as a success"
    [[ ! -e $state/config/upgraded ]] || complain "something awaits activation"
}

# What was flashed is what is signed; the two that are not always flashed may be as they were.
judge_installation() {
    local state=$1 expected=$2 part
    "$twin" compare "$state" b "$expected" >"$state.compared" 2>&1 ||
        complain "slot b holds what is not signed: $(grep -m1 differs "$state.compared")"
    for part in bootloader mcu; do
        "$twin" compare "$state" "$part" "$expected" >"$state.compared" 2>&1 || is_untouched "$state" "$part" ||
            complain "$part holds what is not signed: $(grep -m1 differs "$state.compared")"
    done
    require_running_slot "$state"
}

judge_failure() {
    require_running_slot "$1"
    [[ ! -e $1/config/upgraded ]] || complain "something awaits activation"
    ! grep -qs success "$1/config/upgrade_last_runtime" || complain "the last run counts as a success"
}

require_running_slot() {
    diff <(cd "$1.pristine" && sha256sum partitions/*_a) <(cd "$1" && sha256sum partitions/*_a) >/dev/null ||
        complain "the running slot was written to"
}

why() {
    grep -E '^(upgradectl|  device): ' "$1.said" | head -n 6 | tr '\n' ' ' || true
}

is_untouched() {
    case $2 in
    bootloader) cmp -s "$1/partitions/bootloader" "$1.pristine/partitions/bootloader" ;;
    mcu) cmp -s "$1/mcu/flash.bin" "$1.pristine/mcu/flash.bin" ;;
    esac
}

judge() {
    local state=$1 kind=$2 verified=$3
    local outside
    outside=$(grep -m1 '^outside: ' "$state.said" || true)
    [[ -z $outside ]] || complain "the run made something in the device's root: $outside"
    case $code in
    0) judge_installation "$state" "$state.components" ;;
    1 | 3) judge_refusal "$state" "$state.before" ;;
    4)
        fails_while_flashing "$kind" || complain "exit code 4: $(why "$state")"
        judge_failure "$state"
        ;;
    124 | 137) complain "the run did not end" ;;
    *) complain "exit code $code: $(why "$state")" ;;
    esac
    ((verified != 0 || code == 0 || kind_needs_room)) || complain "verify finds it in order, the device refuses it"
    ((verified == 0 || code != 0)) || only_verify_refuses "$kind" || complain "the device takes what verify refuses"
    ((verified == 0 || verified == 3)) || complain "verify ends with exit code $verified"
}

# --- the series -----------------------------------------------------------------------------------------------------

# try STATE ID: a line of JSON.
try() {
    local state=$1 id=$2 kind=${2%%:*} verified=0 outcome options code kind_needs_room=0 flashed=false
    complaints=()
    mapfile -t options < <(options_of "$kind")
    ((${#options[@]} == 0)) || kind_needs_room=1
    rm -rf "$state.components" "$state.packages"
    mkdir -p "$state.packages"
    "$maker" make "$id" "$state.packages/mutation.pkg" "$state.components" 2>"$state.said" || {
        jq -cn --arg id "$id" --arg why "$(<"$state.said")" '{kind: "package_mutation", $id, outcome: "failed", $why}'
        return
    }
    "$upgradectl" verify "$state.packages/mutation.pkg" >"$state.verified" 2>&1 </dev/null || verified=$?
    facts "$state" >"$state.before"
    install "$state" "$state.packages/mutation.pkg" "${options[@]}"
    judge "$state" "$kind" "$verified"
    outcome="verify $verified, device $code"
    if ((code == 4 || (code != 0 && kind_needs_room))); then
        flashed=true
        install "$state" "$work/good.pkg"
        ((code == 0)) || complain "no good package can be installed afterwards"
    fi
    # What a device has changed, and what a refused package may have left behind unseen, is gone before the next one.
    if ((code == 0 || ${#complaints[@]})) || "$flashed"; then
        make_device "$state"
    fi
    ((${#complaints[@]} == 0)) || outcome=failed
    jq -cn --arg id "$id" --arg outcome "$outcome" --arg why "$(printf '%s; ' "${complaints[@]}")" \
        '{kind: "package_mutation", $id, $outcome} + if $outcome == "failed" then {$why} else {} end'
}

# Every refused package together: the device is as good as new.
try_good_package() {
    local state=$1 code
    install "$state" "$work/good.pkg"
    if ((code != 0)); then
        jq -cn --arg why "$(<"$state.said")" \
            '{kind: "package_mutation", id: "good_package_after_all", outcome: "failed", $why}'
    fi
}

# series NUMBER: every `jobs`-th of the ids.
series() {
    local state=$work/device$1 id
    make_device "$state"
    cp -a --sparse=always "$state" "$state.pristine"
    awk -v jobs="$jobs" -v number="$1" 'NR % jobs == number' "$work/ids" >"$work/ids$1"
    while ((SECONDS < seconds)) && read -r id; do
        try "$state" "$id" </dev/null
    done <"$work/ids$1" >"$work/results$1"
    try_good_package "$state" >>"$work/results$1"
}

bwrap --ro-bind / / --unshare-pid --proc /proc --dev /dev -- true 2>/dev/null ||
    not_run "bwrap cannot make name spaces here"
for program in "$upgradectl" "$maker" "$clock" "$KAVRO_TWIN_PROGRAMS/mcu-emulator"; do
    [[ -e $program ]] || not_run "$program is missing: ./dev build makes it"
done
if [[ -z $work ]]; then
    work=$(mktemp -d "$build/package_mutation.XXXXXXXX")
    trap 'rm -rf -- "$work"' EXIT
fi
mkdir -p "$work"
rm -f "$work"/results*
"$maker" make as_it_is:1 "$work/good.pkg" "$work/good"
"$maker" list "$mode" >"$work/ids"
[[ -z $only ]] || { tr , '\n' <<<"$only" >"$work/ids" && jobs=1; }

for ((number = 0; number < jobs; ++number)); do
    series "$number" &
done
wait
cat "$work"/results[0-9]* >"$work/results"
[[ -z $json ]] || cp -- "$work/results" "$json"

tried=$(wc -l <"$work/results")
failed=$(jq -r 'select(.outcome == "failed") | .id' "$work/results" | wc -l)
left_out=$(($(wc -l <"$work/ids") - tried))
lost=0
((left_out <= 0)) || printf 'package_mutation: %d packages were left out\n' "$left_out"
((left_out <= 0 || SECONDS >= seconds)) || lost=$left_out
jq -r 'select(.outcome == "failed") | "FAILED --only \(.id): \(.why)"' "$work/results"
jq -r '.outcome' "$work/results" | sort | uniq -c | sed 's/^ */  /'
printf 'package_mutation: tried %d, ok %d, failed %d\n' "$tried" "$((tried - failed))" "$failed"
((failed == 0 && lost == 0 && tried > 0))
