#!/usr/bin/env bash
# The boot loader of the virtual machine against the one that a twin has: for each row the same environment and the same
# slots are given to U-Boot and to `twin boot`. They must say the same, start the same slot, or none, and leave the same
# environment behind.
#
#   boot_table.sh BUILD WORK [ROW_PATTERN]
#
# The kernel of a slot switches the machine off: no more is asked of it than that U-Boot starts it.
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=machine.sh
source "$here/machine.sh"

build=$(realpath -- "$1")
work=$(realpath -m -- "$2")/boot-table
pattern=${3:-.}
export KAVRO_TWIN_PROGRAMS=$build/twin
twin=$work/twin
disk=$work/disk.img
slot_partitions=(kernel_a dtb_a rootfs_a kernel_b dtb_b rootfs_b)

# --- what both start ------------------------------------------------------------------------------------------------

# A header as boot loaders look at, and: movz w0, #8; movk w0, #0x8400, lsl #16; hvc #0. That is SYSTEM_OFF.
make_kernel() {
    {
        printf '\x10\x00\x00\x14\x1f\x20\x03\xd5'
        printf '\0\0\0\0\0\0\0\0\0\x10\0\0\0\0\0\0\x0a\0\0\0\0\0\0\0'
        head -c 24 /dev/zero
        printf 'ARM\x64\0\0\0\0'
        printf '\x00\x01\x80\x52\x00\x80\xb0\x72\x02\x00\x00\xd4\x00\x00\x00\x14'
        head -c 4000 /dev/zero
    } >"$1"
}

make_both() {
    local name
    rm -rf "$work"
    mkdir -p "$work"
    "$here/../demo/make_release.sh" --small "$work/release" 1 104 7 2
    make_kernel "$work/release/Image"
    machine_dump_device_tree "$work/release/cv22_kavro_qz7.dtb"
    "$here/../twin" create "$twin" --plain --components "$work/release" >/dev/null
    for name in kernel dtb rootfs; do
        cp "$twin/partitions/${name}_a" "$twin/partitions/${name}_b"
    done
    MACHINE_PARTITION_SIZE[config]=1M MACHINE_PARTITION_SIZE[firmware]=1M MACHINE_PARTITION_SIZE[raw]=1M
    machine_lay_out
    machine_make_disk "$disk"
    machine_make_boot_partition "$work/boot.img"
    machine_fill "$disk" boot "$work/boot.img"
    for name in "${slot_partitions[@]}"; do
        machine_fill "$disk" "$name" "$twin/partitions/$name"
    done
    machine_make_settings "$work/settings.img"
}

# What the environment says of a slot that holds the release.
knows() {
    local part digest
    for part in kernel dtb rootfs; do
        digest=$(sha256sum <"$work/release/${TWIN_COMPONENT_OF[$part]}")
        printf '%s\n' "slot_$1_$part=$(stat -c %s "$work/release/${TWIN_COMPONENT_OF[$part]}") ${digest%% *}"
    done
}

# --- damage ---------------------------------------------------------------------------------------------------------

# flip FILE OFFSET
flip() {
    local byte
    byte=$(od -An -tu1 -j "$2" -N 1 "$1")
    # shellcheck disable=SC2059  # the byte is an escape
    printf "\\x$(printf '%02x' $((byte ^ 255)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

counter_of() {
    od -An -tu1 -j 4 -N 1 "$twin/partitions/env_$1" | tr -d ' '
}

set_counter() {
    # shellcheck disable=SC2059  # the byte is an escape
    printf "\\x$(printf '%02x' "$2")" | dd of="$twin/partitions/env_$1" bs=1 seek=4 conv=notrunc status=none
}

newer_copy() {
    if (($(counter_of a) > $(counter_of b))); then printf 'a\n'; else printf 'b\n'; fi
}

older_copy() {
    if [[ $(newer_copy) == a ]]; then printf 'b\n'; else printf 'a\n'; fi
}

# damage WHAT: of a row; `-` is none. The two copies of the environment say different slots where that tells them apart.
damage() {
    case $1 in
    -) ;;
    kernel_? | dtb_?) flip "$twin/partitions/$1" 200 ;;
    rootfs_?) flip "$twin/partitions/$1" 4194303 ;;
    magic_kernel_?) flip "$twin/partitions/${1#magic_}" 56 ;;
    magic_dtb_?) flip "$twin/partitions/${1#magic_}" 0 ;;
    magic_rootfs_?) flip "$twin/partitions/${1#magic_}" 1080 ;;
    newer) flip "$twin/partitions/env_$(newer_copy)" 300 ;;
    older) flip "$twin/partitions/env_$(older_copy)" 300 ;;
    round)
        local newer older
        newer=$(newer_copy) older=$(older_copy)
        set_counter "$newer" 0
        set_counter "$older" 255
        ;;
    last) set_counter "$(newer_copy)" 255 && set_counter "$(older_copy)" 254 ;;
    *) printf 'boot_table: no damage is called %s\n' "$1" >&2 && return 1 ;;
    esac
}

# --- the rows -------------------------------------------------------------------------------------------------------

# NAME | what is damaged | what differs from the usual environment: NAME=VALUE, or -NAME for a variable that is missing,
# with slot_b for all three of a slot. `then` separates a first save from the second, so that the copies differ.
rows() {
    cat <<'ROWS'
slot a, nothing on trial | - |
slot b, nothing on trial | - | boot_slot=b
first start on trial | - | boot_slot=b;upgrade_available=1
last start on trial | - | boot_slot=b;upgrade_available=1;bootcount=2
one start too many | - | boot_slot=b;upgrade_available=1;bootcount=3
one start too many of slot a | - | boot_slot=a;upgrade_available=1;bootcount=3
far too many | - | boot_slot=b;upgrade_available=1;bootcount=90
one too many, the other slot damaged | kernel_a | boot_slot=b;upgrade_available=1;bootcount=3
one too many, both damaged | kernel_a rootfs_b | boot_slot=b;upgrade_available=1;bootcount=3
no limit | - | boot_slot=b;upgrade_available=1;bootcount=70;-bootlimit
a limit of 0 | - | boot_slot=b;upgrade_available=1;bootcount=4;bootlimit=0
a limit that is no number | - | boot_slot=b;upgrade_available=1;bootcount=4;bootlimit=three
a limit in hexadecimal | - | boot_slot=b;upgrade_available=1;bootcount=4;bootlimit=0x3
a limit with too many digits | - | boot_slot=b;upgrade_available=1;bootcount=4;bootlimit=0000000003
no count | - | boot_slot=b;upgrade_available=1;-bootcount
a count that is no number | - | boot_slot=b;upgrade_available=1;bootcount=-1
from 9 to 10 | - | boot_slot=b;upgrade_available=1;bootcount=9;bootlimit=12
from 99 to 100 | - | boot_slot=b;upgrade_available=1;bootcount=99;bootlimit=120
leading zeros | - | boot_slot=b;upgrade_available=1;bootcount=010;bootlimit=0011
a trial that is neither 0 nor 1 | - | boot_slot=b;upgrade_available=2;bootcount=9
no trial variable | - | boot_slot=b;-upgrade_available;bootcount=9
no slot named | - | -boot_slot
an unknown slot named | - | boot_slot=c
an unknown slot on trial | - | boot_slot=c;upgrade_available=1;bootcount=1
an unknown slot too often on trial | - | boot_slot=c;upgrade_available=1;bootcount=3
a damaged kernel | kernel_a |
a damaged device tree | dtb_a |
a damaged root file system | rootfs_a |
damage in the slot that does not start | kernel_b |
a damaged slot on trial | rootfs_b | boot_slot=b;upgrade_available=1
both damaged | kernel_a dtb_b |
both damaged, on trial | rootfs_a rootfs_b | boot_slot=b;upgrade_available=1;bootcount=1
the named slot not known | - | boot_slot=b;-slot_b
the named slot not known, the other damaged | kernel_a | boot_slot=b;-slot_b
the named slot known in part | - | boot_slot=b;-slot_b_dtb
neither known | - | -slot_a;-slot_b
neither known, no kernel in a | magic_kernel_a | -slot_a;-slot_b
neither known, no device tree in a | magic_dtb_a | -slot_a;-slot_b
neither known, no file system in a | magic_rootfs_a | -slot_a;-slot_b
neither known, neither startable | magic_kernel_a magic_dtb_b | -slot_a;-slot_b
unchecked on purpose | magic_kernel_b | boot_slot=a;-slot_a;-slot_b;slots_unchecked=1
known but unchecked | kernel_a | slots_unchecked=1
more bytes than the partition has | - | boot_slot=b;slot_b_dtb=1048577 0000000000000000000000000000000000000000000000000000000000000000
no bytes | - | boot_slot=b;slot_b_dtb=0 e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855
a digest that is too short | - | boot_slot=b;slot_b_dtb=395 e3b0c44298fc1c149afbf4c8996fb924
a digest without bytes | - | boot_slot=b;slot_b_dtb=e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855
a digest that is none | - | boot_slot=b;slot_b_rootfs=4194304 unknown
variables of others stay | - | boot_slot=b;upgrade_available=1;camera_name=front door;serial=0815
the newer copy damaged | newer | boot_slot=a;then;boot_slot=b
the older copy damaged | older | boot_slot=a;then;boot_slot=b
the newer copy damaged, on trial | newer | boot_slot=b;upgrade_available=1;bootcount=1;then;bootcount=2
the older copy damaged, on trial | older | boot_slot=b;upgrade_available=1;bootcount=1;then;bootcount=2
both copies damaged | newer older | boot_slot=b;then;boot_slot=b
both copies damaged, no kernel in a | newer older magic_kernel_a | boot_slot=b;then;boot_slot=b
the counter has come round | round | boot_slot=a;then;boot_slot=b;upgrade_available=1
the counter comes round with this save | last | boot_slot=a;then;boot_slot=b;upgrade_available=1
ROWS
}

# change WORD: of the usual environment, in `variables`.
change() {
    local name
    case $1 in
    -slot_?)
        for name in kernel dtb rootfs; do
            unset "variables[${1#-}_$name]"
        done
        ;;
    -*) unset "variables[${1#-}]" ;;
    *) variables[${1%%=*}]=${1#*=} ;;
    esac
}

save_variables() {
    local name pairs=()
    for name in "${!variables[@]}"; do
        pairs+=("$name=${variables[$name]}")
    done
    twin_save_environment "$twin" "${pairs[@]}"
}

# Written twice, so that both copies are whole.
make_environment() {
    local -A variables=([boot_slot]=a [upgrade_available]=0 [bootcount]=0 [bootlimit]=3)
    local pair words word
    while IFS= read -r pair; do
        variables[${pair%%=*}]=${pair#*=}
    done < <(knows a && knows b)
    truncate -s 0 "$twin"/partitions/env_{a,b}
    truncate -s $((TWIN_ENVIRONMENT_BYTES)) "$twin"/partitions/env_{a,b}
    IFS=';' read -ra words <<<"$1"
    for word in "${words[@]}"; do
        if [[ $word == "then" ]]; then save_variables; else change "$word"; fi
    done
    [[ $1 == *then* ]] || save_variables
    save_variables
}

# --- a row ----------------------------------------------------------------------------------------------------------

# The sentences that both say, each once: U-Boot may check a slot a second time.
sentences() {
    tr -d '\r' <"$1" | grep -aE '^(Loading environment|boot_slot is|Slot [ab]:|Warning: Bootlimit|Staying|Starting slot)' |
        awk '!said[$0]++'
}

start_twin() {
    "$here/../twin" boot "$twin" >"$work/twin.log" 2>&1 || grep -q 'no slot can be started' "$work/twin.log"
    twin_environment_tool "$twin" fw_printenv | sort >"$work/twin.env" 2>/dev/null
}

start_u_boot() {
    timeout 60 qemu-system-aarch64 "${MACHINE_BOARD[@]}" -no-reboot -bios "$MACHINE_LOADER" \
        -drive "if=pflash,unit=1,format=raw,file=$work/settings.img" \
        -drive "if=none,id=disk,format=raw,file=$disk" -device nvme,drive=disk,serial=disk,addr=2 \
        -device i6300esb,addr=6 -serial stdio </dev/null >"$work/u-boot.log" 2>&1
    local copy
    for copy in a b; do
        machine_get "$disk" "env_$copy" "$twin/partitions/env_$copy"
    done
    twin_environment_tool "$twin" fw_printenv | sort >"$work/u-boot.env" 2>/dev/null
    if grep -aq 'Starting slot' "$work/u-boot.log"; then
        grep -aq '^Starting kernel' "$work/u-boot.log"
    else
        grep -aq 'No slot can be started' "$work/u-boot.log"
    fi
}

# give DAMAGED...: both get the row's partitions.
give() {
    local what name
    for what; do
        damage "$what"
    done
    for name in env_a env_b "${slot_partitions[@]}"; do
        [[ $name != env_? && " $* " != *"${name}"* ]] || machine_put "$disk" "$name" "$twin/partitions/$name"
    done
}

# The slots whole again.
take_back() {
    local what name
    for what; do
        name=${what#magic_}
        [[ $name =~ ^(kernel|dtb|rootfs)_ ]] || continue
        damage "$what"
        machine_put "$disk" "$name" "$twin/partitions/$name"
    done
}

# try_row DAMAGE CHANGES: prints the difference.
try_row() {
    local damaged result=0
    read -ra damaged <<<"$1"
    make_environment "$2"
    give "${damaged[@]}"
    start_twin || printf '  twin boot has failed\n'
    start_u_boot || printf '  U-Boot has not started what it said, or has not ended\n'
    diff <(sentences "$work/twin.log") <(sentences "$work/u-boot.log") || result=1
    diff "$work/twin.env" "$work/u-boot.env" || result=1
    take_back "${damaged[@]}"
    return "$result"
}

trim() {
    sed 's/^ *//; s/ *$//' <<<"$1"
}

make_both
failures=0 tried=0
while IFS='|' read -r name damaged changes; do
    name=$(trim "$name")
    [[ $name =~ $pattern ]] || continue
    tried=$((tried + 1))
    if said=$(try_row "$(trim "$damaged")" "$(trim "$changes")" 2>&1) && [[ -z $said ]]; then
        printf '  ok    %-45s %s\n' "$name" "$(grep -a 'Starting slot' "$work/u-boot.log" | tr -d '\r' || echo starts none)"
    else
        printf '  FAIL  %s\n%s\n' "$name" "$said"
        cp "$work/u-boot.log" "$work/failed-$tried.log"
        failures=$((failures + 1))
    fi
done < <(rows)
printf '\n%d rows, %d failed\n' "$tried" "$failures"
((tried && !failures))
