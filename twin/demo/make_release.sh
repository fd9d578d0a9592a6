#!/usr/bin/env bash
# Makes the components of a firmware release with the tools that make them for a device, small but of the right form.
#
#   make_release.sh [--small] DIR HW MPU MCU BLD
#
# --small makes components of a tenth of the size and less, for a device that is upgraded by the hundred.
set -euo pipefail

code_bytes=$((12 * 1024 * 1024)) data_bytes=$((24 * 1024 * 1024)) root_size=64M loader_bytes=$((768 * 1024))
application_bytes=$((96 * 1024)) driver_bytes=$((8 * 1024))
if [[ $1 == --small ]]; then
    code_bytes=$((512 * 1024)) data_bytes=$((512 * 1024)) root_size=4M loader_bytes=$((64 * 1024))
    application_bytes=$((6 * 1024)) driver_bytes=$((1 * 1024))
    shift
fi

directory=$1 hw=$2 mpu=$3 mcu=$4 bld=$5
version=$hw.$mpu.$mcu.$bld

# shellcheck source=../device.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/../device.sh"

mkdir -p "$directory"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# text BYTES SUBJECT: numbered lines, so that no two places are alike and each names the release it belongs to.
text() {
    seq -f "$2 $version, line %09.0f" 9999999 | head -c "$1" || true
}

# The 64 bytes an arm64 boot loader looks at: a branch over the header, where to load the image and how much memory
# it takes, the flags (little-endian, 4 KiB pages) and the magic number.
make_kernel() {
    local image_bytes
    image_bytes=$((64 + code_bytes))
    {
        printf '\x10\x00\x00\x14\x1f\x20\x03\xd5'
        little_endian_64 0
        little_endian_64 "$image_bytes"
        little_endian_64 2
        head -c 24 /dev/zero
        printf 'ARM\x64\0\0\0\0'
        text "$code_bytes" "kernel"
    } >"$directory/Image"
}

little_endian_64() {
    # shellcheck disable=SC2059  # the bytes are escapes
    printf "$(twin_little_endian_32 $(($1 & 0xFFFFFFFF)))$(twin_little_endian_32 $(($1 >> 32)))"
}

make_device_tree() {
    dtc -q -I dts -O dtb -o "$directory/cv22_kavro_qz7.dtb" - <<DTS
/dts-v1/;
/ {
    model = "kavro qz7 camera";
    compatible = "kavro,qz7", "cv22";
    kavro,release = "$version";
    #address-cells = <2>;
    #size-cells = <2>;
    memory@0 {
        device_type = "memory";
        reg = <0x0 0x0 0x0 0x40000000>;
    };
    chosen {
        bootargs = "root=PARTLABEL=rootfs_a ro";
    };
};
DTS
}

make_root_file_system() {
    local root=$scratch/root
    mkdir -p "$root"/{bin,config,dev,etc/kavro,firmware,proc,raw,run,tmp,usr/lib,usr/share/kavro}
    twin_write_versions "$root/etc/kavro/version.json" "$hw" "$mpu" "$mcu" "$bld"
    twin_write_platform "$root/etc/kavro/platform.json"
    printf '%s\n' "$version" >"$root/etc/kavro-release"
    text "$data_bytes" "image data" >"$root/usr/share/kavro/model.bin"
    rm -f "$directory/ext4"
    truncate -s "$root_size" "$directory/ext4"
    mke2fs -q -t ext4 -L rootfs -E root_owner=0:0 -d "$root" "$directory/ext4"
}

make_boot_loader() {
    { printf 'KAVROBLD' && text "$loader_bytes" "boot loader"; } >"$directory/bld_release.bin"
}

# s_record BINARY ADDRESS NAME: its header record carries the name as it is given to objcopy.
s_record() {
    (cd -- "$directory" && objcopy -I binary -O srec --srec-forceS3 --change-addresses "$2" "$1" "$3")
}

make_microcontroller_files() {
    # shellcheck disable=SC2059  # the version's bytes are escapes
    { printf "KAVROMCU$(twin_little_endian_32 "$mcu")\\0\\0\\0\\0" && text "$application_bytes" "application"; } \
        >"$scratch/application.bin"
    text "$driver_bytes" "flash driver" >"$scratch/driver.bin"
    s_record "$scratch/application.bin" 0x8000 mcu_flash_app.s19
    s_record "$scratch/driver.bin" 0x20000000 mcu_flash_drv.s19
}

make_version_list() {
    printf 'hardware %s\nmain_processor %s\nmicrocontroller %s\nboot_loader %s\n' "$hw" "$mpu" "$mcu" "$bld" \
        >"$directory/version_list.acs"
}

make_kernel
make_device_tree
make_root_file_system
make_boot_loader
make_microcontroller_files
make_version_list
