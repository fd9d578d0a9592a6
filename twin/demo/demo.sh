#!/usr/bin/env bash
# The main job from end to end: a signed package is installed on an emulated device, activated and rolled back. What
# the device then holds is compared with what the package was made from; any difference ends the demo with an error.
#
#   demo.sh BUILD_DIR [WORK_DIR]
set -euo pipefail

build=$(realpath -- "$1")
here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
work=${2:-$build/demo}
export KAVRO_TWIN_PROGRAMS=$build/twin
device=$work/device
upgradectl=$build/tools/upgradectl/upgradectl

old=1.104.7.2
new=1.105.8.3
package_bytes=134217728

failures=0
summary=()

say() {
    printf '\n== %s\n' "$*"
}

# expect WHAT ACTUAL EXPECTED
expect() {
    if [[ $2 == "$3" ]]; then
        printf '  ok    %s: %s\n' "$1" "$2"
    else
        printf '  FAIL  %s: %s, expected %s\n' "$1" "$2" "$3"
        failures=$((failures + 1))
    fi
}

twin() {
    "$here/../twin" "$@"
}

on_device() {
    printf '$ upgradectl %s\n' "$*"
    twin run "$device" --visible "$build" --visible "$work" -- "$upgradectl" "$@"
}

digest() {
    if [[ -f $1 ]]; then
        sha256sum <"$1" | cut -d ' ' -f 1
    else
        printf 'none\n'
    fi
}

# --- what the steps check -------------------------------------------------------------------------------------------

# shown NAME: a line of `twin show`, without what stands in brackets.
shown() {
    twin show "$device" | sed -n "s/^$1  *//p" | sed 's/ (.*//'
}

# expect_content PLACE VERSION: a slot, the boot loader or the microcontroller holds what is in that package.
expect_content() {
    if twin compare "$device" "$1" "$work/in-package-$2"; then
        printf '  ok    %s holds what is in the package %s\n' "$1" "$2"
    else
        printf '  FAIL  %s does not hold what is in the package %s\n' "$1" "$2"
        failures=$((failures + 1))
    fi
}

# expect_package NAME VERSION|none
expect_package() {
    local expected=none held actual
    actual=$(digest "$device/firmware/$1")
    [[ $2 == none ]] || expected=$(digest "$work/$2.pkg")
    if [[ $actual == "$expected" ]]; then held=$2; else held="sha256 $actual"; fi
    expect "/firmware/$1" "$held" "$2"
}

# remember STEP: one line of the table that ends the demo.
remember() {
    summary+=("$(printf '%-28s %-11s %-5s %-5s %-4s %s' "$1" "$(shown versions)" "$(shown 'running slot')" \
        "$(shown 'next start')" "$(shown microcontroller)" "$(shown 'last run')")")
}

# --- the steps ------------------------------------------------------------------------------------------------------

make_packages() {
    say "two releases, $old and $new: components, signatures, packages"
    openssl genpkey -quiet -algorithm RSA -pkeyopt rsa_keygen_bits:3072 -out "$work/release-key.pem" 2>/dev/null
    local version
    for version in "$old" "$new"; do
        # shellcheck disable=SC2046  # the four numbers of the version
        "$here/make_release.sh" "$work/release-$version" $(tr . ' ' <<<"$version")
        "$upgradectl" pack --output "$work/$version.pkg" --key "$work/release-key.pem" --version "$version" \
            --stamp 20261121120000 --branch main --user demo "$work/release-$version"
        expect "size of $version.pkg" "$(stat -c %s "$work/$version.pkg")" "$package_bytes"
        mkdir "$work/in-package-$version"
        tar -xf "$work/$version.pkg" -C "$work/in-package-$version"
        expect "components in $version.pkg that differ from the release" \
            "$(diff -rq "$work/release-$version" "$work/in-package-$version" | grep -v '\.sign$' || echo none)" none
    done
    ls -l "$work/in-package-$new"
}

make_device() {
    say "a device that runs $old from slot a"
    twin create "$device" --hw 1 --mpu 104 --mcu 7 --bld 2 --components "$work/release-$old"
    cp "$work/$old.pkg" "$device/firmware/current.pkg"
    on_device init
    twin show "$device" --digests
    expect "versions" "$(shown versions)" "$old"
    expect_content a "$old"
    remember "before"
}

install_new() {
    say "installing $new"
    on_device install "$work/$new.pkg"
    expect_content b "$new"
    expect_content bootloader "$new"
    expect_content mcu "$new"
    expect_content a "$old"
    expect "running slot" "$(shown 'running slot')" a
    expect "next start" "$(shown 'next start')" a
    expect "to be activated" "$(shown 'to be activated')" yes
    expect "last run" "$(shown 'last run')" upgrade_success
    expect_package current.pkg "$old"
    expect_package rollback.pkg "$new"
    remember "installed $new"
}

restart() {
    say "restart"
    twin boot "$device"
    on_device init
}

activate_new() {
    on_device status
    say "activating $new"
    on_device activate
    expect "next start" "$(shown 'next start')" b
    expect "to be activated" "$(shown 'to be activated')" no
    expect_package current.pkg "$new"
    expect_package rollback.pkg "$old"
    remember "activated $new"
}

check_new_runs() {
    on_device status
    expect "running slot" "$(shown 'running slot')" b
    expect "versions" "$(shown versions)" "$new"
    expect "version record" "$(shown 'version record')" "$new"
    expect "microcontroller" "$(shown microcontroller)" 8
    remember "restarted"
}

roll_back() {
    say "rolling back to $old"
    on_device rollback
    expect_content a "$old"
    expect_content bootloader "$old"
    expect_content mcu "$old"
    expect_content b "$new"
    expect "last run" "$(shown 'last run')" rollback_success
    expect "next start" "$(shown 'next start')" a
    expect "to be activated" "$(shown 'to be activated')" no
    expect_package current.pkg "$old"
    expect_package rollback.pkg none
    remember "rolled back to $old"
}

check_old_runs() {
    on_device status
    twin show "$device" --digests
    expect "running slot" "$(shown 'running slot')" a
    expect "versions" "$(shown versions)" "$old"
    expect "version record" "$(shown 'version record')" "$old"
    expect "microcontroller" "$(shown microcontroller)" 7
    remember "restarted"
}

show_summary() {
    say "what changed on the device"
    printf '%-28s %-11s %-5s %-5s %-4s %s\n' step version runs next MCU "last run"
    printf '%s\n' "${summary[@]}"
    printf '\nThe device stays in %s (twin/twin show, twin/twin run).\n' "$device"
}

rm -rf "$work"
mkdir -p "$work"
work=$(realpath -- "$work")
make_packages
make_device
install_new
restart
activate_new
restart
check_new_runs
roll_back
restart
check_old_runs
show_summary

if ((failures)); then
    printf '\ndemo: %d checks failed\n' "$failures" >&2
    exit 1
fi
printf '\ndemo: every check passed\n'
