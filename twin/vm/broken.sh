#!/usr/bin/env bash
# Software that does not come up, in the virtual machine: a package that is in order in every way, with a kernel that
# crashes or hangs, a first process that ends, an application that cannot be started; and a slot that is damaged after it
# was flashed. The device must be back on the old slot by itself.
#
#   broken.sh HOST_BUILD ARM64_BUILD SYSROOT WORK [FAULT...]
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=releases.sh
source "$here/releases.sh"

host=$(realpath -- "$1") target=$(realpath -- "$2") sysroot=$(realpath -- "$3")
work=$(realpath -m -- "$4")/broken
faults=("${@:5}")
((${#faults[@]})) || faults=(kernel hang init application damaged damaged-later)
machine=$work/machine
export KAVRO_TWIN_PROGRAMS=$host/twin

first=1.104.7.2
good=1.105.8.3
declare -A broken=([kernel]=1.201.8.3 [hang]=1.202.8.3 [init]=1.203.8.3 [application]=1.204.8.3)
summary=()

make_packages() {
    say "the releases"
    rm -rf "$work"
    mkdir -p "$work"
    make_key
    make_package "$first"
    make_package "$good"
    local fault packages=("$good")
    for fault in "${faults[@]}"; do
        [[ -n ${broken[$fault]-} ]] || continue
        make_package "${broken[$fault]}" "$fault"
        packages+=("${broken[$fault]}")
    done
    make_stick "${packages[@]}"
}

make_device() {
    machine_create "$work/new" "$work/release-$first" "$work/$first.pkg"
    ln "$work/stick.img" "$work/new/stick.img"
}

on_device() {
    printf '$ %s\n' "$*"
    machine_run "$@" | tail -n 3
}

# fresh_device: that runs FIRST from slot a.
fresh_device() {
    machine_copy "$work/new" "$machine"
    mcu_start "$machine"
    machine_boot "$machine"
}

# restart_and_time: sets `starts` and `took`.
restart_and_time() {
    local begin=$SECONDS
    machine_restart "$machine" || expect "the device" "is silent" "obeys"
    took=$((SECONDS - begin))
}

# expect_old_slot FAULT STARTS SAYING: in the boot loader's words.
expect_old_slot() {
    local said
    expect "starts until it obeys" "$starts" "$2"
    expect "release" "$(machine_run cat /etc/kavro-release)" "$first"
    expect "slot" "$(machine_run fw_printenv -n boot_slot)" a
    expect "on trial" "$(machine_run fw_printenv -n upgrade_available)" 0
    said=$(tr -d '\r' <"$machine/console.log" | grep -aF -m 1 "$3" || true)
    expect "the boot loader says" "${said:-nothing of it}" "$3"
    summary+=("$(printf '%-14s %6d %6d s  %s' "$1" "$starts" "$took" "$said")")
}

# install_and_activate VERSION [OPTION...]
install_and_activate() {
    on_device upgradectl install --plain "${@:2}" "/media/$1.pkg"
    on_device upgradectl activate
}

too_often="Warning: Bootlimit (3) exceeded: slot b was started that often and never confirmed"
unexpected="Slot b: rootfs is not what the environment expects"

# A release whose own start fails three times.
try_release() {
    say "$1: release ${broken[$1]}"
    fresh_device
    install_and_activate "${broken[$1]}"
    restart_and_time
    expect_old_slot "$1" 4 "$too_often"
    machine_cut
}

spoil_slot_b() {
    on_device 'dd if=/dev/urandom of=/dev/disk/by-partlabel/rootfs_b bs=4096 seek=300 count=1 conv=notrunc,fsync'
}

# Between installation and activation: the activation refuses, and what runs goes on.
try_damaged() {
    say "damaged: the root file system, before its activation"
    fresh_device
    on_device upgradectl install --plain "/media/$good.pkg"
    spoil_slot_b
    local status=0
    on_device upgradectl activate || status=$?
    expect "exit code of the activation" "$status" 1
    restart_and_time
    expect_old_slot damaged 1 "Slot a: kernel, dtb and rootfs are as expected"
    machine_cut
}

# After the activation: it is never started. Then the next installation mends it.
try_damaged_later() {
    say "damaged-later: the root file system, after its activation"
    fresh_device
    install_and_activate "$good"
    spoil_slot_b
    restart_and_time
    expect_old_slot damaged-later 1 "$unexpected"
    install_and_activate "$good" --force  # the device has fallen back from it
    restart_and_time
    expect "release after another installation" "$(machine_run cat /etc/kavro-release)" "$good"
    machine_cut
}

trap machine_cut EXIT
make_packages
make_device
for fault in "${faults[@]}"; do
    case $fault in
    damaged) try_damaged ;;
    damaged-later) try_damaged_later ;;
    *) try_release "$fault" ;;
    esac
done
say "how the device came back"
printf '%-14s %6s %8s  %s\n' fault starts after "the boot loader said"
printf '%s\n' "${summary[@]}"
expect "emulators that ended by themselves" "${#machine_faults[@]}" 0
end_with_failures broken
