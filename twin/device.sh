# shellcheck shell=bash
# The emulated device: the directory that holds its state, and the name space in which that state appears at the
# device's fixed paths. Sourced by `twin` and by the launcher of the tests, so that both run on the same device.
#
#   STATE/config      /config                     STATE/partitions   /dev/disk/by-partlabel
#   STATE/firmware    /firmware                   STATE/mcu          /dev/kavro-mcu
#   STATE/raw         /raw                        STATE/run          /run/kavro
#   STATE/etc-kavro   /etc/kavro                  STATE/tmp          /tmp

TWIN_MCU_FLASH_BYTES=524288
TWIN_MCU_APPLICATION_OFFSET=32768
TWIN_ENVIRONMENT_BYTES=0x4000

# Which file of a release is written to which partition.
# shellcheck disable=SC2034  # for those who source this file
declare -A TWIN_COMPONENT_OF=([kernel]=Image [dtb]=cv22_kavro_qz7.dtb [rootfs]=ext4 [bootloader]=bld_release.bin)

# What the host lends to the device's programs, read-only: its system, and what the loader, openssl and the
# symbolizers read from /etc.
TWIN_HOST_SYSTEM=(/bin /sbin /lib /lib32 /lib64 /libx32)
TWIN_HOST_ETC=(ld.so.cache ssl alternatives passwd group nsswitch.conf localtime)

twin_write_platform() {
    cat >"$1" <<'JSON'
{
    "log": { "syslog": true, "stderr": false, "file": "/tmp/kavro.log" },
    "node": { "address": "ipc:///tmp/kavro-node.ipc" },
    "mpu": {
        "slots": {
            "a": {
                "kernel": "/dev/disk/by-partlabel/kernel_a",
                "dtb": "/dev/disk/by-partlabel/dtb_a",
                "rootfs": "/dev/disk/by-partlabel/rootfs_a"
            },
            "b": {
                "kernel": "/dev/disk/by-partlabel/kernel_b",
                "dtb": "/dev/disk/by-partlabel/dtb_b",
                "rootfs": "/dev/disk/by-partlabel/rootfs_b"
            }
        },
        "bootloader": "/dev/disk/by-partlabel/bootloader",
        "boot_state": "/config/boot_state.json",
        "boot_environment": "/etc/kavro/fw_env.config",
        "written_slot": "/config/written_slot.json",
        "running_slot": "/run/kavro/running_slot"
    },
    "mcu": { "flash": "/dev/kavro-mcu/flash.bin", "link": "unix:/dev/kavro-mcu/link" }
}
JSON
}

# twin_write_versions FILE HW MPU MCU BLD
twin_write_versions() {
    printf '{\n    "bld_version": %d,\n    "hw_version": %d,\n    "mcu_version": %d,\n    "mpu_version": %d\n}\n' \
        "$5" "$2" "$4" "$3" >"$1"
}

twin_make_partitions() {
    truncate -s 32M "$1/kernel_a" "$1/kernel_b"
    truncate -s 1M "$1/dtb_a" "$1/dtb_b"
    truncate -s 96M "$1/rootfs_a" "$1/rootfs_b"
    truncate -s 4M "$1/bootloader"
}

# twin_write_environment_config FILE DIRECTORY: where the two copies of the boot environment are, for libubootenv.
twin_write_environment_config() {
    printf "$2/%s 0x0 $TWIN_ENVIRONMENT_BYTES\n" env_a env_b >"$1"
}

# twin_make_environment STATE: the boot environment of a device that has started from slot a. The tool saves one copy
# at a time: twice, so that both are whole. That there is none yet is what it complains of.
twin_make_environment() {
    local config=$1/run/fw_env.config defaults=$1/run/environment
    truncate -s "$((TWIN_ENVIRONMENT_BYTES))" "$1/partitions/env_a" "$1/partitions/env_b"
    twin_write_environment_config "$config" "$1/partitions"
    printf 'boot_slot=a\nupgrade_available=0\nbootcount=0\nbootlimit=3\n' >"$defaults"
    fw_setenv -c "$config" -f "$defaults" 2>/dev/null
    fw_setenv -c "$config" bootcount 0
    rm -f "$config" "$defaults"
    twin_write_environment_config "$1/etc-kavro/fw_env.config" /dev/disk/by-partlabel
}

# twin_little_endian_32 NUMBER: the four bytes, as a printf format.
twin_little_endian_32() {
    printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255))
}

# twin_make_mcu_flash FILE VERSION: erased flash memory with the header of an application and nothing behind it.
twin_make_mcu_flash() {
    head -c "$TWIN_MCU_FLASH_BYTES" /dev/zero | tr '\0' '\377' >"$1"
    # shellcheck disable=SC2059  # the version's bytes are written as escapes
    printf "KAVROMCU$(twin_little_endian_32 "$2")\\0\\0\\0\\0" |
        dd of="$1" bs=16 seek=$((TWIN_MCU_APPLICATION_OFFSET / 16)) conv=notrunc status=none
}

# twin_make_state DIR HW MPU MCU BLD: a device that has started from slot a and holds no firmware yet.
twin_make_state() {
    local dir=$1
    mkdir -p "$dir"/{config,firmware,raw,etc-kavro,tmp,partitions,mcu,run}
    twin_write_platform "$dir/etc-kavro/platform.json"
    twin_write_versions "$dir/etc-kavro/version.json" "${@:2}"
    twin_make_partitions "$dir/partitions"
    twin_make_environment "$dir"
    twin_make_mcu_flash "$dir/mcu/flash.bin" "$4"
    printf '{"boot_slot": "a", "complete": {"a": true, "b": false}, "pending_slot": ""}\n' >"$dir/config/boot_state.json"
    printf 'a\n' >"$dir/run/running_slot"
}

# twin_namespace DIR: fills the array TWIN_NAMESPACE with the arguments of bwrap that put DIR's device together.
# The caller's own uid is kept: as uid 0 of a user name space tar could not restore the owners of files.
twin_namespace() {
    local dir=$1 path
    TWIN_NAMESPACE=(--unshare-pid --unshare-ipc --die-with-parent --tmpfs / --ro-bind /usr /usr)
    for path in "${TWIN_HOST_SYSTEM[@]}"; do
        if [[ -L $path ]]; then
            TWIN_NAMESPACE+=(--symlink "$(readlink "$path")" "$path")
        elif [[ -d $path ]]; then
            TWIN_NAMESPACE+=(--ro-bind "$path" "$path")
        fi
    done
    TWIN_NAMESPACE+=(--proc /proc --dev /dev --tmpfs /etc --tmpfs /run --dir /run/lock --symlink /run/lock /var/lock)
    for path in "${TWIN_HOST_ETC[@]}"; do
        TWIN_NAMESPACE+=(--ro-bind-try "/etc/$path" "/etc/$path")
    done
    TWIN_NAMESPACE+=(
        --bind "$dir/config" /config
        --bind "$dir/firmware" /firmware
        --bind "$dir/raw" /raw
        --bind "$dir/etc-kavro" /etc/kavro
        --symlink kavro/fw_env.config /etc/fw_env.config
        --bind "$dir/tmp" /tmp
        --bind "$dir/run" /run/kavro
        --dev-bind "$dir/partitions" /dev/disk/by-partlabel
        --dev-bind "$dir/mcu" /dev/kavro-mcu
        --unsetenv TMPDIR)
}

# twin_remove_state DIR: also what a program inside has made unreadable.
twin_remove_state() {
    rm -rf -- "$1" 2>/dev/null && return
    chmod -R u+rwX -- "$1" 2>/dev/null || true
    rm -rf -- "$1"
}
