#!/usr/bin/env bash
# Suites that cannot fail prove nothing: each is given what it must find, in the system and in itself.
#
#   self_test.sh [--quick|--full] [--json FILE]
#
# There is no selection: --quick and --full are the same.
set -euo pipefail
cd -- "${BASH_SOURCE[0]%/*}/../.."
# shellcheck source=results.sh
source tests/fault/results.sh

name=self_test jobs=1 json=''
build=build/release
while (($#)); do
    case $1 in
    --quick | --full) ;;
    --json) json=$(realpath -m -- "$2") && shift ;;
    *) printf '%s: unknown option %s\n' "$0" "$1" >&2 && exit 2 ;;
    esac
    shift
done
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
begin_results "$work"
unmade=false

# try NAME COMMAND...
try() {
    local status=0
    select_id "$1"
    "${@:2}" 2>&1 | tee "$work/said" || status=$?
    case $status in
    0) record "$1" ok ;;
    77) record "$1" "not reached" && unmade=true ;;
    *) record "$1" failed "$(grep -A 2 '^FAILED' "$work/said" || tail -n 3 "$work/said")" ;;
    esac
}

# --- the table of all kinds -----------------------------------------------------------------------------------------

# table WHAT EXIT_STATUS TEXT STATUS LINES LAST_WORDS: of a kind that ended with this status after as many results, and with these
# words, the table must say TEXT and end with EXIT_STATUS.
table() {
    local status=0 i
    : >"$work/driver_fault.json"
    for ((i = 0; i < $5; i++)); do
        printf '{"kind":"driver_fault","id":"%d","outcome":"as it should be"}\n' "$i"
    done >"$work/driver_fault.json"
    printf '%s\n' "$6" >"$work/driver_fault.log"
    printf '%d 1\n' "$4" >"$work/driver_fault.status"
    # shellcheck disable=SC2016,SC2034  # the words of the inner shell
    bash -c 'source tests/fault/fault.sh && work=$1 extent=quick kinds=(driver_fault) && show_table' bash "$work" \
        >"$work/table" || status=$?
    if [[ $status == "$2" ]] && grep -q -- "$3" "$work/table"; then
        printf 'a kind that %s: as it should be\n' "$1"
    else
        printf 'FAILED self-test: a kind that %s: exit status %d, %s\n' "$1" "$status" "$(tail -n 1 "$work/table")"
        return 1
    fi
}

test_tables() {
    local all='driver_fault: tried 15, ok 15, failed 0' missed=0
    table "is in order" 0 ' ok$' 0 15 "$all" || missed=1
    table "fails" 1 'exit status 1' 1 15 "$all" || missed=1
    table "cannot be counted" 1 'there are 15 results' 0 15 'all is well' || missed=1
    table "tells of more than it has tried" 1 'there are 14 results' 0 14 "$all" || missed=1
    table "tries too little" 1 'less than 15' 0 3 'driver_fault: tried 3, ok 3, failed 0' || missed=1
    CI=false table "cannot be run here" 0 'not run in whole' 77 0 'not run' || missed=1
    CI=true table "cannot be run in CI" 1 'FAILED, not run in whole' 77 0 'not run' || missed=1
    return $missed
}

try "the table" test_tables
try series tests/fault/series_self_test.sh "$build"
try check_device tests/fault/check_device_test.sh "$build"
try call_fault tests/fault/call_fault.sh --self-test "$build"
try two_commands tests/fault/two_commands.sh --self-test "$build"
try power_cut tests/fault/power_cut.sh --self-test
! "$unmade" || { [[ -z $json ]] || cp -- "$results" "$json" && printf 'self_test: not run in whole\n' && exit 77; }
conclude_results
