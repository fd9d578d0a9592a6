#!/usr/bin/env bash
# Hands damaged, malicious and merely odd packages to emulated devices, and to `upgradectl verify`.
#
#   package_mutation.sh [OPTION...] BUILD_DIR
#
#   --quick       some of each kind (the default), drawn from those of --full, which are several hundred
#   --seed WORD   what they are drawn from: the id of the commit unless given, so that each state of the code has its own
#   --only ID     this one only, as a failure names it; ID,ID...: one after the other on the same device
#   --seconds N   begins no further package after this time, and says how many it left out
#   --jobs N      how many devices side by side (2)
#   --speed N     how many times faster the devices' clocks go (10)
#   --json FILE   a line for each package: kind, id, outcome, and `at_first` where it passed only at the second try
#   --work DIR    where the devices are; a temporary directory unless given
#
# A device that refuses a package is as it was: partitions, boot environment, microcontroller, versions and kept packages, and
# nothing lies outside of the places that a run works in. It says why, with an exit code of 1 or 3, and takes a good package
# afterwards. A device that takes a package has flashed nothing but what is signed in it. What `verify` finds in order, a
# device takes; what a device takes though `verify` refuses it has one of the reasons in `may_be_taken`, and no other one.
#
# The devices' clocks go faster than this host, on which other things run: what fails is tried once more in real time, told
# and counted, but for a crash, which is one even if it does not come again.
#
# Exit status 1 when something failed or is without a verdict, 77 when the host cannot run it, which is a failure in CI.
set -euo pipefail

root=$(cd -- "${BASH_SOURCE[0]%/*}/../.." && pwd -P)
here=$root/tests/fault
twin=$root/twin/twin

mode=quick only='' seconds=86400 jobs=2 speed=10 json='' work='' seed=''
while [[ ${1-} == --* ]]; do
    case $1 in
    --quick | --full) mode=${1#--} ;;
    --seed) seed=$2 && shift ;;
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
    [[ ${CI-} != true ]] || exit 1
    exit 77
}

# may_be_taken KIND: whether a device may take what `verify` refuses. Each of the faults in `faults` must be the reason that
# is right for this kind, or follow from it: what cannot be read as a plain archive has nothing in it.
may_be_taken() {
    local reason follows='nothing' unread="the payload cannot be read as a plain tar archive"
    local missing="[^:]*: .*'[^']*' is missing from the archive"
    local unbound="[^:]*: '[^']*' is not that of this release: "
    local other_version="release: the release list is that of V[0-9.]+, the trailer states V[0-9.]+$"
    case $1 in
    # Texts for people, and what stands behind them; numbers that a device reads with fewer digits or a sign.
    trailer_field | trailer_bit)
        reason="trailer: (a version in the trailer is|the length of the user text|.* too short for its (branch|user) text|the unused end)"
        reason+="|$other_version"
        ;;
    # What binds the parts of a release together is a text that no device looks at.
    mixed_releases | swapped_with_signatures) reason="$unbound|$other_version" ;;
    other_versions) reason=$other_version ;;
    foreign_list) reason="release: line [0-9]+ of the release list is |release: the release list ends where " ;;
    # `tar` knows by itself how a payload is compressed.
    compressed)
        reason="archive: $unread: Unrecognized archive format$"
        follows="archive: the payload of .* is no whole number of tar blocks|$missing"
        ;;
    # The last one of a name counts, and it is checked.
    duplicate) reason="[^:]*: the archive holds '.*', which it has more than once$" ;;
    # What is none of the 14 files does not matter: `tar` keeps it within the directory, or leaves it out.
    outside_name) reason="archive: the archive holds '.*', which does not lie at the archive's top level$" ;;
    link_then_through) reason="archive: the archive holds '.*', which is no regular file \(symbolic link\)$" ;;
    # The list of versions is for people: it is signed, and not flashed.
    empty_component) reason="version_list.acs: 'version_list.acs' is empty$" ;;
    # Names and types that `tar` makes a file of the right name of, by whose content all is decided.
    component_renamed)
        reason="archive: the archive holds '.*', which does not lie at the archive's top level$"
        follows=$missing
        ;;
    link) reason="archive: the archive holds '.*', which is no regular file \((symbolic|hard) link\)$" ;;
    other_type | pax)
        reason="archive: $unread: an entry has the (type|attribute) '.*', which (no entry of a package may have|not every reader takes for the same)$"
        ;;
    *) return 1 ;;
    esac
    grep -qE "^($reason)" <<<"$faults" && ! grep -qvE "^($reason|$follows)" <<<"$faults"
}

# fails_while_flashing KIND: what is signed, but nothing that can be flashed. The inactive slot is half written then, and
# nothing awaits activation.
fails_while_flashing() {
    [[ $1 == empty_component ]] && ! grep -qvE "^[^:]*: '[^']*' is empty$" <<<"$faults"
}

# has_no_room STATE KIND: the device refuses what is in order where there is no room for it, and says so.
has_no_room() {
    [[ $2 == bomb && $code == 3 ]] && grep -q 'the file system at /raw has room for' "$1.said"
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

# install STATE PACKAGE SPEED [OPTION...]: on the device, by the tool, under the short clock. The microcontroller's limits get
# shorter with it, and a busy host misses them at a high speed. Sets code; what was said is in STATE.said.
install() {
    install_by "$upgradectl install" "$@"
}

# install_directly STATE PACKAGE SPEED [OPTION...]: in the same way, by a program that asks the library alone.
install_directly() {
    install_by "$build/tests/fault/install_directly" "$@"
}

# install_by WORDS STATE PACKAGE SPEED [OPTION...]
install_by() {
    local words state=$2 package=$3 speed=$4
    read -ra words <<<"$1"
    shift 4
    code=0
    "$twin" run "$state" --visible "$build" --visible "${package%/*}" --env "LD_PRELOAD=$clock" \
        --env "KAVRO_CLOCK_SPEED=$speed" "$@" -- "$here/package_mutation_inside.sh" "${words[@]}" "$package" \
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

changes() {
    diff "$2" <(facts "$1") | grep '^[<>]' | head -n 4 || true
}

judge_refusal() {
    local state=$1 before=$2
    judge_refused_run "$state" "$before"
    grep -q '^upgradectl: ' "$state.said" || complain "upgradectl does not say what is wrong"
    grep -q '^  next: ' "$state.said" || complain "upgradectl does not say what to do next"
}

# judge_refused_run STATE BEFORE
judge_refused_run() {
    local changed
    changed=$(changes "$1" "$2")
    [[ -z $changed ]] || complain "the device is not as it was: $changed"
    ! grep -qs success "$1/config/upgrade_last_runtime" || complain "the last run counts as a success"
    [[ ! -e $1/config/upgraded ]] || complain "something awaits activation"
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
    ((verified != 0 || code == 0)) || has_no_room "$state" "$kind" ||
        complain "verify finds it in order, the device refuses it: $(why "$state")"
    ((verified == 0 || code != 0)) || may_be_taken "$kind" || complain "the device takes what verify refuses: $faults"
    ((verified == 0 || verified == 3)) || complain "verify ends with exit code $verified"
    ((verified != 3)) || [[ -n $faults ]] || grep -q '^upgradectl: ' "$state.verify_said" ||
        complain "verify refuses it without a reason"
}

# judge_directly STATE KIND VERIFIED: what the library made of a package that the tool has refused.
judge_directly() {
    local state=$1 kind=$2 verified=$3 outside
    outside=$(grep -m1 '^outside: ' "$state.said" || true)
    [[ -z $outside ]] || complain "the run made something in the device's root: $outside"
    case $code in
    0)
        judge_installation "$state" "$state.components"
        ((verified == 0)) || may_be_taken "$kind" || complain "the library takes what verify refuses: $faults"
        ;;
    1)
        if fails_while_flashing "$kind"; then
            judge_failure "$state"
        else
            judge_refused_run "$state" "$state.before"
            ((verified != 0)) || [[ $kind == bomb ]] || complain "verify finds it in order, the library refuses it"
        fi
        ;;
    124 | 137) complain "the run did not end" ;;
    *) complain "the library's program ends with exit code $code" ;;
    esac
}

# has_crashed: a program was killed, or `verify`, which goes by the host's clock, did not end. A device's limit of 120 s passes
# with the device's clock: that it was reached must show again in real time.
has_crashed() {
    ((verified >= 124 || code >= 128))
}

# --- the series -----------------------------------------------------------------------------------------------------

# attempt STATE ID SPEED: of a package that is there. Sets `complaints`, `verified`, `tool` and `code`, that of the library where
# the tool has refused it; leaves the device as new.
attempt() {
    local state=$1 kind=${2%%:*} package=$1.packages/mutation.pkg options flashed=false seen
    complaints=() verified=0
    mapfile -t options < <(options_of "$kind")
    timeout 120 "$upgradectl" verify --json "$package" >"$state.verified" 2>"$state.verify_said" </dev/null || verified=$?
    faults=$(jq -r '.checks[] | .name as $name | .faults[] | "\($name): \(.)"' "$state.verified") ||
        complain "verify prints what is no JSON"
    facts "$state" >"$state.before"
    install "$state" "$package" "$3" "${options[@]}"
    judge "$state" "$kind" "$verified"
    tool=$code
    if ((code != 0)) && ! has_crashed; then
        install_directly "$state" "$package" "$3" "${options[@]}"
        judge_directly "$state" "$kind" "$verified"
    fi
    seen=$code
    if ((code != 0)) && { fails_while_flashing "$kind" || ((${#options[@]})); } && ! has_crashed; then
        flashed=true
        install "$state" "$work/good.pkg" "$3"
        ((code == 0)) || complain "no good package can be installed afterwards: $(why "$state")"
        has_crashed || code=$seen
    fi
    # What a device has changed, and what a refused package may have left behind unseen, is gone before the next one.
    if ((code == 0 || ${#complaints[@]})) || "$flashed"; then
        make_device "$state"
    fi
}

# result ID OUTCOME [AT_FIRST]: a line of JSON, with what is complained of.
result() {
    jq -cn --arg id "$1" --arg outcome "$2" --arg at_first "${3-}" --arg why "$(printf '%s; ' "${complaints[@]}")" \
        '{kind: "package_mutation", $id, $outcome} + if $outcome == "failed" then {$why} else {} end +
         if $at_first == "" then {} else {$at_first} end'
}

# try STATE ID: a result.
try() {
    local state=$1 id=$2 verified tool code faults at_first=''
    rm -rf "$state.components" "$state.packages"
    mkdir -p "$state.packages"
    complaints=()
    if ! "$maker" make "$id" "$state.packages/mutation.pkg" "$state.components" 2>"$state.said"; then
        complain "it cannot be made: $(<"$state.said")"
        result "$id" failed
        return
    fi
    attempt "$state" "$id" "$speed"
    if ((${#complaints[@]})) && ! has_crashed; then
        at_first=$(printf '%s; ' "${complaints[@]}")
        attempt "$state" "$id" 1
    fi
    if ((${#complaints[@]})); then
        result "$id" failed "$at_first"
    else
        result "$id" "verify $verified, tool $tool, device $code" "$at_first"
    fi
}

# try_good_package STATE NUMBER: every refused package together, and the device is as good as new.
try_good_package() {
    local state=$1 code id="good_package_after_all:$2" at_first=''
    complaints=()
    install "$state" "$work/good.pkg" "$speed"
    if ((code != 0 && code < 128)); then
        at_first=$(why "$state")
        install "$state" "$work/good.pkg" 1
    fi
    if ((code != 0)); then
        complain "exit code $code: $(why "$state")"
        result "$id" failed "$at_first"
    else
        result "$id" "device 0" "$at_first"
    fi
}

# series NUMBER: every `jobs`-th of the ids, on a device of its own.
series() {
    local state=$work/device$1 id
    make_device "$state"
    cp -a --sparse=always "$state" "$state.pristine"
    while ((SECONDS < seconds)) && read -r id; do
        try "$state" "$id" </dev/null
    done <"$work/ids$1" >"$work/results$1"
    try_good_package "$state" "$1" >"$work/last$1"
}

# conclude STATUS...: of the series. Each package that was selected has one result, unless time is up, and each device one.
conclude() {
    local status tried failed=0 left_out second lost
    cat "$work"/results* "$work"/last* >"$work/all"
    [[ -z $json ]] || cp -- "$work/all" "$json"
    tried=$(wc -l <"$work/all")
    failed=$(jq -r 'select(.outcome == "failed") | .id' "$work/all" | wc -l)
    jq -r 'select(.outcome == "failed") | "FAILED --only \(.id): \(.why)"' "$work/all"
    second=$(jq -r 'select(.at_first and .outcome != "failed") | "SECOND TRY --only \(.id): at first: \(.at_first)"' "$work/all")
    [[ -z $second ]] || printf '%s\n' "$second"
    jq -r .outcome "$work/all" | sort | uniq -c | sed 's/^ */  /'
    printf 'of each kind: %s\n' "$(jq -r .id "$work/all" | cut -d : -f 1 | sort | uniq -c | awk '{ printf "%s %d, ", $2, $1 }')"
    lost=$(comm -23 <(sort -u "$work/ids") <(jq -r .id "$work/all" | sort -u))
    left_out=$(grep -c . <<<"$lost" || true)
    if ((left_out)); then
        printf 'package_mutation: %d packages were left out, from %s on\n' "$left_out" "$(head -n 1 <<<"$lost")"
        ((SECONDS >= seconds)) || failed=$((failed + left_out))
    fi
    for status; do
        ((status == 0)) || { printf 'FAILED a series ended with status %d\n' "$status" && failed=$((failed + 1)); }
    done
    ((tried == $(wc -l <"$work/ids") + jobs - left_out)) ||
        { printf 'FAILED there are %d results\n' "$tried" && failed=$((failed + 1)); }
    printf 'package_mutation: passed only at the second try: %d\n' "$(grep -c . <<<"$second" || true)"
    printf 'package_mutation: tried %d, ok %d, failed %d\n' "$tried" "$((tried > failed ? tried - failed : 0))" "$failed"
    ((failed == 0 && tried > jobs))
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
rm -f "$work"/{results,last}*
"$maker" make as_it_is:1 "$work/good.pkg" "$work/good"
if [[ -n $only ]]; then
    tr , '\n' <<<"$only" >"$work/ids"
    jobs=1
elif [[ $mode == full ]]; then
    "$maker" list full >"$work/ids"
else
    [[ -n $seed ]] || seed=$(git -C "$root" rev-parse HEAD 2>/dev/null) || seed='no commit'
    printf 'drawn with --seed %q\n' "$seed"
    "$maker" list quick "$seed" >"$work/ids"
fi
# None is drawn twice, and each kind is among them.
[[ -z $(sort "$work/ids" | uniq -d) ]] || { printf 'package_mutation: some are listed twice\n' && exit 1; }
[[ -n $only ]] || [[ -z $(comm -13 <(cut -d : -f 1 "$work/ids" | sort -u) <("$maker" kinds | sort)) ]] ||
    { printf 'package_mutation: not every kind is selected\n' && exit 1; }

pids=() statuses=()
for ((number = 0; number < jobs; ++number)); do
    awk -v jobs="$jobs" -v number="$number" 'NR % jobs == number' "$work/ids" >"$work/ids$number"
    : >"$work/results$number"
    : >"$work/last$number"
    series "$number" &
    pids+=($!)
done
for pid in "${pids[@]}"; do
    status=0
    wait "$pid" || status=$?
    statuses+=("$status")
done
conclude "${statuses[@]}"
