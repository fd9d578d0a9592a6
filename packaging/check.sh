#!/usr/bin/env bash
# The packages at work: they are installed into a throw-away copy of this host, used there, and purged without leaving
# anything behind. `./dev package --check` calls it.
#
# Needs root, for the mounts and for dpkg. The host itself is only read: what is written goes into memory and is gone with
# this script. What the packages depend on must be on the host (./dev setup).
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
packages=(libkavro-upgrade1 libkavro-upgrade-dev kavro-upgrade-tools)

die() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

say() {
    printf '\n== %s\n' "$*"
}

# --- outside ----------------------------------------------------------------------------------------------------------

# Over each directory of the host lies one in memory that takes what is written.
enter_copy_of_host() {
    local work=$1 directory
    mount -t tmpfs none "$work"
    mkdir "$work/root"
    mount -t tmpfs none "$work/root" # bwrap wants a mount at the root of all
    for directory in etc usr var; do
        mkdir -p "$work/upper/$directory" "$work/scratch/$directory" "$work/root/$directory"
        mount -t overlay overlay -o \
            "lowerdir=/$directory,upperdir=$work/upper/$directory,workdir=$work/scratch/$directory" "$work/root/$directory"
    done
    for directory in bin sbin lib lib32 lib64 libx32; do
        [[ ! -L /$directory ]] || cp -d "/$directory" "$work/root/$directory"
    done
    mkdir "$work/root"/{proc,sys,dev,tmp,run,root,packages,source,trial}
    mount --rbind /dev "$work/root/dev"
    mount --rbind /proc "$work/root/proc"
    mount --bind "$root/build/packages" "$work/root/packages"
    mount --bind -o ro "$root" "$work/root/source"
    exec chroot "$work/root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        /source/packaging/check.sh --inside
}

# --- inside -----------------------------------------------------------------------------------------------------------

# files_of_host: what a package may leave behind; dpkg's own records and the caches that it renews aside.
files_of_host() {
    find /etc /usr /var -xdev \( -path /var/lib/dpkg -o -path /var/cache -o -path /var/log \
        -o -path /etc/ld.so.cache \) -prune -o -print | sort
}

# install_run: of a package that the packaged tool makes, on a device that it makes.
install_run() {
    cd /trial
    openssl genpkey -quiet -algorithm RSA -out key.pem
    /source/twin/demo/make_release.sh release 1 105 8 3
    upgradectl pack --output release.pkg --key key.pem --version 1.105.8.3 release
    upgradectl twin create device --plain
    upgradectl twin run device --visible /trial -- upgradectl install /trial/release.pkg | tail -n 3
    upgradectl twin compare device b release
    upgradectl twin remove device
}

# build_examples: with what the development package brings.
build_examples() {
    local example words
    read -ra words <<<"$(pkg-config --cflags --libs kavro-upgrade)"
    c++ -std=c++17 -o /trial/minimal_app /usr/share/doc/libkavro-upgrade-dev/examples/minimal_app.cpp "${words[@]}"
    cmake -S /source/tests/install/consumer -B /trial/consumer -G Ninja \
        -DEXAMPLES=/usr/share/doc/libkavro-upgrade-dev/examples >/dev/null
    cmake --build /trial/consumer
    for example in /trial/minimal_app /trial/consumer/minimal_app /trial/consumer/check_package; do
        ! ldd "$example" | grep "not found" || die "$example does not find its libraries"
    done
}

inside() {
    local left
    files_of_host >/trial/before
    say "installing"
    dpkg --install /packages/*.deb
    [[ ! $(readelf -d /usr/bin/upgradectl /usr/lib/*/libupgrade.so.1) =~ R(UN)?PATH ]] || die "there is a RPATH"
    say "using"
    upgradectl --version
    man upgradectl-pack >/dev/null || die "there is no manual page"
    install_run
    build_examples
    say "purging"
    dpkg --purge "${packages[@]}"
    files_of_host >/trial/after
    left=$(diff /trial/before /trial/after) || die "these files differ from before: $left"
    ldconfig -p | grep -q libupgrade && die "the loader still knows the libraries"
    say "installed, used and purged; nothing is left"
}

case ${1-} in
--inside) inside ;;
--in-name-space) enter_copy_of_host "$2" ;;
*)
    ((EUID == 0)) || die "needs root: dpkg installs into a copy of this host"
    work=$(mktemp -d)
    trap 'rmdir "$work"' EXIT
    unshare --mount --propagation private "${BASH_SOURCE[0]}" --in-name-space "$work"
    ;;
esac
