#!/usr/bin/env bash
# The application of docs/integrating.md that uses the agent, over the life of a device: it installs what carries the key
# and nothing else, activates, confirms, and goes back.
#
#   agent_app_test.sh BUILD_DIR AGENT_APP
set -euo pipefail

build=$1 app=$2
export KAVRO_TWIN_PROGRAMS=$build/twin
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
twin=$root/twin/twin
work=$build/twins/agent_app
device=$work/device
upgradectl=$build/tools/upgradectl/upgradectl

die() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# expect STATUS ARGUMENT...: of the application on the device; `said` is what it said.
expect() {
    local status=0
    said=$("$twin" run "$device" --visible "$build" -- "$app" "${@:2}" 2>&1) || status=$?
    ((status == $1)) || die "${*:2}: exit status $status, not $1: $said"
}

rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT
for key in maker stranger; do
    openssl genpkey -quiet -algorithm RSA -out "$work/$key.pem"
    openssl pkey -in "$work/$key.pem" -pubout -out "$work/$key.pub"
done
"$root/twin/demo/make_release.sh" "$work/release" 1 105 8 3
"$upgradectl" pack --output "$work/release.pkg" --key "$work/maker.pem" --version 1.105.8.3 "$work/release"
"$twin" create "$device" --plain

expect 0 start
expect 3 install "$work/release.pkg" "$work/stranger.pub"
[[ $said == *"does not carry the trusted key"* ]] || die "it does not say that the key is another one: $said"
expect 1 activate
expect 1 back
expect 0 install "$work/release.pkg" "$work/maker.pub"
expect 3 install "$device/none.pkg" "$work/maker.pub"
expect 0 activate
[[ $said == *activated* ]] || die "it does not tell of the activation: $said"
"$twin" boot "$device" | grep 'slot b'
expect 0 start
[[ $("$twin" show "$device") == *"trial             none"* ]] || die "slot b is not confirmed"
expect 2 begin
"$twin" compare "$device" b "$work/release"
