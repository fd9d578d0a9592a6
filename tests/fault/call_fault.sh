#!/usr/bin/env bash
# Lets each call of what a device does fail once, on twins: of the tool, the library and its drivers, and of the commands
# that they start. A clean run is recorded first; each of its calls, with each error that fits it, is a point.
#
#   call_fault.sh [OPTION...] BUILD_DIR
#
#   --quick            a bounded selection, spread over all (the default)
#   --full             all points; of a call that is made often the first, some in the middle and the last
#   --list             the points, and nothing is tried
#   --scenario NAME    this one only; may be repeated
#   --calls PATTERN    only points whose id has this in it (an extended regular expression)
#   --only ID          this point only, as a failure names it
#   --points N         how many the bounded selection has (48)
#   --seed N           of the selection (1)
#   --jobs N           how many devices side by side (2)
#   --json FILE        a line for each point: kind, id, outcome
#   --work DIR         where the devices are (DIR is emptied; else a directory in memory)
#   --keep             leaves the devices of failures in DIR/states
#   --library DIR      the device's programs take libraries from DIR first
#   --self-test        a library that takes a failed flush for done must be found, and a fault must leave its mark
#
# An id is SCENARIO|PROGRAM|CALL|PATH|NTH|EFFECT. What must hold:
#
#   - no crash, no hang (120 s), no process left behind
#   - success is reported only where the device is then what it is after a run without faults, but for what is told
#     on purpose without a failure: see `unlike`
#   - a failure is reported with a text, no file is torn, and the same command, tried again, succeeds
#   - of each state that came of it, once: all that check_device.sh asks for
#
# Exit status 1 when something failed, 77 when the host cannot run it.
set -euo pipefail

root=$(cd -- "${BASH_SOURCE[0]%/*}/../.." && pwd)
here=$root/tests/fault
twin=$root/twin/twin
# shellcheck source=../../twin/device.sh
source "$root/twin/device.sh"
# shellcheck source=releases.sh
source "$here/releases.sh"

mode=quick only='' calls='' seed=1 quick_points=48 jobs=2 json='' work='' keep=false list=false library='' self_test=false
wanted=()
while [[ ${1-} == --* ]]; do
    case $1 in
    --quick | --full) mode=${1#--} ;;
    --list) list=true ;;
    --keep) keep=true ;;
    --scenario) wanted+=("$2") && shift ;;
    --calls) calls=$2 && shift ;;
    --only) only=$2 && shift ;;
    --points) quick_points=$2 && shift ;;
    --seed) seed=$2 && shift ;;
    --jobs) jobs=$2 && shift ;;
    --json) json=$(realpath -m -- "$2") && shift ;;
    --work) work=$(realpath -m -- "$2") && shift ;;
    --library) library=$(realpath -- "$2") && shift ;;
    --self-test) self_test=true ;;
    *) printf '%s: unknown option %s\n' "$0" "$1" >&2 && exit 2 ;;
    esac
    shift
done
build=$(realpath -- "${1:-$root/build/release}")
export KAVRO_TWIN_PROGRAMS=$build/twin
upgradectl=$build/tools/upgradectl/upgradectl
programs=$build/tests/fault
speed=8

not_run() {
    printf 'call_fault: not run: %s\n' "$1"
    exit 77
}

die() {
    printf 'call_fault: %s\n' "$1" >&2
    exit 2
}

bwrap --ro-bind / / --unshare-pid --proc /proc --dev /dev -- true 2>/dev/null || not_run "bwrap cannot make name spaces here"
for program in "$upgradectl" "$programs"/libkavro_{short_clock,fault_interpose}.so "$build/twin/mcu-emulator"; do
    [[ -e $program ]] || not_run "$program is missing: ./dev build makes it"
done

# flushes [OPTION...]: what becomes of some flushes that fail.
flushes() {
    "${BASH_SOURCE[0]}" --full --scenario install --jobs "$jobs" "$@" \
        --calls 'upgradectl\|fsync\|/(firmware/upgrade.pkg.part|config/written_slot.json.part)\|1\|EIO' "$build"
}

if "$self_test"; then
    [[ -e $programs/careless/libcommon_yr.so.1 ]] || not_run "$programs/careless/libcommon_yr.so.1 is missing: ./dev build makes it"
    flushes || die "flushes that fail are not all noticed by the library as it is"
    ! said=$(flushes --library "$programs/careless") || die "a library that takes a failed flush for done is not found: $said"
    grep -q '^call_fault: tried 2, ok [01], failed [12]$' <<<"$said" || die "the library with the defect was not tried: $said"
    printf '%s\n' "$said"
    printf 'a library that takes a failed flush for done is found\n'
    exit 0
fi

make_work() {
    local parent=${TMPDIR:-/tmp} free
    free=$(stat -f -c '%a * %S' /dev/shm 2>/dev/null || printf 0)
    ((free < 4 << 30)) || parent=/dev/shm
    [[ -n $work ]] || work=$(mktemp -d "$parent/call_fault.XXXXXXXX")
    rm -rf -- "${work:?}"/*
    bases=$work/bases releases=$work/releases states=$work/states results=$work/results
    mkdir -p "$bases" "$releases" "$states" "$results"
    "$keep" || trap 'rm -rf -- "$work"' EXIT
    trap 'exit 143' TERM
    trap 'exit 130' INT
}

# --- releases and devices -------------------------------------------------------------------------------------------

# run_on DEVICE SPEED [NAME=VALUE...] -- ARGUMENT...: of upgradectl. Its exit status is in DEVICE/tmp/status, with the
# number of processes that it has left behind.
run_on() {
    local device=$1 settings=("KAVRO_CLOCK_SPEED=$2")
    shift 2
    while [[ $1 != -- ]]; do
        settings+=("$1")
        shift
    done
    # shellcheck disable=SC2016  # for the shell on the device
    "$twin" run "$device" --visible "$build" --visible "$releases" ${library:+--visible "$library"} -- sh -c '
        set -- /proc/[0-9]* -- "$@"
        before=0
        while [ "$1" != -- ]; do before=$((before + 1)); shift; done
        shift
        status=0
        timeout --kill-after=5 120 env "$@" || status=$?
        for pause in 0 0.1 0.5 2; do
            sleep $pause
            set -- /proc/[0-9]*
            [ $# -gt $before ] || break
        done
        echo "$status $(($# - before))" >/run/kavro/status' sh \
        LD_PRELOAD="$programs/libkavro_short_clock.so:$programs/libkavro_fault_interpose.so" \
        ${library:+LD_LIBRARY_PATH="$library"} "${settings[@]}" "$upgradectl" "${@:2}"
}

copy_device() {
    rm -rf -- "$2"
    cp -a --sparse=auto -- "$1" "$2"
}

grown() {
    copy_device "$bases/$1" "$bases/$2"
}

# What each scenario begins with.
make_devices() {
    local release
    make_factory --plain
    grown factory fresh
    grown factory with_origin
    cp --sparse=always "$releases/first.pkg" "$work/origin.pkg"
    tar -C "$work" -czf "$bases/with_origin/etc-kavro/origin.pkg.tar.gz" origin.pkg
    md5sum <"$work/origin.pkg" | cut -c 1-32 | tr -d '\n' >"$bases/with_origin/etc-kavro/origin_pkg_md5sum.txt"
    rm "$bases/with_origin/firmware/current.pkg" "$work/origin.pkg"
    on_device "$bases/factory" init
    for release in second third; do
        make_upgraded "$release"
    done
    # Cut off in the middle of the exchange of the packages: init completes it.
    grown activated_second torn
    mv "$bases/torn/firmware/rollback.pkg" "$bases/torn/firmware/temp"
    mv "$bases/torn/firmware/current.pkg" "$bases/torn/firmware/rollback.pkg"
    : >"$bases/torn/config/upgraded"
    boot "$bases/torn"
}

begins_with+=([init-trial]=started_second [init-origin]=with_origin [init-torn]=torn)
does+=([init-trial]=init [init-origin]=init [init-torn]=init)
brings+=([init-trial]=second [init-origin]=first [init-torn]=second)
order=(install activate confirm rollback-flash rollback-switch init init-trial init-origin init-torn install-third)

# --- what a device is -----------------------------------------------------------------------------------------------

# whose FILE SUFFIX: the release whose file this is, over that one's length.
whose() {
    local release
    for release in first second third next; do
        if cmp -s -n "$(stat -c %s "$releases/$release$2")" -- "$1" "$releases/$release$2"; then
            printf '%s' "$release"
            return
        fi
    done
    printf 'other'
}

package_fact() {
    if [[ $(stat -c %s "$1") == 134217728 ]]; then
        whose "$1" .pkg
    else
        printf 'of %d bytes' "$(stat -c %s "$1")"
    fi
}

# facts_of DEVICE: one line for each thing that lasts, but for /raw, which each run empties.
facts_of() {
    local file part slot
    printf 'running slot %s\n' "$(<"$1/run/running_slot")"
    twin_environment_tool "$1" fw_printenv 2>&1 | sort | sed 's/^/environment /'
    for file in "$1"/config/* "$1"/etc-kavro/version.json; do
        [[ ! -f $file ]] ||
            printf '%s: %s\n' "${file#"$1"}" "$(jq -cS . "$file" 2>/dev/null || tr '\n' ' ' <"$file" | head -c 400)"
    done
    for file in "$1"/firmware/* "$1"/etc-kavro/origin*; do
        [[ ! -f $file ]] || printf '%s: %s\n' "${file#"$1"}" "$(package_fact "$file")"
    done
    for slot in a b; do
        for part in kernel dtb rootfs; do
            printf 'slot %s: %s %s\n' $slot $part "$(whose "$1/partitions/${part}_$slot" "/${TWIN_COMPONENT_OF[$part]}")"
        done
    done
    printf 'boot loader: %s\n' "$(whose "$1/partitions/bootloader" "/${TWIN_COMPONENT_OF[bootloader]}")"
    printf 'microcontroller: %s\n' "$(sha256sum <"$1/mcu/flash.bin" | cut -c 1-12)"
}

# --- points ---------------------------------------------------------------------------------------------------------

# What may become of each call.
declare -A effects_of=(
    [open]="EIO ENOSPC EMFILE" [open_existing]="EIO EMFILE" [fopen]="EIO ENOSPC" [fopen_existing]="EIO EMFILE"
    [opendir]="EIO EMFILE" [write]="EIO ENOSPC EINTR short" [pwrite]="EIO ENOSPC short" [writev]="EIO ENOSPC short"
    [copy_file_range]="EIO ENOSPC EXDEV short" [sendfile]="EIO ENOSPC" [clone]="EIO" [ftruncate]="EIO ENOSPC"
    [truncate]="EIO" [fallocate]="EIO ENOSPC" [posix_fallocate]="EIO ENOSPC" [fsync]="EIO ENOSPC" [fdatasync]="EIO"
    [syncfs]="EIO" [sync_file_range]="EIO" [rename]="EIO ENOSPC" [unlink]="EIO EBUSY" [rmdir]="EIO"
    [mkdir]="EIO ENOSPC" [link]="EIO" [symlink]="EIO" [read]="EIO EINTR short" [pread]="EIO EINTR short" [mmap]="ENOMEM"
    [lseek]="EIO" [stat]="EIO" [fstat]="EIO" [access]="EIO" [close]="EIO" [flock]="EINTR ENOLCK"
    [fchmod]="EIO" [fchown]="EIO" [memfd_create]="EMFILE" [socket]="EMFILE" [connect]="ECONNREFUSED EAGAIN"
    [send]="EIO EPIPE EINTR" [recv]="EIO EAGAIN EINTR" [spawn]="EAGAIN" [fork]="EAGAIN" [exec]="EACCES"
    [waitpid]="EINTR ECHILD" [waitid]="EINTR ECHILD" [pthread_create]="EAGAIN" [program]="exits exits_late killed")

# points_of SCENARIO: from its record. The tool itself is no command that fails. A flush of the boot environment fails for
# all who have it open, as the kernel does it: the library that saves it keeps such an error to itself. Threads of the
# socket library are no points: it crashes or waits for ever when it gets none at its first use, before the device is touched.
points_of() {
    local name
    for name in "${!effects_of[@]}"; do
        printf '%s\t%s\n' "$name" "${effects_of[$name]}"
    done | awk -F '\t' -v scenario="$1" '
        NR == FNR { effects[$1] = $2; next }
        $3 ~ /anon_inode|^pipe|^\/dev\/shm/ || ($1 == "upgradectl" && $2 == "program") { next }
        $2 == "pthread_create" && $3 ~ /^libnng/ { next }
        { kind = $1 "|" $2 "|" $3; if ($4 > calls[kind]) calls[kind] = $4; if ($5 < 2) small[kind "|" $4] = 1 }
        END {
            for (kind in calls) {
                n = calls[kind]; split(kind, parts, "|"); many = split(effects[parts[2]], wanted, " ")
                for (i = 1; i <= n; i++) {
                    if (n > 5 && i > 2 && i != n && i != int(n / 2)) continue
                    for (e = 1; e <= many; e++) {
                        if (wanted[e] == "short" && small[kind "|" i]) continue
                        print scenario "|" kind "|" i (kind ~ /fsync\|.*env_/ ? "+" : "") "|" wanted[e]
                    }
                }
            }
        }' - "$work/$1.record" | sort
}

# record SCENARIO: the clean run, its points and what the device is then.
record() {
    local device=$work/recorded words
    copy_device "$bases/${begins_with[$1]}" "$device"
    words_of "$1"
    head -c 131072 /dev/zero >"$device/mcu/points"
    run_on "$device" $speed KAVRO_FAULT_POINTS=/dev/kavro-mcu/points KAVRO_FAULT_POINTS_RECORD=/dev/kavro-mcu/record -- \
        "${words[@]}" >"$work/$1.said" 2>&1 || true
    [[ $(<"$device/run/status") == "0 0" ]] || die "$1 without a fault fails: $(tail -n 3 "$work/$1.said")"
    mv "$device/mcu/record" "$work/$1.record"
    facts_of "$device" >"$work/$1.facts"
    points_of "$1" >"$work/$1.points"
    rm -rf -- "$device"
}

# select_points: those to be tried; of the bounded selection an even spread of what is ordered by chance.
select_points() {
    if [[ -n $only ]]; then
        printf '%s\n' "$only"
        return
    fi
    local scenario
    for scenario in "${wanted[@]}"; do
        cat "$work/$scenario.points"
    done | { grep -E -- "$calls" || true; } | if [[ $mode == full ]]; then
        cat
    else
        shuf --random-source=<(openssl enc -aes-128-ctr -nosalt -pass "pass:$seed" -pbkdf2 </dev/zero 2>/dev/null) |
            awk -F '|' '{ kind = $1 "|" $2 "|" $3; print ++seen[kind] "\t" $0 }' |
            sort -s -n -k 1,1 | cut -f 2- | awk -v wanted="$quick_points" 'NR <= wanted'
    fi
}

# --- one point ------------------------------------------------------------------------------------------------------

# try_point NUMBER ID: leaves in results/NUMBER the id, and what was seen: OUTCOME STATE TEXT, tabs in between.
try_point() {
    local device=$work/device.$1 scenario=${2%%|*} point=${2#*|} words status left state unlike
    copy_device "$bases/${begins_with[$scenario]}" "$device"
    words_of "$scenario"
    head -c 131072 /dev/zero >"$device/mcu/points"
    run_on "$device" $speed KAVRO_FAULT_POINTS=/dev/kavro-mcu/points KAVRO_FAULT_POINTS_RECORD=/dev/kavro-mcu/record \
        "KAVRO_FAULT_FAIL=${point//|/$'\t'}" -- "${words[@]}" >"$results/$1.out" 2>"$results/$1.err" || true
    read -r status left <"$device/run/status" || status=none
    facts_of "$device" >"$results/$1.facts"
    state=$(sha256sum <"$results/$1.facts" | cut -c 1-16)
    verdict_on "$1" "$scenario" "$2" >"$results/$1"
    printf '%s\t%s\t%s\n' "$state" "$status" "$2" >>"$results/$1"
    if mkdir "$states/$scenario.$state" 2>/dev/null; then
        rm -f "$device/mcu/points" "$device/mcu/record"
        mv "$device" "$states/$scenario.$state/device"
        printf '%s\n' "$status" >"$states/$scenario.$state/status"
    else
        rm -rf -- "$device"
    fi
}

# Points at which the device is known not to be as it must, and why.
known='^(activate|rollback-[a-z]+)\|upgradectl\|rename\|/firmware/current.pkg\|'
known_why='the library makes the later renames all the same, and one package replaces the other'

version_record=/config/upgrade_config.json

# unlike SCENARIO FACTS: what differs from a run without faults and may not. These may:
#   - the record of the versions, which each start makes anew and nothing depends on as long as the microcontroller answers
#   - the outcome of the last run, which may be told as a failure
#   - of an activation the marker and the record that it has used up, and the places of the packages: init goes on there
#   - the working copy of a package that could not be removed: the next run replaces it
#   - whether what runs is flashed again, and of a rollback the copy that it flashes from: it is where that cannot be told
#   - of a start the packages that the factory's archive was to become: it is tried once, whatever comes of it
unlike() {
    local allowed="^[<>] ($version_record: |/config/upgrade_last_runtime: (upgrade|rollback)_)|^> /firmware/upgrade.pkg: "
    grep -q '_last_runtime: .*_success' "$2" && ! grep -q '_last_runtime: .*_success' "$work/$1.facts" && allowed='^$'
    case $1 in
    activate | rollback-*)
        # What else is wrong with the packages is for check_device.sh to say, after the next start.
        allowed+='|^> /config/(upgraded|written_slot.json): |^[<>] /firmware/(temp|current.pkg|rollback.pkg): (first|second|third)$'
        ;;
    esac
    case $1 in
    install-third) allowed+='|^[<>] microcontroller: ' ;;
    rollback-*) allowed+='|^[<>] /firmware/recv.tar.xz: first$|^< boot loader: third$|^> boot loader: first$' ;;
    init-origin) allowed+='|^< /firmware/recv.tar.xz: first$|^> /firmware/origin.pkg: |^> /etc-kavro/origin.pkg.tar.gz: ' ;;
    init-torn) allowed+='|^> /config/upgraded: $' ;;
    esac
    diff "$work/$1.facts" "$2" | grep '^[<>]' | grep -vE -- "$allowed" | tr '\n' ';' |
        sed 's/^/success is reported, but: /' || true
}

# must_last NUMBER ID: it is a flush of what the success that is reported depends on. The outcome of a run is first recorded
# as a failure, and stays one when that of the end cannot be written. A rollback uses its own marker up.
must_last() {
    [[ $2 =~ \|fsync\|/(config|firmware|dev)/ ]] || return 1
    case $2 in
    *"$version_record"* | rollback-*'|/config/upgraded|'* | *'|/config/upgrade_last_runtime.part|1|'*) return 1 ;;
    *'|/config/upgrade_last_runtime.part|'*) ! grep -q '_last_runtime: .*_failure' "$results/$1.facts" ;;
    esac
}

# verdict_on NUMBER SCENARIO ID: one line.
verdict_on() {
    if [[ ! -s $device/mcu/record ]]; then
        printf 'not reached\n'
    elif [[ $status == none || $status -ge 124 ]]; then
        printf 'ended with status %s: %s\n' "$status" "$(tail -n 2 "$results/$1.err" | tr '\n' '|')"
    elif [[ $left != 0 ]]; then
        printf '%s processes left behind\n' "$left"
    elif ((status == 0)) && must_last "$1" "$3"; then
        printf 'success is reported, but what was written may not last\n'
    elif [[ $status == 0 ]]; then
        unlike=$(unlike "$2" "$results/$1.facts")
        printf '%s\n' "${unlike:-ok}"
    elif [[ ! -s $results/$1.err ]]; then
        printf 'fails without a word\n'
    else
        printf 'ok\n'
    fi
}

# --- the states that came of it -------------------------------------------------------------------------------------

# judge_state DIRECTORY: what does not hold of it is in DIRECTORY/wrong.
judge_state() {
    local scenario=${1##*/} status words checked=$1/checked options=(--keeps-package)
    scenario=${scenario%.*}
    status=$(<"$1/status")
    : >"$1/wrong"
    words_of "$scenario"
    [[ $scenario != rollback-* || ! -e $1/device/config/upgraded ]] || words=(activate)
    # A package that could not be copied is taken for one that did not fit: all others have made room for it.
    local wiped=false
    [[ $scenario == @(install*|rollback-flash) && -z $(ls -A "$1/device/firmware") ]] && wiped=true
    # Of a rollback that failed after it had begun to flash, there is no package left to try again with.
    if [[ $status != 0 && ($scenario != rollback-* || -e $1/device/firmware/rollback.pkg) ]]; then
        copy_device "$1/device" "$1/again"
        run_on "$1/again" $speed -- "${words[@]}" >"$1/again.said" 2>&1 || true
        [[ $(<"$1/again/run/status") == "0 0" ]] ||
            printf 'tried again it fails: %s\n' "$(tail -n 2 "$1/again.said" | tr '\n' '|')" >>"$1/wrong"
        facts_of "$1/again" >"$1/again.facts"
        "$wiped" || [[ $scenario == rollback-* ]] || unlike "$scenario" "$1/again.facts" | sed 's/^/tried again: /' >>"$1/wrong"
        rm -rf -- "$1/again"
    fi
    [[ $scenario != init-origin ]] && ! "$wiped" || options=()
    copy_device "$1/device" "$checked"
    KAVRO_CLOCK_SPEED=$speed "$here/check_device.sh" --build "$build" --next "$releases/next" \
        --run "$releases/${brings[$scenario]}" "${options[@]}" "$checked" "$releases"/{first,second,third} >"$1/said" 2>&1 || true
    grep '^wrong' "$1/said" >>"$1/wrong" || tail -n 1 "$1/said" | grep -q '^all holds$' ||
        printf 'the check ended early: %s\n' "$(tail -n 3 "$1/said" | tr '\n' '|')" >>"$1/wrong"
    rm -rf -- "$checked" "$checked.copy"
}

# --- the suite ------------------------------------------------------------------------------------------------------

# report ID OUTCOME [WHY]
report() {
    [[ -z $json ]] || jq -cn --arg id "$1" --arg outcome "$2" --arg why "${3-}" \
        '{kind: "call_fault", $id, $outcome} + if $why == "" then {} else {$why} end' >>"$json"
}

# conclude: a failure for each point that was not ok, and for the first of those that led to a state in which not all holds.
conclude() {
    local file verdict state status id scenario directory reported=0 unreached=0 tried=0 failed=0 known_ones=0
    for file in "$results"/*[0-9]; do
        { read -r verdict && IFS=$'\t' read -r state status id; } <"$file"
        scenario=${id%%|*} directory=$states/${id%%|*}.$state
        if [[ $verdict == "not reached" ]]; then
            unreached=$((unreached + 1))
            report "$id" "not reached"
            continue
        fi
        tried=$((tried + 1))
        ((status == 0)) || reported=$((reported + 1))
        if [[ $verdict == ok && -s $directory/wrong ]]; then
            verdict="the device then (${directory##*/}): $(tr '\n' ';' <"$directory/wrong")"
            [[ ! -e $directory/shown ]] || verdict="leads to ${directory##*/} too"
            : >"$directory/shown"
        fi
        if [[ $verdict == ok ]]; then
            report "$id" ok
        elif [[ $id =~ $known ]]; then
            known_ones=$((known_ones + 1))
            printf "KNOWN --only '%s': %s\n" "$id" "$known_why"
            report "$id" known "$known_why"
        else
            failed=$((failed + 1))
            printf "FAILED --only '%s': %s\n" "$id" "$verdict"
            report "$id" failed "$verdict"
        fi
    done
    printf '%d points made the command fail, %d did not; %d distinct states, each judged once; %d points not reached\n' \
        "$reported" $((tried - reported)) "$(find "$states" -mindepth 1 -maxdepth 1 | wc -l)" "$unreached"
    printf 'call_fault: tried %d, ok %d, failed %d\n' "$tried" $((tried - failed - known_ones)) "$failed"
    ((known_ones == 0)) || printf 'call_fault: %d of these are neither, their fault is known\n' "$known_ones"
    ((failed == 0 && tried > 0))
}

((${#wanted[@]})) || wanted=("${order[@]}")
[[ -z $only ]] || wanted=("${only%%|*}")
make_work
make_releases
make_devices
for scenario in "${wanted[@]}"; do
    record "$scenario"
    printf '%s: %d points\n' "$scenario" "$(wc -l <"$work/$scenario.points")"
done
select_points >"$work/selected"
if "$list"; then
    cat "$work/selected"
    exit 0
fi
[[ -z $json ]] || : >"$json"
number=10000
while IFS= read -r id; do
    number=$((number + 1))
    in_parallel try_point $number "$id"
done <"$work/selected"
wait
for directory in "$states"/*/; do
    in_parallel judge_state "${directory%/}"
done
wait
conclude
