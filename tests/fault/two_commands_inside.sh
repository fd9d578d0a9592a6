#!/usr/bin/env bash
# On a device: a command, and another one at a moment of its life.
#
#   two_commands_inside.sh DIR HOW CALLS UPGRADECTL FIRST... -- SECOND...
#
# CALLS is the moment: the first one, with what it starts, is about to make this call then. HOW is what becomes of the first one
# at that moment:
#
#   beside, waits  it goes on as the second one comes
#   killed         it is killed, and only it: what it has started goes on
#   stopped        it stands still until the second one has ended; not before it is done with the boot environment, for which all
#                  take turns
#   alone          nothing; there is no second one, and all calls go to DIR/calls
#
# DIR gets what was found out: first and second, the exit statuses; first.said and second.said; `held`, whether the first one had
# the device's lock at the moment, and `alive`, whether it was still there; pid, of the first one; and left, the number of
# processes that are still there.
set -uo pipefail

dir=$1 how=$2 moment=$3 upgradectl=$4
shift 4
first=() second=()
while (($#)) && [[ $1 != -- ]]; do
    first+=("$1")
    shift
done
second=("${@:2}")

processes() {
    local all=(/proc/[0-9]*)
    printf '%d\n' "${#all[@]}"
}

# await_end_of_others BEFORE: of what the commands have started.
await_end_of_others() {
    local pause
    for pause in 0 0.1 0.5 2; do
        sleep $pause
        (($(processes) > $1)) || break
    done
    printf '%d\n' $(($(processes) - $1)) >"$dir/left"
}

# begin_first NAME=VALUE...
begin_first() {
    env "$@" LD_PRELOAD="$PRELOADED" "$upgradectl" "${first[@]}" >"$dir/first.said" 2>&1 &
    pid=$!
    printf '%d\n' "$pid" >"$dir/pid"
}

# await_moment: opened for both, a FIFO lets everybody go who waits at it: where the first one ends before it comes to its call,
# nobody must wait for that.
await_moment() {
    {
        tail --sleep-interval=0.05 --pid="$pid" --follow /dev/null
        sleep 0.2 <>"$dir/gate"
    } &
    exec {gate}<"$dir/gate"
    exec {gate}<&-
}

# let_go: the call that waits, which may be one of what the first one has started. If it is gone nobody need go.
let_go() {
    sleep 1 <>"$dir/gate" &
}

end_first() {
    local status=0
    wait "$pid" 2>/dev/null || status=$?
    printf '%d\n' "$status" >"$dir/first"
}

look_at_first() {
    [[ $(cut -d ' ' -f 3 "/proc/$pid/stat" 2>/dev/null) == [RSDTt] ]] || return 0
    : >"$dir/alive"
    ! grep -q "FLOCK  ADVISORY  WRITE $pid [^ ]*:$(stat -c %i /config) " /proc/locks || : >"$dir/held"
}

# has_environment: the first one is reading or saving the boot environment, and others have to wait for the end of that.
has_environment() {
    local lock=/run/lock/fw_printenv.lock
    [[ -e $lock ]] && grep -q "FLOCK  ADVISORY  WRITE $pid [^ ]*:$(stat -c %i "$lock") " /proc/locks
}

# stop_first: at its call, or as soon after that as it keeps nobody from the boot environment.
stop_first() {
    local tries
    kill -STOP "$pid"
    has_environment || return 0
    let_go
    for ((tries = 0; tries < 1000; tries++)); do
        kill -CONT "$pid"
        sleep 0.005
        kill -STOP "$pid" || return 0
        has_environment || return 0
    done
}

# Its calls are not counted. One that fails on purpose fails in both.
run_second() {
    local status=0 settings=(-u KAVRO_FAULT_POINTS)
    [[ -z ${KAVRO_FAULT_FAIL-} ]] || settings=()
    timeout --signal=KILL 120 env "${settings[@]}" LD_PRELOAD="$PRELOADED" "$upgradectl" "${second[@]}" \
        >"$dir/second.said" 2>"$dir/second.errors" || status=$?
    printf '%d\n' "$status" >"$dir/second"
}

begun=$(processes)
if [[ $how == alone ]]; then
    begin_first "KAVRO_FAULT_POINTS_RECORD=$dir/calls"
    end_first
else
    mkfifo "$dir/gate"
    begin_first "KAVRO_FAULT_GATE=$moment $dir/gate"
    await_moment
    [[ $how != stopped ]] || stop_first
    look_at_first
    [[ $how != killed ]] || { kill -KILL "$pid" && end_first; }
    [[ $how == stopped ]] || let_go
    run_second
    [[ $how != stopped ]] || { kill -CONT "$pid" && let_go; }
    [[ -e $dir/first ]] || end_first
    wait
fi
await_end_of_others "$begun"
