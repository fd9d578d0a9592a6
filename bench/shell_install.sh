#!/usr/bin/env bash
# What a run does, as a person would do it by hand: for comparison. On an emulated device; prints a sample as bench_device
# does.
#
#   shell_install.sh PACKAGE
set -euo pipefail

package=$1
work=/firmware/upgrade.pkg
unpacked=/raw/upgrade
slot=/dev/disk/by-partlabel
parts=''
began=${EPOCHREALTIME/./}

# step NAME COMMAND...: adds what the command took to the parts.
step() {
    local from=${EPOCHREALTIME/./}
    "${@:2}"
    parts+="${parts:+, }\"$1\": $(((${EPOCHREALTIME/./} - from) / 1000))"
}

# field OFFSET LENGTH: of the trailer.
field() {
    tail -c 4096 "$package" | head -c $(($1 + $2)) | tail -c "$2"
}

check_md5() {
    [[ $(md5sum "$work") == "$md5 "* ]]
}

verify() {
    local name
    for name in bld_release.bin cv22_kavro_qz7.dtb ext4 Image mcu_flash_app.s19 mcu_flash_drv.s19 version_list.acs; do
        openssl dgst -sha256 -verify /tmp/pubkey -signature "$unpacked/$name.sign" "$unpacked/$name" >/dev/null
    done
}

# write COMPONENT PARTITION
write() {
    dd if="$unpacked/$1" of="$slot/$2" bs=1M conv=notrunc,fsync status=none
}

# compare COMPONENT PARTITION
compare() {
    cmp -n "$(stat -c %s "$unpacked/$1")" "$unpacked/$1" "$slot/$2"
}

for_each_part() {
    "$1" Image kernel_b
    "$1" cv22_kavro_qz7.dtb dtb_b
    "$1" ext4 rootfs_b
}

keep() {
    cp "$package" /firmware/rollback.pkg
    sync /firmware/rollback.pkg
}

rm -rf /raw/*
mkdir -p "$unpacked"
step copy cp "$package" "$work"
payload=$((16#$(field 0 8)))
md5=$(field 8 32)
field 48 $((16#$(field 40 8))) >/tmp/pubkey
step truncate truncate -s "$payload" "$work"
step sync sync
step md5sum check_md5
step tar tar -xf "$work" -C "$unpacked"
step openssl verify
step write for_each_part write
step compare for_each_part compare
step keep keep
rm "$work"
printf '{"name": "install", "theirs": %d, "their_parts": {%s}}\n' $(((${EPOCHREALTIME/./} - began) / 1000)) "$parts"
