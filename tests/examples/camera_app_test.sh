#!/usr/bin/env bash
# The example camera_app over the whole life of a device. What it says is compared with what the device then holds.
#
#   camera_app_test.sh BUILD_DIR CAMERA_APP
set -euo pipefail

build=$1 app=$2
export KAVRO_TWIN_PROGRAMS=$build/twin
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
twin=$root/twin/twin
work=$build/twins/camera_app
device=$work/device
program=

die() {
    printf 'FAILED: %s\n' "$*" >&2
    [[ ! -f $work/said ]] || { printf 'The program said last:\n' && cat "$work/said"; } >&2
    exit 1
}

cleanup() {
    [[ -z $program ]] || kill "$program" 2>/dev/null || true
    rm -rf "$work"
}

# --- the program ----------------------------------------------------------------------------------------------------

start_app() {
    rm -f "$work/commands"
    mkfifo "$work/commands"
    : >"$work/said" # it must be there when the first text is expected
    "$twin" run "$device" --visible "$build" -- "$app" <"$work/commands" >>"$work/said" &
    program=$!
    exec {commands}>"$work/commands"
}

tell_app() {
    printf '%s\n' "$*" >&"$commands"
}

# wait_for COMMAND...: until it succeeds.
wait_for() {
    local deadline=$((SECONDS + 120))
    until "$@"; do
        ((SECONDS < deadline)) || die "in two minutes it did not come to: $*"
        sleep 0.05
    done
}

# expect TEXT: of the program.
expect() {
    wait_for grep -qF -- "$1" "$work/said"
}

# expect_end STATUS
expect_end() {
    local status=0
    wait "$program" || status=$?
    program=
    exec {commands}>&-
    ((status == $1)) || die "it ends with $status, not $1"
}

# app_below PROCESS: the program's own process, among those that `twin run` is made of.
app_below() {
    local child
    if [[ $(<"/proc/$1/comm") == camera_app ]]; then
        printf '%s\n' "$1"
        return
    fi
    for child in $(pgrep --parent "$1"); do
        app_below "$child"
    done
}

signal_app() {
    kill -s "$1" "$(app_below "$program")"
}

# --- the device -----------------------------------------------------------------------------------------------------

# holds LABEL VALUE: what `twin show` tells.
holds() {
    grep -qE "^ *$1 +$2( |$)" < <("$twin" show "$device" --digests) || die "'$1' is not '$2': $("$twin" show "$device")"
}

kept_as() {
    cmp -s "$work/$1.pkg" "$device/firmware/$2" || die "$2 is not the package $1"
}

asked_for_restart() {
    [[ -e $device/mcu/reset_request ]] || die "the microcontroller was not asked for a restart"
}

make_package() {
    "$root/twin/demo/make_release.sh" "$work/$1" 1 "$2" "$3" 3
    "$build/tools/upgradectl/upgradectl" pack --output "$work/$1.pkg" --key "$work/key.pem" --version "1.$2.$3.3" \
        "$work/$1" >/dev/null
}

# restart_into SLOT SOFTWARE: the program activates and asks for the restart, and after that confirms.
restart_into() {
    "$twin" boot "$device" >/dev/null
    start_app
    expect activated
    expect restarting
    expect_end 0
    asked_for_restart
    confirm_in "$@"
}

confirm_in() {
    "$twin" boot "$device" >/dev/null
    holds "running slot" "$1"
    holds trial "start 1 of 3"
    start_app
    expect "software $2"
    tell_app quit
    expect_end 0
    holds trial none
    holds "to be activated" no
}

rm -rf "$work"
mkdir -p "$work"
trap cleanup EXIT
openssl genpkey -quiet -algorithm RSA -out "$work/key.pem"
make_package first 105 8
make_package second 106 9
"$twin" create "$device" --plain >/dev/null
network=$device/tmp/network
mkfifo "$network"

printf '== what does not become an installation\n'
start_app
expect "last run: none"
expect "software V01.104.007.002"
tell_app install /tmp/network
head -c 5000000 "$work/first.pkg" >"$network"
expect "no whole package received"
tell_app install /tmp/network
tell_app install /tmp/network
expect "refused: a run is in progress"
tell_app give-up
expect "given up, nothing received"
[[ -z $(ls -A "$device/firmware") ]] || die "something is left of the receptions"

cp --sparse=always "$work/first.pkg" "$device/tmp/damaged.pkg"
printf 'X' | dd of="$device/tmp/damaged.pkg" bs=1 seek=1000000 conv=notrunc status=none
tell_app install /tmp/damaged.pkg
expect "failed; the system log says why"
holds "last run" upgrade_failure
signal_app INT
expect_end 0

start_app
expect "last run: upgrade failed"
tell_app install /tmp/network
exec {sender}>"$network"
wait_for test -e "$device/firmware/recv.tar.xz.part"
signal_app KILL
expect_end 137
exec {sender}>&-
start_app
expect "last run: none"
[[ -z $(find "$device/firmware" -name 'recv*') ]] || die "something is left of the killed reception"
cp --sparse=always "$work/first.pkg" "$device/tmp/first.pkg"
tell_app install /tmp/first.pkg
expect "state 1"
tell_app give-up
expect "given up"
tell_app quit
expect_end 0
holds "to be activated" no
holds "next start" a
holds "written slot" none

printf '== the first package, from the network\n'
start_app
tell_app install /tmp/network
cat "$work/first.pkg" >"$network"
expect restarting
expect_end 0
asked_for_restart
holds "to be activated" yes
holds "last run" upgrade_success
[[ ! -e $device/firmware/recv.tar.xz ]] || die "the received package still takes room"
"$twin" compare "$device" b "$work/first"
"$twin" compare "$device" mcu "$work/first"
restart_into b V01.105.008.003
kept_as first current.pkg

printf '== the second package, told to end while it is flashed\n'
start_app
cp --sparse=always "$work/second.pkg" "$device/tmp/second.pkg"
tell_app install /tmp/second.pkg
expect "stage FLASHING_START"
signal_app TERM
expect "done"
expect_end 0
[[ ! -e $device/mcu/reset_request ]] || die "a program that is told to end asks for a restart"
"$twin" compare "$device" a "$work/second"
restart_into a V01.106.009.003
kept_as second current.pkg
kept_as first rollback.pkg

printf '== back again\n'
start_app
tell_app rollback
expect restarting
expect_end 0
asked_for_restart
confirm_in b V01.105.008.003
"$twin" compare "$device" b "$work/first"
"$twin" compare "$device" mcu "$work/first"
kept_as first current.pkg
