# shellcheck shell=bash
# The emulated device: the directory that holds its state, and the name space in which that state appears at the
# device's fixed paths. Sourced by `twin` and by the launcher of the tests, so that both run on the same device.
#
#   STATE/config      /config                     STATE/partitions   /dev/disk/by-partlabel
#   STATE/firmware    /firmware                   STATE/mcu          /dev/kavro-mcu
#   STATE/raw         /raw                        STATE/run          /run/kavro
#   STATE/etc-kavro   /etc/kavro                  STATE/tmp          /tmp
#
# A device of the plain form has directories and files there; disks.sh has the block form.

# shellcheck source=disks.sh
source "${BASH_SOURCE[0]%/*}/disks.sh"

TWIN_ENVIRONMENT_BYTES=0x4000
declare -A TWIN_PARTITION_SIZE=(
    [kernel_a]=32M [dtb_a]=1M [rootfs_a]=96M [kernel_b]=32M [dtb_b]=1M [rootfs_b]=96M [bootloader]=4M
    [env_a]=$((TWIN_ENVIRONMENT_BYTES)) [env_b]=$((TWIN_ENVIRONMENT_BYTES)))
TWIN_PARTITIONS=("${!TWIN_PARTITION_SIZE[@]}")

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
        "boot_environment": "/etc/kavro/fw_env.config",
        "written_slot": "/config/written_slot.json",
        "running_slot": "/run/kavro/running_slot"
    },
    "mcu": { "link": "unix:/dev/kavro-mcu/link" }
}
JSON
}

# twin_write_versions FILE HW MPU MCU BLD
twin_write_versions() {
    printf '{\n    "bld_version": %d,\n    "hw_version": %d,\n    "mcu_version": %d,\n    "mpu_version": %d\n}\n' \
        "$5" "$2" "$4" "$3" >"$1"
}

# twin_make_partitions DIR: each holds zeros.
twin_make_partitions() {
    local name
    for name in "${!TWIN_PARTITION_SIZE[@]}"; do
        truncate -s "${TWIN_PARTITION_SIZE[$name]}" "$1/$name"
    done
}

# The boot environment's two copies, as a board has them compiled in.
twin_environment_config() {
    printf "/dev/disk/by-partlabel/%s 0x0 $TWIN_ENVIRONMENT_BYTES\n" env_a env_b
}

# twin_environment_tool STATE fw_printenv|fw_setenv [ARGUMENT...]: the tool sees what the device sees, but for its
# configuration, and takes its lock there: that of the host belongs to whoever used the tool first.
twin_environment_tool() {
    twin_namespace "$1"
    bwrap "${TWIN_NAMESPACE[@]}" --ro-bind-data 9 /run/boot_env.config --chdir / -- \
        "$2" -c /run/boot_env.config "${@:3}" 9< <(twin_environment_config)
}

# twin_save_environment STATE NAME=VALUE...: in one save, of one of the copies. That there is no environment yet to
# start from is what the tool complains of.
twin_save_environment() {
    local said
    said=$(printf '%s\n' "${@:2}" | twin_environment_tool "$1" fw_setenv -f /dev/null -s - 2>&1) && return
    printf 'fw_setenv: %s\n' "$said" >&2
    return 1
}

# twin_make_environment STATE [NAME=VALUE...]: of a device that has started from slot a. Saved twice, so that both
# copies are whole.
twin_make_environment() {
    local variables=(boot_slot=a upgrade_available=0 bootcount=0 bootlimit=3 "${@:2}")
    twin_save_environment "$1" "${variables[@]}"
    twin_save_environment "$1" "${variables[@]}"
}

# twin_little_endian_32 NUMBER: the four bytes, as a printf format.
twin_little_endian_32() {
    printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255))
}

# twin_make_state plain|block DIR HW MPU MCU BLD [NAME=VALUE...]: a device that has started from slot a and holds no
# firmware yet; its boot environment has these variables besides. Its microcontroller is not there yet.
twin_make_state() {
    local dir=$2
    mkdir -p "$dir"/{config,firmware,raw,etc-kavro,tmp,partitions,mcu,run}
    if [[ $1 == block ]]; then
        twin_make_disks "$dir"
        twin_attach_disks "$dir" || return 1
    else
        twin_make_partitions "$dir/partitions"
    fi
    twin_write_platform "$dir/etc-kavro/platform.json"
    twin_environment_config >"$dir/etc-kavro/fw_env.config"
    twin_write_versions "$dir/etc-kavro/version.json" "${@:3:4}"
    twin_make_environment "$dir" "${@:7}"
    printf 'a\n' >"$dir/run/running_slot"
}

# twin_read_links ARRAY LINK...: all with one process, for starting one takes longer than what it does here.
twin_read_links() {
    mapfile -t "$1" < <((($# < 2)) || readlink -- "${@:2}")
}

# twin_namespace DIR: fills the array TWIN_NAMESPACE with the arguments of bwrap that put DIR's device together.
# The caller's own uid is kept: as uid 0 of a user name space tar could not restore the owners of files.
twin_namespace() {
    local dir=$1 path index links=() targets=() partitions=()
    TWIN_NAMESPACE=(--unshare-pid --unshare-ipc --die-with-parent --tmpfs / --ro-bind /usr /usr)
    for path in "${TWIN_HOST_SYSTEM[@]}"; do
        if [[ -L $path ]]; then
            links+=("$path")
        elif [[ -d $path ]]; then
            TWIN_NAMESPACE+=(--ro-bind "$path" "$path")
        fi
    done
    twin_read_links targets "${links[@]}"
    for index in "${!links[@]}"; do
        TWIN_NAMESPACE+=(--symlink "${targets[index]}" "${links[index]}")
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
    # What a build for `./dev coverage` counts goes to the host, where the build tree is read-only for the device.
    [[ -z ${KAVRO_COVERAGE-} ]] || TWIN_NAMESPACE+=(--bind "$KAVRO_COVERAGE" /coverage
        --setenv GCOV_PREFIX /coverage --setenv GCOV_PREFIX_STRIP "$(tr -cd / <<<"$KAVRO_COVERAGE" | wc -c)")
    twin_is_block "$dir" || return 0
    twin_read_links partitions "${TWIN_PARTITIONS[@]/#/$dir/partitions/}"
    for path in "${partitions[@]}"; do
        TWIN_NAMESPACE+=(--dev-bind "$path" "$path")
    done
}

# twin_remove_state DIR: also what a program inside has made unreadable.
twin_remove_state() {
    ! twin_is_block "$1" || twin_detach_disks "$1" || return 1
    rm -rf -- "$1" 2>/dev/null && return
    chmod -R u+rwX -- "$1" 2>/dev/null || true
    rm -rf -- "$1"
}
