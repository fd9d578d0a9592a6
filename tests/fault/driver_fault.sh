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

ids_of() {
    printf '%s\n' "$@"
}

# Each step of each driver, on both at once or one after the other, in ways that are drawn; each way; and two faults at once.
quick_selection() {
    "$1" --list | in_drawn_order "$seed" | awk -F '[:=+]' '
        /\+/ { if (++two <= 2) print; next }
        { step = $2; way = $3 ($NF == "again" ? "" : "," $NF); mode = $1 "," $3 }
        !steps[step]++ { ways[way]++; modes[mode]++; print; next }
        !ways[way]++ || !modes[mode]++'
}

parse_options "$@"
prepare
has_program release driver_fault || conclude
program=${builds[release]}/tests/fault/driver_fault
if [[ -n $only ]]; then
    printf '%s\n' "${only#*:}"
elif [[ $extent == quick ]]; then
    in_process=4
    quick_selection "$program"
else
    "$program" --list
fi >"$work/names"
xargs -n "$in_process" <"$work/names" | awk -v speed=$speed '{ print "drivers:" NR, "release", speed, "driver_fault", $0 }' \
    >"$work/processes"
side_by_side "${jobs:-3}" <"$work/processes"
conclude
