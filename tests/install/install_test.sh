#!/usr/bin/env bash
# What `cmake --install` makes is complete and may be moved: outside of the tree the examples are built with it, and
# work on a device that the installed tool makes.
#
#   install_test.sh BUILD_DIR
set -euo pipefail

build=$1
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
work=$build/twins/install
prefix=$work/moved
device=$work/device
unset KAVRO_TWIN KAVRO_TWIN_PROGRAMS LD_LIBRARY_PATH

die() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

on_device() {
    upgradectl twin run "$device" --visible "$work" -- "$@"
}

# installs_a_package APPLICATION: as minimal_app does it.
installs_a_package() {
    upgradectl twin create "$device" --plain
    on_device "$1" "$work/release.pkg" >"$work/progress.txt" || die "$1 failed: $(cat "$work/progress.txt")"
    grep -q '^stage ' "$work/progress.txt" || die "$1 shows no progress"
    [[ -e $device/config/upgraded ]] || die "after $1 no upgrade awaits activation"
    upgradectl twin compare "$device" b "$work/release"
    upgradectl twin remove "$device"
}

rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT
DESTDIR=$work/stage cmake --install "$build" --prefix /opt/kavro >"$work/installed.txt"
mv "$work/stage/opt/kavro" "$prefix"
[[ -z $(find "$work/stage" -type f) ]] || die "outside of the prefix there is $(find "$work/stage" -type f)"
for place in "$work/stage" "$build" "$root"; do
    ! grep -rIF -- "$place" "$prefix" || die "these lines name a place that is not theirs"
done
PATH=$prefix/bin:$PATH

# Each header compiles by itself: none is missing that another includes.
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name kavro-upgrade.pc)")
read -ra flags <<<"$(pkg-config --cflags kavro-upgrade)"
read -ra libraries <<<"$(pkg-config --libs kavro-upgrade)"
cd "$prefix/include/kavro-upgrade"
for header in */*.h; do
    c++ -std=c++17 -fsyntax-only -Wall -Werror -x c++ "${flags[@]}" - <<<"#include \"$header\""
done
cd "$work"
[[ -z $(find "$prefix" -name 'internal*') ]] || die "what is internal is installed"
for file in man/man1/upgradectl.1 man/man1/upgradectl-pack.1 bash-completion/completions/upgradectl; do
    [[ -s $prefix/share/$file ]] || die "$file is not installed"
done

[[ $(upgradectl --version) == "upgradectl $(pkg-config --modversion kavro-upgrade)" ]] || die "the versions differ"
openssl genpkey -quiet -algorithm RSA -out "$work/key.pem"
"$root/twin/demo/make_release.sh" "$work/release" 1 105 8 3
upgradectl pack --output "$work/release.pkg" --key "$work/key.pem" --version 1.105.8.3 "$work/release"

c++ -std=c++17 "${flags[@]}" -o "$work/with_pkg_config" "$root/examples/minimal_app.cpp" "${libraries[@]}" \
    -Wl,-rpath,"$(pkg-config --variable=libdir kavro-upgrade)"
installs_a_package "$work/with_pkg_config"

cmake -S "$root/tests/install/consumer" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DEXAMPLES="$root/examples" >"$work/configured.txt"
cmake --build "$work/consumer"
read -ra flags <<<"$(pkg-config --cflags --libs kavro-package)"
c++ -std=c++17 -o "$work/check_package" "$root/examples/check_package.cpp" "${flags[@]}" \
    -Wl,-rpath,"$(pkg-config --variable=libdir kavro-package)"
openssl pkey -in "$work/key.pem" -pubout -out "$work/public.pem"
for program in "$work/check_package" "$work/consumer/check_package"; do
    [[ $("$program" "$work/release.pkg" "$work/public.pem") == "V01.105.008.003, signed with RSA"* ]] ||
        die "$program does not take the package"
done

upgradectl twin create "$device" --plain
status=0
on_device "$work/consumer/minimal_app" >"$work/said.txt" || status=$?
[[ $status == 2 && $(cat "$work/said.txt") == usage:* ]] || die "minimal_app ends with $status: $(cat "$work/said.txt")"
read -ra flags <<<"$(pkg-config --cflags --libs kavro-agent)"
c++ -std=c++17 -o "$work/agent_app" "$root/examples/agent_app.cpp" "${flags[@]}" \
    -Wl,-rpath,"$(pkg-config --variable=libdir kavro-agent)"
for program in "$work/agent_app" "$work/consumer/agent_app"; do
    on_device "$program" start >"$work/said.txt" 2>&1 || die "$program failed: $(cat "$work/said.txt")"
done
on_device "$work/consumer/camera_app" <<<quit >"$work/said.txt" || die "camera_app failed: $(cat "$work/said.txt")"
grep -q '^software V01.104.007.002$' "$work/said.txt" || die "camera_app says: $(cat "$work/said.txt")"
