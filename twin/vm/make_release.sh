#!/usr/bin/env bash
# Makes the components of a release that runs in the virtual machine: Debian's kernel and U-Boot, the machine's own
# device tree, and a root file system with our libraries and what they need.
#
#   make_release.sh [--broken FAULT] BUILD SYSROOT DIR HW MPU MCU BLD
#
# BUILD is a build for arm64, SYSROOT what arm64_sysroot.sh has made. The microcontroller's firmware is that of the demo.
# FAULT is one that nobody can see in the package: `kernel` crashes at its first instruction, `hang` stays in an endless
# loop there, `init` ends at once, `application` cannot be started.
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=machine.sh
source "$here/machine.sh"

fault=
if [[ $1 == --broken ]]; then
    fault=$2
    shift 2
fi
build=$(realpath -- "$1") sysroot=$(realpath -- "$2") directory=$3 hw=$4 mpu=$5 mcu=$6 bld=$7
version=$hw.$mpu.$mcu.$bld
libraries=(lib/aarch64-linux-gnu usr/lib/aarch64-linux-gnu)


scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root

# --- the root file system -------------------------------------------------------------------------------------------

install_busybox() {
    local applet
    install -D "$sysroot/root/bin/busybox" "$root/bin/busybox"
    while read -r applet; do
        [[ $applet == busybox || $applet == tar ]] || ln -s busybox "$root/bin/$applet"
    done < <(qemu-aarch64-static "$sysroot/root/bin/busybox" --list)
}

# What the application needs: the libraries and upgradectl, and the programs that a run calls.
install_ours() {
    local component
    for component in runtime tools; do
        DESTDIR=$root cmake --install "$build" --prefix /usr --component "$component" --strip >/dev/null
    done
    rm -rf "${root:?}"/usr/{share,libexec}
    install "$sysroot/root/bin/tar" "$root/bin/tar"
    install "$sysroot"/root/usr/bin/{openssl,fw_printenv} "$root/usr/bin/"
    ln -s fw_printenv "$root/usr/bin/fw_setenv"
}

# has_library NAME
has_library() {
    local place
    for place in "${libraries[@]}" usr/lib; do
        [[ ! -e $root/$place/$1 ]] || return 0
    done
    return 1
}

install_library() {
    local place
    for place in "${libraries[@]}"; do
        if [[ -e $sysroot/root/$place/$1 ]]; then
            install -D "$sysroot/root/$place/$1" "$root/$place/$1"
            return
        fi
    done
    printf 'make_release: no package has %s\n' "$1" >&2
    return 1
}

# Until nothing is asked for that is not there.
install_needed_libraries() {
    local name missing=true
    install -D "$sysroot/root/lib/ld-linux-aarch64.so.1" "$root/lib/ld-linux-aarch64.so.1"
    while "$missing"; do
        missing=false
        for name in $(find "$root" -type f \( -perm -u=x -o -name '*.so*' \) ! -name busybox ! -name init \
            -exec aarch64-linux-gnu-objdump -p {} + | sed -n 's/^ *NEEDED *//p' | sort -u); do
            has_library "$name" || { install_library "$name" && missing=true; }
        done
    done
}

# The microcontroller is at a serial line, the slot that runs on the kernel's command line, the log also on the console.
configure() {
    local etc=$root/etc/kavro
    mkdir -p "$etc" "$root/etc/ssl" "$root/usr/lib/ssl"
    twin_write_platform "$scratch/platform.json"
    jq '.mcu.link = "serial:/dev/ttyS0" | .mpu.running_slot = "/proc/cmdline"' "$scratch/platform.json" \
        >"$etc/platform.json"
    twin_write_versions "$etc/version.json" "$hw" "$mpu" "$mcu" "$bld"
    twin_environment_config >"$etc/fw_env.config"
    ln -s kavro/fw_env.config "$root/etc/fw_env.config"
    printf '%s\n' "$version" >"$root/etc/kavro-release"
    cp "$sysroot/root/etc/ssl/openssl.cnf" "$root/etc/ssl/"
    ln -s /etc/ssl/openssl.cnf "$root/usr/lib/ssl/openssl.cnf"
}

# A slot is checked by its digest at each start: nothing may write to it, not even a journal.
make_root_file_system() {
    mkdir -p "$root"/{bin,sbin,config,dev,firmware,media,proc,raw,run,sys,tmp,usr/bin,var}
    install_busybox
    install_ours
    install_needed_libraries
    configure
    install "$here/init.sh" "$root/sbin/init"
    ln -s /run/lock "$root/var/lock"
    case $fault in
    init) printf '#!/bin/sh\nexit 1\n' >"$root/sbin/init" ;;
    application) rm "$root"/usr/lib/aarch64-linux-gnu/libjsoncpp.so.* ;;
    esac
    rm -f "$directory/ext4"
    truncate -s 48M "$directory/ext4"
    mke2fs -q -t ext4 -O ^has_journal -m 0 -L rootfs -E root_owner=0:0 -d "$root" "$directory/ext4"
}

# --- the rest -------------------------------------------------------------------------------------------------------

# first_instruction BYTES: of the kernel, behind its header. The header's own branch leads there.
first_instruction() {
    printf '\x10\0\0\x14' | dd of="$directory/Image" conv=notrunc status=none
    # shellcheck disable=SC2059  # the bytes are escapes
    printf "$1" | dd of="$directory/Image" bs=1 seek=64 conv=notrunc status=none
}

make_kernel() {
    cp "$sysroot"/kernel/boot/vmlinuz-* "$directory/Image"
    case $fault in
    kernel) first_instruction '\0\0\0\0' ;;
    hang) first_instruction '\0\0\0\x14' ;;
    esac
}

# That of the machine, with the release's part of the kernel's command line.
make_device_tree() {
    local tree=$directory/cv22_kavro_qz7.dtb
    machine_dump_device_tree "$tree"
    fdtput -t s "$tree" / kavro,release "$version"
    fdtput -t s "$tree" /chosen bootargs "console=ttyAMA0 panic=1 kavro.release=$version"
}

# Where the loader has room that never runs, in its first pages: behind a handler of exceptions.
boot_loader_gap() {
    LC_ALL=C grep -obUaP '(\x1f\x20\x03\xd5){16}' "$MACHINE_LOADER" | LC_ALL=C sed -n '1s/:.*//p'
}

# Two releases differ in the loader's first pages and in its last one: a part of each can be told from the whole of one. It
# runs, too, which is more than can be asked of a loader whose code has changed.
make_boot_loader() {
    local loader=$directory/bld_release.bin
    { cat "$MACHINE_LOADER" && printf 'boot loader of release %s\n' "$version"; } >"$loader"
    printf '%-32.32s' "release $version" | dd of="$loader" bs=1 seek="$(boot_loader_gap)" conv=notrunc status=none
}

"$here/../demo/make_release.sh" --small "$directory" "$hw" "$mpu" "$mcu" "$bld"
make_kernel
make_device_tree
make_root_file_system
make_boot_loader
