# shellcheck shell=bash disable=SC2154
# The device's microcontroller: an emulator that `twin run` powers. It lives as long as one of the runs that hold the
# supply, so that several share one. Sourced by twin; `state` is the device's directory.
#
#   STATE/mcu/flash.bin   its flash memory          STATE/supply     locked shared by each run that powers it
#   STATE/mcu/link        its end of the link       STATE/power_up   locked while one run switches it on
#   STATE/mcu/log         what it has heard and answered since it has power

mcu_emulator=$(realpath -m -- "${KAVRO_TWIN_PROGRAMS:-$twin_programs}")/mcu-emulator

need_mcu_emulator() {
    [[ -x $mcu_emulator ]] ||
        fail "$mcu_emulator is missing" "./dev build, or name the directory it is in by KAVRO_TWIN_PROGRAMS"
}

# The emulator locks its flash memory.
mcu_is_on() {
    ! flock --nonblock "$state/mcu/flash.bin" true
}

# Of a microcontroller whose last run is over, just now.
wait_until_mcu_is_off() {
    [[ ! -e $state/mcu/flash.bin ]] || flock --timeout 60 "$state/mcu/flash.bin" true ||
        fail "the microcontroller of $state does not switch off" "see $state/mcu/log"
}

# start_emulator [--fault SPEC]...: apart from the terminal and from what this process holds. It knows its link by a
# name of its own directory, for the path of a socket is short.
start_emulator() {
    rm -f "$state/mcu/link"
    (
        exec {lock}>&- {supply}>&- {power_up}>&-
        cd "$state/mcu" || exit
        exec setsid "$mcu_emulator" run --flash flash.bin --listen link --until-unlocked ../supply "$@"
    ) </dev/null >"$state/mcu/log" 2>&1 &
    local emulator=$! tries status=0
    for ((tries = 0; tries < 3000; tries++)); do
        [[ ! -S $state/mcu/link ]] || return 0
        kill -0 "$emulator" 2>/dev/null || break
        sleep 0.02
    done
    # Its wrong command line is that of this script, of which nothing but the faults is a user's.
    wait "$emulator" || status=$?
    ((status != 2)) || misuse "$(sed "s/^mcu-emulator: //; s/ (see 'mcu-emulator help')$//" "$state/mcu/log")" \
        "see the table of faults in docs/mcu.md"
    fail "the microcontroller does not start: $(tail -n 3 "$state/mcu/log")"
}

# An emulator whose last run is over needs a moment to notice it: neither its faults nor what it holds in memory are for
# the next one. Nobody but a run that holds the supply keeps it from being locked here.
wait_for_last_run() {
    flock --exclusive --nonblock "$supply" || return 0
    flock --unlock "$supply"
    wait_until_mcu_is_off
}

# switch_mcu_on [--fault SPEC]...: `supply` is open. Until this process ends, and every other that has switched it on.
switch_mcu_on() {
    need_mcu_emulator
    exec {power_up}>>"$state/power_up"
    flock "$power_up"
    wait_for_last_run
    flock --shared "$supply"
    if mcu_is_on; then
        (($# == 0)) || fail "the microcontroller runs already, for another '$twin_name run': too late for its faults" \
            "wait until that has ended"
    else
        start_emulator "$@"
    fi
    exec {power_up}>&-
}
