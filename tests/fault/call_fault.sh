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
#   --points N         how many the bounded selection has (48); each scenario, program and call is among them
#   --seed TEXT        from what it is drawn: the commit's id unless given
#   --jobs N           how many devices side by side (3)
#   --json FILE        a line for each point: kind, id, outcome
#   --work DIR         where the devices are (DIR is emptied; else a directory in memory)
#   --keep             leaves the devices of failures in DIR/states
#   --library DIR      the device's programs take libraries from DIR first
#   --self-test        a library that takes a failed flush for done must be found, and what goes wrong in the suite itself
#
# An id is SCENARIO|PROGRAM|CALL|PATH|NTH|EFFECT. What must hold:
#
#   - no crash, no hang (120 s), no process left behind
#   - success is reported only where the device is then what it is after a run without faults, but for what is told
#     on purpose without a failure: see `tolerances`
#   - a failure is reported with a text, no file is torn, and the same command, tried again, succeeds
#   - what a start must not fail for, and a discard leaves to it, is told, and the next start does it
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
# shellcheck source=plain_devices.sh
source "$here/plain_devices.sh"
# shellcheck source=results.sh
source "$here/results.sh"

name=call_fault
judge_program=$here/check_device.sh
seed=$(commit_seed)
mode=quick only='' calls='' quick_points=48 jobs=3 json='' work='' keep=false list=false library='' self_test=false
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

make_work() {
    [[ -n $work ]] || work=$(directory_for_devices)
    rm -rf -- "${work:?}"/*
    bases=$work/bases releases=$work/releases states=$work/states checks=$work/checks seen=$work/seen
    mkdir -p "$bases" "$releases" "$states" "$checks" "$seen"
    begin_results "$work"
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
    make_all_upgraded
    make_torn
}

begins_with+=([init-origin]=with_origin)
does+=([init-origin]=init)
brings+=([init-origin]=first)
order=(install activate confirm rollback-flash rollback-switch rollback-equal discard init init-fallen init-trial init-origin init-torn
    install-third)

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

# record_calls SCENARIO: the clean run, its points and what the device is then.
record_calls() {
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

# select_points: those to be tried. The bounded selection has each scenario, program and call, and then an even spread of
# what is ordered by chance.
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
        in_drawn_order "$seed" | awk -F '|' '{
            isFirst = !scenarios[$1]++ + !programs[$2]++ + !calls[$3]++
            print (isFirst ? 0 : ++many[$1 "|" $2 "|" $3]) "\t" $0
        }' | sort -s -n -k 1,1 | awk -v wanted="$quick_points" '$1 == 0 || NR <= wanted' | cut -f 2-
    fi
}

# --- one point ------------------------------------------------------------------------------------------------------

# try_point NUMBER ID: leaves in seen/NUMBER the verdict, and a line of: STATE STATUS ID, tabs in between. A state is that of a
# scenario, and of a run that was said to be done or to have failed.
try_point() {
    local device=$work/device.$1 scenario=${2%%|*} point=${2#*|} words status left state
    copy_device "$bases/${begins_with[$scenario]}" "$device"
    words_of "$scenario"
    head -c 131072 /dev/zero >"$device/mcu/points"
    run_on "$device" $speed KAVRO_FAULT_POINTS=/dev/kavro-mcu/points KAVRO_FAULT_POINTS_RECORD=/dev/kavro-mcu/record \
        "KAVRO_FAULT_FAIL=${point//|/$'\t'}" -- "${words[@]}" >"$seen/$1.out" 2>"$seen/$1.err" || true
    read -r status left <"$device/run/status" || status=none
    facts_of "$device" >"$seen/$1.facts"
    state=$scenario.$(sha256sum <"$seen/$1.facts" | cut -c 1-16)
    if [[ $status != 0 ]] || is_left_to_a_start "$1" "$scenario" "$2"; then state+=.failed; else state+=.done; fi
    verdict_on "$1" "$scenario" "$2" >"$seen/$1.verdict"
    printf '%s\t%s\t%s\n' "$state" "$status" "$2" >>"$seen/$1.verdict"
    keep_state "$device" "$state"
    mv "$seen/$1.verdict" "$seen/$1"
}

# keep_state DEVICE STATE: of the first that is like it.
keep_state() {
    if mkdir "$states/$2" 2>/dev/null; then
        rm -f "$1/mcu/points" "$1/mcu/record"
        mv "$1" "$states/$2/device"
    else
        rm -rf -- "$1"
    fi
}

# --- what is tolerated ----------------------------------------------------------------------------------------------

# Faults of the system that the documents tell: the points, what alone may be wrong with the device then, and why; `~` in
# between.
one_for_the_other='the library makes the later renames all the same, and one package replaces the other'
known=(
    "^activate\|upgradectl\|rename\|/firmware/current\.pkg\|1\|(EIO|ENOSPC)$~wrong: (current\.pkg is gone \(rollback\.pkg is first\)|after the next upgrade there is no package to roll back to)~$one_for_the_other"
    "^rollback-(flash|switch|equal)\|upgradectl\|rename\|/firmware/current\.pkg\|1\|(EIO|ENOSPC)$~wrong: (((first|second) runs, but current\.pkg is|after a rollback to (first|second)) (second|third|fourth)( runs)?|rollback fails \(exit status 3\): .*, which runs already.*)~$one_for_the_other"
)

# why_known ID WRONG: prints why each of these, `;` behind it, is a known fault at this point; fails when one is not.
why_known() {
    local line points outcome why
    for line in "${known[@]}"; do
        IFS='~' read -r points outcome why <<<"$line"
        if [[ $1 =~ $points && $2 =~ ^(($outcome)\;)+$ ]]; then
            printf '%s\n' "$why"
            return
        fi
    done
    return 1
}

version_record=/config/upgrade_config.json

# The version record is a copy that `cp` makes of the version file; whoever cannot read either of them, or hear the
# microcontroller, does not know which versions run.
copies_versions='^((cp|sh)\||upgradectl\|(spawn\|sh|fork\||waitpid\|)|[^|]*\|[^|]*\|/(etc/kavro/version\.json|config/upgrade_config\.json)\|)'
asks_versions='^upgradectl\|([^|]*\|/(etc/kavro/version\.json|config/upgrade_config\.json|dev/kavro-mcu/link)\||[^|]*\|socket\||(socket|connect|send|recv)\|)'
# Whether the other slot holds the kept package.
asks_slots='^upgradectl\|[^|]*\|(/dev/disk/by-partlabel/|/etc/kavro/(platform\.json|fw_env\.config)|/run/kavro/running_slot|/config/written_slot\.json|/(var|run)/lock/|/dev/kavro-mcu/link)'
# What a rollback leaves that installs the kept package.
installs_instead='> /firmware/recv\.tar\.xz: (first|second)|> /firmware/rollback\.pkg: (third|fourth)|< boot loader: (third|fourth)|> boot loader: (first|second)|[<>] microcontroller: .*|< /config/upgrade_last_runtime: upgrade_success *|> /config/upgrade_last_runtime: rollback_success *'
# What `init` does with the factory's archive.
unpacks='^((tar|gzip|sh)\||upgradectl\|(spawn\|(sh|tar)\||fork\||waitp?id\||[^|]*\|/(firmware/(origin\.pkg|recv\.tar\.xz)|etc/kavro/origin)))'

# What may differ from a run without faults where success is reported: in which scenarios, the fact that differs, at
# which points, and why; `~` in between. `<` is what a run without faults leaves, `>` what this one has left. A point of
# `again` is the run without a fault that follows one that failed.
tolerances=(
    "init.*~[<>] $version_record: .*~$copies_versions~each start makes the record of the versions anew"
    ".*~[<>] $version_record: .*~^[^|]*\|[^|]*\|$version_record\|~each start makes the record of the versions anew"
    ".*~(< /config/upgrade_last_runtime: (upgrade|rollback)_success|> /config/upgrade_last_runtime: (upgrade|rollback)_failure) *~\|/config/upgrade_last_runtime(\.part)?\|~a success whose outcome cannot be written is told as a failure"
    "activate|rollback-.*~> /config/upgraded: *~^upgradectl\|unlink\|/config/upgraded\|~init goes on where the marker is still there"
    "activate|rollback-.*~> /config/written_slot\.json: .*~^upgradectl\|unlink\|/config/written_slot\.json\|~the record is used up, and the next run replaces it"
    "activate|rollback-.*~[<>] /firmware/(temp|current\.pkg|rollback\.pkg): (first|second|third|fourth)~^upgradectl\|rename\|/firmware/(temp|current\.pkg|rollback\.pkg)\|~the later renames are made all the same, and check_device.sh judges where the packages are after the next start"
    ".*~> /firmware/upgrade\.pkg: .*~^upgradectl\|unlink\|/firmware/upgrade\.pkg\|~the next run replaces its working copy"
    "install-third~[<>] microcontroller: .*~$asks_versions~it is flashed where nobody can tell that it need not be"
    "rollback-(switch|equal)~($installs_instead)~$asks_versions~what runs is flashed where nobody can tell that a switch is enough"
    "rollback-(switch|equal)~($installs_instead)~$asks_slots~a slot whose content cannot be read is written anew"
    "init-origin~(< /firmware/recv\.tar\.xz: first|> /firmware/origin\.pkg: .*)~$unpacks~the archive is tried once, whatever comes of it"
    "init-origin~> /etc-kavro/origin\.pkg\.tar\.gz: .*~^upgradectl\|unlink\|/etc/kavro/origin\.pkg\.tar\.gz\|~the archive is tried once more at the next start"
    "init-torn~> /config/upgraded: *~^upgradectl\|unlink\|/config/upgraded\|~the next start completes it once more"
    "install-third~[<>] microcontroller: .*~^again\|~it is flashed after a failure, which leaves no version on record"
)

# Whether what a start puts right has to be put right is asked of the board, of the packages and of the microcontroller.
asks_packages='^upgradectl\|[^|]*\|/firmware/(current|rollback)\.pkg\|'

# is_left_to_a_start NUMBER SCENARIO ID: a device starts, or is rid of what awaited its activation, though its packages or its
# microcontroller do not follow yet. That is told, unless it could not be found out.
is_left_to_a_start() {
    [[ $2 == @(init-fallen|discard) ]] || return 1
    grep -qE 'could not be brought to|cannot be (renamed|flushed)' "$seen/$1.out" ||
        [[ ${3#*|} =~ $asks_slots || ${3#*|} =~ $asks_versions || ${3#*|} =~ $asks_packages ]]
}

# differences SCENARIO FACTS
differences() {
    diff "$work/$1.facts" "$2" | grep '^[<>]' || true
}

# tolerance_of SCENARIO DIFFERENCE ID: prints why it is tolerated; fails when it is not.
tolerance_of() {
    local line scenarios fact points why
    for line in "${tolerances[@]}"; do
        IFS='~' read -r scenarios fact points why <<<"$line"
        if [[ $1 =~ ^($scenarios)$ && $2 =~ ^($fact)$ && ${3#*|} =~ $points ]]; then
            printf '%s\n' "$why"
            return
        fi
    done
    return 1
}

# unlike SCENARIO FACTS ID: what differs from a run without faults and may not.
unlike() {
    local difference
    while IFS= read -r difference; do
        tolerance_of "$1" "$difference" "$3" >/dev/null || printf '%s;' "$difference"
    done < <(differences "$1" "$2")
}

# must_last NUMBER ID: it is a flush of what the success that is reported depends on. The outcome of a run is first recorded
# as a failure, and stays one when that of the end cannot be written. A rollback uses its own marker up.
must_last() {
    [[ $2 =~ \|fsync\|/(config|firmware|dev)/ ]] || return 1
    case $2 in
    *"$version_record"* | *'|/config/upgrade_history.jsonl|'* | rollback-*'|/config/upgraded|'* | *'|/config/upgrade_last_runtime.part|1|'*) return 1 ;;
    *'|/config/upgrade_last_runtime.part|'*) ! grep -q '_last_runtime: .*_failure' "$seen/$1.facts" ;;
    esac
}

# verdict_on NUMBER SCENARIO ID: one line. Of a program that crashed nothing else counts.
verdict_on() {
    local unlike
    if [[ ! -s $device/mcu/record ]]; then
        printf 'not reached\n'
    elif [[ $status == none || $status -gt 5 ]]; then
        printf 'ended with status %s: %s\n' "$status" "$(tail -n 2 "$seen/$1.err" | tr '\n' '|')"
    elif grep -qE 'Sanitizer|runtime error: ' "$seen/$1.err"; then
        printf 'a sanitizer speaks: %s\n' "$(grep -m 1 -E 'Sanitizer|runtime error: ' "$seen/$1.err")"
    elif [[ $left != 0 ]]; then
        printf '%s processes left behind\n' "$left"
    elif ((status == 0)) && is_left_to_a_start "$1" "$2" "$3"; then
        printf 'ok\n'
    elif ((status == 0)) && must_last "$1" "$3"; then
        printf 'success is reported, but what was written may not last\n'
    elif [[ $status == 0 ]]; then
        unlike=$(unlike "$2" "$seen/$1.facts" "$3")
        printf '%s\n' "${unlike:+success is reported, but: }${unlike:-ok}"
    elif [[ ! -s $seen/$1.err ]]; then
        printf 'fails without a word\n'
    else
        printf 'ok\n'
    fi
}

# --- the states that came of it -------------------------------------------------------------------------------------

# A package that could not be copied is taken for one that did not fit: all others have made room for it.
is_wiped() {
    [[ ${1##*/} == @(install*|rollback-flash).* && -z $(ls -A "$1/device/firmware") ]]
}

# judge_options_of STATE: what check_device.sh is told, a word a line.
judge_options_of() {
    local scenario=${1##*/}
    scenario=${scenario%%.*}
    printf '%s\n' --run "$releases/${brings[$scenario]}"
    [[ $scenario == init-origin ]] || is_wiped "$1" || printf '%s\n' --keeps-package
    [[ $scenario != discard ]] || printf '%s\n' --discards
    [[ $scenario != init-@(trial|torn|fallen) ]] || printf '%s\n' --keeps-way-back
}

# check_of STATE: where the verdict on a device like this one is. States of several scenarios may be one.
check_of() {
    local facts=${1##*/}
    facts=${facts#*.}
    printf '%s/%s.%s\n' "$checks" "${facts%.*}" "$(judge_options_of "$1" | sha256sum | cut -c 1-8)"
}

# try_again STATE: of one whose run has failed the same command must succeed, or the start that something was left to. What does not hold is in STATE/wrong, which
# is there when all was looked at.
try_again() {
    local scenario=${1##*/} words said=$1/again.said
    scenario=${scenario%%.*}
    words_of "$scenario"
    [[ $scenario != rollback-* || ! -e $1/device/config/upgraded ]] || words=(activate)
    [[ $scenario != discard || -e $1/device/config/upgraded ]] || words=(init)
    : >"$1/looking"
    # Of a rollback that failed after it had begun to flash, there is no package left to try again with.
    if [[ $1 == *.failed && ($scenario != rollback-* || -e $1/device/firmware/rollback.pkg) ]]; then
        copy_device "$1/device" "$1/again"
        run_on "$1/again" $speed -- "${words[@]}" >"$said" 2>&1 || true
        [[ $(<"$1/again/run/status") == "0 0" ]] ||
            printf 'tried again it fails: %s\n' "$(tail -n 2 "$said" | tr '\n' '|')" >>"$1/looking"
        facts_of "$1/again" >"$1/again.facts"
        is_wiped "$1" || [[ $scenario == rollback-* ]] || unlike_again "$scenario" "$1/again.facts" >>"$1/looking"
        rm -rf -- "$1/again"
    fi
    mv "$1/looking" "$1/wrong"
}

# unlike_again SCENARIO FACTS
unlike_again() {
    local unlike
    unlike=$(unlike "$1" "$2" "$1|again|||")
    [[ -z $unlike ]] || printf 'tried again: %s\n' "$unlike"
}

# check_state STATE CHECK: what does not hold of the device is in CHECK/wrong, which is there when the judge was heard.
check_state() {
    local options
    mapfile -t options < <(judge_options_of "$1")
    copy_device "$1/device" "$2/device"
    hear_judge "$2/device" "$2/said" "${options[@]}" >"$2/heard"
    rm -rf -- "$2/device" "$2/device.copy"
    mv "$2/heard" "$2/wrong"
}

judge_states() {
    local state check
    for state in "$states"/*/; do
        [[ -d $state ]] || continue
        state=${state%/}
        in_parallel try_again "$state"
        check=$(check_of "$state")
        ! mkdir "$check" 2>/dev/null || in_parallel check_state "$state" "$check"
    done
    await_children
}

# --- the suite ------------------------------------------------------------------------------------------------------

# wrong_with STATE: what does not hold of it, in one line; fails when nobody has said.
wrong_with() {
    cat "$1/wrong" "$(check_of "$1")/wrong" | tr '\n' ';'
}

# record_point FILE: what try_point has left. Without a verdict on the state, there is none on the point.
record_point() {
    local verdict state status id wrong why
    { read -r verdict && IFS=$'\t' read -r state status id; } <"$1" || return 0
    if [[ $verdict != ok ]]; then
        why=$verdict
        if [[ $verdict == "not reached" ]]; then why=''; else verdict=failed; fi
        record "$id" "$verdict" "$why"
        return
    fi
    wrong=$(wrong_with "$states/$state") || return 0
    if [[ -z $wrong ]]; then
        record "$id" ok
    elif why=$(why_known "$id" "$wrong"); then
        record "$id" known "$why"
    else
        record "$id" failed "the device then ($state): $wrong"
    fi
}

try_points() {
    local number=10000 id
    while IFS= read -r id; do
        number=$((number + 1))
        select_id "$id"
        in_parallel try_point $number "$id"
    done <"$work/selected_points"
    await_children
}

conclude() {
    local file scenario failures
    for file in "$seen"/*[0-9]; do
        [[ ! -e $file ]] || record_point "$file"
    done
    for scenario in "${wanted[@]}"; do
        [[ -n $only$calls ]] || grep -q "^$scenario|" "$selected" || fail_suite "$scenario: nothing was tried"
    done
    failures=$(find "$states" -mindepth 1 -maxdepth 1 -name '*.failed' | wc -l)
    printf '%d distinct states, %d of them of a failed run, judged %d times\n' \
        "$(find "$states" -mindepth 1 -maxdepth 1 | wc -l)" "$failures" "$(find "$checks" -mindepth 1 -maxdepth 1 | wc -l)"
    conclude_results
}

# --- the suite's own test -------------------------------------------------------------------------------------------

self=("${BASH_SOURCE[0]}" --full --scenario install --jobs "$jobs")
flush_of='upgradectl\|fsync\|/(firmware/upgrade.pkg.part|config/written_slot.json.part)\|1\|EIO'
missed=0

# expect WHAT STATUS TEXT COMMAND...: it ends with this status, and says this.
expect() {
    local status=0 said
    said=$("${@:4}" 2>&1) || status=$?
    if [[ $status == "$2" ]] && grep -q -- "$3" <<<"$said"; then
        printf '%s: exit status %d, as it should be; %s\n' "$1" "$status" "$(tail -n 1 <<<"$said")"
    else
        printf 'FAILED self-test: %s: exit status %d, and said was\n%s\n' "$1" "$status" "$said"
        missed=$((missed + 1))
    fi
}

# stub_judge TEXT: what stands in the place of the judge does as it says.
stub_judge() {
    judge_program=$work/stub_judge
    printf '#!/bin/bash\n%s\n' "$1" >"$judge_program"
    chmod +x "$judge_program"
}

# tried_point VERDICT STATUS ID: as try_point leaves it, with an empty device.
tried_point() {
    local state=${3%%|*}.0123456789abcdef.done
    mkdir -p "$states/$state/device/firmware"
    select_id "$3"
    printf '%s\n%s\t%s\t%s\n' "$1" "$state" "$2" "$3" >"$seen/10001"
}

# judged WHAT STATUS TEXT: of the point that was tried.
judged() {
    judge_states
    expect "$@" conclude
    make_work
}

# shellcheck disable=SC2016  # the words of the stubs
test_judges() {
    local point='install|upgradectl|fsync|/config/written_slot.json.part|1|EIO'
    wanted=(install)
    stub_judge 'echo "all holds"' && tried_point ok 4 "$point"
    judged "a device in order" 0 'tried 1, ok 1, failed 0'
    stub_judge 'kill -SEGV $$' && tried_point ok 4 "$point"
    judged "a judge that dies" 1 'the judge ended early, exit status 139'
    stub_judge 'echo "all holds"; exit 1' && tried_point ok 4 "$point"
    judged "a judge that fails without a complaint" 1 'the judge ended early'
    stub_judge 'kill -KILL $PPID' && tried_point ok 4 "$point"
    judged "a child that dies before its verdict" 1 'nobody has said whether it holds'
    stub_judge 'echo "all holds"' && tried_point ok 4 "$point" && rm "$seen/10001"
    judged "a point that nobody tried" 1 'nobody has said whether it holds'
    wanted=(activate) point='activate|upgradectl|rename|/firmware/current.pkg|1|EIO'
    stub_judge 'echo "wrong: current.pkg is gone (rollback.pkg is first)"; exit 1' && tried_point ok 0 "$point"
    judged "a known fault" 0 'known 1, not reached 0'
    stub_judge 'echo "wrong: init fails (exit status 139)"; exit 1' && tried_point ok 0 "$point"
    judged "a crash of the next start where a fault is known" 1 'exit status 139'
    stub_judge 'echo "all holds"' && tried_point "ended with status 139: " 139 "$point"
    judged "a crash where a fault is known" 1 'ended with status 139'
}

# A boot environment that cannot be read is something that is seen of a device, and not the end of looking at it.
test_facts() {
    local device=$work/empty
    mkdir -p "$device"/{run,config,firmware,etc-kavro,partitions,mcu}
    printf 'a\n' >"$device/run/running_slot"
    : >"$device/mcu/flash.bin"
    # shellcheck disable=SC2317  # facts_of calls it
    twin_environment_tool() { return 1; }
    in_parallel facts_of "$device" >"$work/facts" 2>/dev/null
    await_children
    expect "a boot environment that cannot be read" 0 'environment cannot be read' cat "$work/facts"
    expect "what is looked at after that" 0 '^microcontroller: ' cat "$work/facts"
}

test_itself() {
    [[ -e $programs/careless/libcommon_yr.so.1 ]] || not_run "$programs/careless/libcommon_yr.so.1 is missing: ./dev build makes it"
    make_work
    test_judges
    test_facts
    expect "flushes that fail" 0 'tried 2, ok 2, failed 0' "${self[@]}" --calls "$flush_of" "$build"
    expect "a library that takes a failed flush for done" 1 'success is reported, but what was written may not last' \
        "${self[@]}" --library "$programs/careless" --calls "$flush_of" "$build"
    ((missed == 0))
}

if "$self_test"; then
    test_itself
    exit
fi
((${#wanted[@]})) || wanted=("${order[@]}")
[[ -z $only ]] || wanted=("${only%%|*}")
make_work
make_releases
make_devices
for scenario in "${wanted[@]}"; do
    record_calls "$scenario"
    printf '%s: %d points\n' "$scenario" "$(wc -l <"$work/$scenario.points")"
done
select_points >"$work/selected_points"
if "$list"; then
    cat "$work/selected_points"
    exit 0
fi
[[ $mode == full ]] || printf 'drawn from %s\n' "$seed"
try_points
judge_states
conclude
