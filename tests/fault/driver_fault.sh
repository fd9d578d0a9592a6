#!/usr/bin/env bash
# Tries what flash drivers can do wrong: each step of each driver, and the switch of the link, fails, takes long,
# answers when the wait of 361 s is over, or never; on one processor and on both at once, side by side and one after the
# other. After each: the result and what is remembered, the next run in the same process where one is allowed (and where
# it is not), the end of the process, and a good run after a restart. See `driver_fault` for the names.
#
# What the real microcontroller can do wrong on the wire is tried by the cases of tests/twin/mcu_faults_test.cpp.
set -euo pipefail

name=driver_fault
# shellcheck source=series.sh
source "${BASH_SOURCE[0]%/*}/series.sh"

speed=60
in_process=12

# Every step fails once, and each of the other ways once.
quick_selection() {
    "$1" --list | grep -E '^(side|single):[a-z.A-Z]*=fails:' | sed -n '1~2p'
    printf '%s\n' side:mpu.upgrade=hangs:again side:mcu.upgrade=late:again side:mpu.postUpgrade=late:overlapped \
        side:mpu.upgrade=late:overlapped-by-failure side:mcu.preUpgrade=late-failure:again \
        side:mpu.upgrade=hangs+mcu.upgrade=fails:again side:mpu.upgrade=fails+mcu.upgrade=fails:again
}

parse_options "$@"
prepare
has_program release driver_fault || conclude
program=${builds[release]}/tests/fault/driver_fault
if [[ -n $only ]]; then
    printf '%s\n' "${only#*:}"
elif [[ $extent == quick ]]; then
    quick_selection "$program"
else
    "$program" --list
fi | xargs -n "$in_process" | awk -v speed=$speed '{ print "drivers:" NR, "release", speed, "driver_fault", $0 }' \
    >"$work/processes"
side_by_side "${jobs:-3}" <"$work/processes"
conclude
