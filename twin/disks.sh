# shellcheck shell=bash
# The block form of a device: file systems of the real kind and size, partitions that are block devices. It needs root,
# for loop devices and mounts. Sourced by device.sh.
#
#   STATE/disks/NAME.img          what a file system or a partition holds; sparse
#   STATE/config, firmware, raw   the file systems, mounted
#   STATE/partitions/NAME         a link to the partition's loop device, as udev makes them by label
#
# A restart of the host takes mounts and loop devices away; they are attached again when they are needed.

declare -A TWIN_FILE_SYSTEM_SIZE=([config]=16M [firmware]=448M [raw]=2G)

twin_is_block() {
    [[ -d $1/disks ]]
}

# twin_why_no_block_devices: prints why this host has none, or nothing.
twin_why_no_block_devices() {
    if ((EUID != 0)); then
        printf 'only root can attach loop devices\n'
    elif ! losetup --find >/dev/null 2>&1; then
        printf 'this host gives no loop devices (losetup --find fails)\n'
    fi
}

# twin_take_own_mounts COMMAND...: the mounts of this script, which is COMMAND, are its own from its next start on: nobody
# else holds on to them, and they go with it, however it ends.
twin_take_own_mounts() {
    [[ -n ${KAVRO_OWN_MOUNTS-} ]] || KAVRO_OWN_MOUNTS=1 exec unshare --mount -- "$@"
    unset KAVRO_OWN_MOUNTS
}

# No reserve for root and few files: small to make. The inode tables need no clearing, an image is zeros.
twin_make_disks() {
    local dir=$1 name
    mkdir -p "$dir/disks"
    for name in "${!TWIN_FILE_SYSTEM_SIZE[@]}"; do
        truncate -s "${TWIN_FILE_SYSTEM_SIZE[$name]}" "$dir/disks/$name.img"
        mke2fs -q -t ext4 -m 0 -N 1024 "$dir/disks/$name.img"
    done
    for name in "${!TWIN_PARTITION_SIZE[@]}"; do
        truncate -s "${TWIN_PARTITION_SIZE[$name]}" "$dir/disks/$name.img"
    done
}

# twin_is_attached DIR PARTITION: after a restart of the host the number may be another image's.
twin_is_attached() {
    local device
    device=$(readlink "$1/partitions/$2") || return 1
    [[ $(cat "/sys/class/block/${device##*/}/loop/backing_file" 2>/dev/null) == "$1/disks/$2.img" ]]
}

# twin_attach_disks DIR: what is attached already stays.
twin_attach_disks() {
    local dir=$1 name device
    for name in "${!TWIN_FILE_SYSTEM_SIZE[@]}"; do
        mountpoint -q "$dir/$name" ||
            mount -t ext4 -o loop,noinit_itable "$dir/disks/$name.img" "$dir/$name" || return 1
    done
    for name in "${!TWIN_PARTITION_SIZE[@]}"; do
        ! twin_is_attached "$dir" "$name" || continue
        device=$(losetup --find --show "$dir/disks/$name.img") || return 1
        ln -sfn "$device" "$dir/partitions/$name"
    done
}

# twin_hold_partitions DIR: from now on they go with this process, however it ends: a loop device that is detached while
# it is open stays until it is closed.
twin_hold_partitions() {
    local device held
    for device in "$1"/partitions/*; do
        # shellcheck disable=SC2034  # it is the descriptor that counts
        exec {held}<>"$device"
        losetup --detach "$device"
    done
}

# twin_detach_disks DIR: fails while something on the host still uses a file system.
twin_detach_disks() {
    local dir=$1 name
    for name in "${!TWIN_FILE_SYSTEM_SIZE[@]}"; do
        ! mountpoint -q "$dir/$name" || umount "$dir/$name" || return 1
    done
    for name in "${!TWIN_PARTITION_SIZE[@]}"; do
        ! twin_is_attached "$dir" "$name" || losetup --detach "$(readlink "$dir/partitions/$name")" || return 1
        rm -f "$dir/partitions/$name"
    done
}
