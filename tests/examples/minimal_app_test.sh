#!/usr/bin/env bash
# The smallest application at work: it installs a package on a device, activates it when it is started again
# after a restart, and confirms it after the next.
#
#   minimal_app_test.sh BUILD_DIR MINIMAL_APP
set -euo pipefail

build=$1 app=$2
export KAVRO_TWIN_PROGRAMS=$build/twin
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
twin=$root/twin/twin
work=$build/twins/minimal_app
device=$work/device

die() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

run_app() {
    "$twin" run "$device" --visible "$build" -- "$app" "$@"
}

rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT
openssl genpkey -quiet -algorithm RSA -out "$work/key.pem"
"$root/twin/demo/make_release.sh" "$work/release" 1 105 8 3
"$build/tools/upgradectl/upgradectl" pack --output "$work/release.pkg" --key "$work/key.pem" --version 1.105.8.3 \
    "$work/release"
"$twin" create "$device" --plain

status=0
run_app || status=$?
((status == 2)) || die "without a package it ends with $status, not 2"
[[ ! -e $device/config/upgraded ]] || die "an upgrade is pending before there was one"

run_app "$work/release.pkg" >"$work/progress.txt" || die "the installation failed: $(cat "$work/progress.txt")"
grep -q '^stage ' "$work/progress.txt" || die "no progress is shown"
[[ -e $device/config/upgraded ]] || die "no upgrade awaits activation"
"$twin" compare "$device" b "$work/release"

"$twin" boot "$device"
run_app || die "the activation failed"
[[ ! -e $device/config/upgraded ]] || die "the upgrade still awaits activation"
"$twin" boot "$device" | grep 'slot b'
on_trial() {
    [[ $("$twin" show "$device") == *"trial             $1"* ]]
}

on_trial "start 1 of" || die "slot b is not on trial"
status=0
run_app || status=$? # confirms, and then lacks a package
((status == 2)) || die "in slot b it ends with $status, not 2"
on_trial none || die "slot b is not confirmed"
