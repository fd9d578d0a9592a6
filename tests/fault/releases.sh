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

# The second release brings the microcontroller's firmware to a device with the first, the third only the main processor's;
# the fourth only that to a device with the second.
declare -A release_versions=([first]='1 104 7 2' [second]='1 105 8 3' [third]='1 106 7 4' [fourth]='1 107 8 5'
    [next]='1 109 9 6')
release_names=(first second third fourth next)

make_releases() {
    local release versions
    mkdir -p "$releases"
    openssl genpkey -quiet -algorithm RSA -out "$releases/key.pem" 2>/dev/null
    for release in "${release_names[@]}"; do
        read -ra versions <<<"${release_versions[$release]}"
        make_release "$release" "${versions[@]}"
    done
    known_releases=("$releases"/{first,second,third,fourth})
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

# make_upgraded RELEASE [FROM]: of the factory's device, or of this one, a device for each step on the way of this release to
# being confirmed.
make_upgraded() {
    grown "${2-factory}" "installed_$1"
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

# make_torn: cut off in the middle of the exchange of the packages: init completes it.
make_torn() {
    grown activated_second torn
    mv "$bases/torn/firmware/rollback.pkg" "$bases/torn/firmware/temp"
    mv "$bases/torn/firmware/current.pkg" "$bases/torn/firmware/rollback.pkg"
    : >"$bases/torn/config/upgraded"
    boot "$bases/torn"
}

# make_fallen FROM TO: nobody has confirmed what is on trial there, and the boot loader has gone back: init is next.
make_fallen() {
    local starts before
    grown "$1" "$2"
    before=$(<"$bases/$2/run/running_slot")
    for ((starts = 0; starts < 4; starts++)); do
        boot "$bases/$2"
        [[ $(<"$bases/$2/run/running_slot") == "$before" ]] || return 0
    done
    die "preparing a device: it does not fall back"
}

# The way of a device through all releases that it is to run, and back from one that nobody has confirmed.
make_all_upgraded() {
    make_upgraded second
    make_upgraded third
    make_upgraded fourth runs_second
    make_fallen started_second fallen_second
}

# NAME: the device it begins with, what is done on it, the release that it is to bring.
# After a fallback, and when an installed package is dropped, the microcontroller has the firmware of the second release and gets
# that of the first.
declare -A begins_with=([install]=factory [install-third]=factory [activate]=installed_second [confirm]=trial_second
    [rollback-flash]=runs_second [rollback-switch]=runs_third [rollback-equal]=runs_fourth
    [init]=fresh [init-trial]=started_second [init-torn]=torn [init-fallen]=fallen_second
    [discard]=installed_second [discard-equal]=installed_fourth)
declare -A does=([install]='install RELEASES/second.pkg' [install-third]='install RELEASES/third.pkg'
    [activate]=activate [confirm]=confirm [rollback-flash]=rollback [rollback-switch]=rollback [rollback-equal]=rollback
    [init]=init [init-trial]=init [init-torn]=init [init-fallen]=init [discard]=discard [discard-equal]=discard)
declare -A brings=([install]=second [install-third]=third [activate]=second [confirm]=second
    [rollback-flash]=first [rollback-switch]=first [rollback-equal]=second [init]=first [init-trial]=second
    [init-torn]=second [init-fallen]=second [discard]=second [discard-equal]=fourth)

# words_of SCENARIO: sets `words`, the arguments of upgradectl.
words_of() {
    read -ra words <<<"${does[$1]//RELEASES/$releases}"
}
