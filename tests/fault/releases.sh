# shellcheck shell=bash disable=SC2154,SC2034
# What the suites share that fail calls and cut the power: the releases that devices run, the devices that each scenario
# begins with, and what is done on them. Sourced; the script sets `root`, `build`, `twin`, `upgradectl`, `programs`, `work`,
# `releases` and `bases`, and says with `grown FROM TO` how a device becomes the beginning of another one.

# make_release NAME HW MPU MCU BLD
make_release() {
    "$root/twin/demo/make_release.sh" --small "$releases/$1" "${@:2}"
    "$upgradectl" pack --key "$releases/key.pem" --version "$(IFS=. && printf '%s' "${*:2}")" \
        --output "$releases/$1.pkg" "$releases/$1" >/dev/null
}

# The second release brings the microcontroller's firmware, the third only the main processor's.
make_releases() {
    mkdir -p "$releases"
    openssl genpkey -quiet -algorithm RSA -out "$releases/key.pem" 2>/dev/null
    make_release first 1 104 7 2
    make_release second 1 105 8 3
    make_release third 1 106 7 4
    make_release next 1 109 9 5
}

# on_device DEVICE ARGUMENT...: of upgradectl, its pauses shortened; it must succeed.
on_device() {
    "$twin" run "$1" --visible "$build" --visible "$releases" --env KAVRO_CLOCK_SPEED=8 \
        -- env LD_PRELOAD="$programs/libkavro_short_clock.so" "$upgradectl" "${@:2}" >"$work/said" 2>&1 ||
        die "preparing a device: upgradectl ${*:2} failed: $(tail -n 3 "$work/said")"
}

boot() {
    "$twin" boot "$1" >/dev/null || die "preparing a device: it does not start"
}

# make_factory KIND: a device as it leaves the factory, with the package of what it runs. KIND is an option of `twin create`.
make_factory() {
    "$twin" create "$bases/factory" "$1" --components "$releases/first" >/dev/null
    cp --sparse=always "$releases/first.pkg" "$bases/factory/firmware/current.pkg"
}

# make_upgraded RELEASE: of the factory's device, one for each step on the way of this release to being confirmed.
make_upgraded() {
    grown factory "installed_$1"
    on_device "$bases/installed_$1" install "$releases/$1.pkg"
    grown "installed_$1" "activated_$1"
    on_device "$bases/activated_$1" activate
    grown "activated_$1" "started_$1"
    boot "$bases/started_$1"
    grown "started_$1" "trial_$1"
    on_device "$bases/trial_$1" init
    grown "trial_$1" "runs_$1"
    on_device "$bases/runs_$1" confirm
}

# NAME: the device it begins with, what is done on it, the release that it is to bring.
declare -A begins_with=([install]=factory [install-third]=factory [activate]=installed_second [confirm]=trial_second
    [rollback-flash]=runs_second [rollback-switch]=runs_third [init]=fresh)
declare -A does=([install]='install RELEASES/second.pkg' [install-third]='install RELEASES/third.pkg'
    [activate]=activate [confirm]=confirm [rollback-flash]=rollback [rollback-switch]=rollback [init]=init)
declare -A brings=([install]=second [install-third]=third [activate]=second [confirm]=second
    [rollback-flash]=first [rollback-switch]=first [init]=first)

# words_of SCENARIO: sets `words`, the arguments of upgradectl.
words_of() {
    read -ra words <<<"${does[$1]//RELEASES/$releases}"
}
