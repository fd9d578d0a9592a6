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

# twin_read_partitions DIR: fills the array TWIN_ATTACHED with the partitions whose link leads to the loop device of their
# image: after a restart of the host the number may be another image's.
twin_read_partitions() {
    local dir=$1 name image index links=() devices=()
    TWIN_ATTACHED=()
    for name in "${TWIN_PARTITIONS[@]}"; do
        [[ ! -L $dir/partitions/$name ]] || links+=("$dir/partitions/$name")
    done
    twin_read_links devices "${links[@]}"
    for index in "${!links[@]}"; do
        name=${links[index]##*/}
        if { read -r image <"/sys/class/block/${devices[index]##*/}/loop/backing_file"; } 2>/dev/null &&
            [[ $image == "$dir/disks/$name.img" ]]; then
            TWIN_ATTACHED+=("$name")
        fi
    done
}

# twin_attach_disks DIR: what is attached already stays.
twin_attach_disks() {
    local dir=$1 name device
    for name in "${!TWIN_FILE_SYSTEM_SIZE[@]}"; do
        mountpoint -q "$dir/$name" ||
            mount -t ext4 -o loop,noinit_itable "$dir/disks/$name.img" "$dir/$name" || return 1
    done
    twin_read_partitions "$dir"
    for name in "${TWIN_PARTITIONS[@]}"; do
        [[ " ${TWIN_ATTACHED[*]} " != *" $name "* ]] || continue
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
    done
    twin_detach_links "$1"/partitions/*
}

# twin_detach_links LINK...: losetup cuts a long path off, so it is given the devices themselves.
twin_detach_links() {
    local devices
    mapfile -t devices < <(readlink -- "$@")
    losetup --detach "${devices[@]}"
}

# twin_detach_disks DIR: fails while something on the host still uses a file system.
twin_detach_disks() {
    local dir=$1 name mounted=()
    for name in "${!TWIN_FILE_SYSTEM_SIZE[@]}"; do
        ! mountpoint -q "$dir/$name" || mounted+=("$dir/$name")
    done
    ((${#mounted[@]} == 0)) || umount "${mounted[@]}" || return 1
    twin_read_partitions "$dir"
    ((${#TWIN_ATTACHED[@]} == 0)) || twin_detach_links "${TWIN_ATTACHED[@]/#/$dir/partitions/}" || return 1
    rm -f "${TWIN_PARTITIONS[@]/#/$dir/partitions/}"
}
