# shellcheck shell=bash
# A whole device in a virtual machine: U-Boot, a kernel and a root file system for arm64 on an emulated processor, one
# disk with the partitions of a board, and the microcontroller at a serial line. Sourced by the programs beside it.
#
#   MACHINE/disk.img         the disk                      MACHINE/loader.bin    what the boot ROM has read of it
#   MACHINE/console.log      boot loader and kernel        MACHINE/control.*     the shell on the device
#   MACHINE/mcu/             the microcontroller, as of a twin: flash.bin, link, log
#   MACHINE/settings.img     U-Boot's own environment, which a board has compiled in
#   MACHINE/stick.img        a disk that is plugged in beside it, with packages; may be missing

machine_home=$(cd -- "${BASH_SOURCE[0]%/*}" && pwd -P)

# shellcheck source=../device.sh
source "$machine_home/../device.sh"

MACHINE_MEMORY=1024
MACHINE_LOADER=/usr/lib/u-boot/qemu_arm64/u-boot.bin
MACHINE_SECTOR=512

# The disk in its order: name and size. What a board has once comes first, the file systems last.
MACHINE_PARTITIONS=(boot env_a env_b bootloader kernel_a dtb_a rootfs_a kernel_b dtb_b rootfs_b config firmware raw)
declare -A MACHINE_PARTITION_SIZE=([boot]=4M)
for machine_name in "${!TWIN_PARTITION_SIZE[@]}"; do
    MACHINE_PARTITION_SIZE[$machine_name]=${TWIN_PARTITION_SIZE[$machine_name]}
done
for machine_name in "${!TWIN_FILE_SYSTEM_SIZE[@]}"; do
    MACHINE_PARTITION_SIZE[$machine_name]=${TWIN_FILE_SYSTEM_SIZE[$machine_name]}
done
unset machine_name

# --- the disk -------------------------------------------------------------------------------------------------------

machine_partition_bytes() {
    numfmt --from=iec "${MACHINE_PARTITION_SIZE[$1]}"
}

# machine_lay_out: fills MACHINE_START with the first byte of each partition, each at a whole MiB.
declare -A MACHINE_START=()
machine_lay_out() {
    local name at=1048576 bytes
    for name in "${MACHINE_PARTITIONS[@]}"; do
        MACHINE_START[$name]=$at
        bytes=$(machine_partition_bytes "$name")
        at=$(((at + bytes + 1048575) / 1048576 * 1048576))
    done
    MACHINE_DISK_BYTES=$((at + 1048576))
}
machine_lay_out

# machine_make_disk IMAGE: with partitions of zeros.
machine_make_disk() {
    local name
    rm -f "$1"
    truncate -s "$MACHINE_DISK_BYTES" "$1"
    {
        printf 'label: gpt\n'
        for name in "${MACHINE_PARTITIONS[@]}"; do
            printf 'start=%d, size=%d, name="%s"\n' $((MACHINE_START[$name] / MACHINE_SECTOR)) \
                $(($(machine_partition_bytes "$name") / MACHINE_SECTOR)) "$name"
        done
    } | /sbin/sfdisk --quiet "$1"
}

# machine_put IMAGE PARTITION FILE
machine_put() {
    dd if="$3" of="$1" bs=1M seek="${MACHINE_START[$2]}" oflag=seek_bytes conv="${4:-notrunc}" status=none
}

# machine_fill IMAGE PARTITION FILE: of an image that holds zeros there; what is zero in the file takes no room.
machine_fill() {
    machine_put "$@" notrunc,sparse
}

# machine_get IMAGE PARTITION FILE [BYTES]
machine_get() {
    dd if="$1" of="$3" bs=1M skip="${MACHINE_START[$2]}" count="${4:-$(machine_partition_bytes "$2")}" \
        iflag=skip_bytes,count_bytes conv=sparse status=none
}

# machine_make_boot_partition FILE: what U-Boot looks for.
machine_make_boot_partition() {
    local files
    files=$(mktemp -d)
    sed '/^#/d; /^$/d' "$machine_home/boot.env" >"$files/boot.env"
    mkimage -q -A arm64 -T script -C none -d "$machine_home/boot.cmd" "$files/boot.scr" >/dev/null
    dtc -q -I dts -O dtb -o "$files/slot_part.fit" "$machine_home/slot_part.dts"
    rm -f "$1"
    truncate -s "$(machine_partition_bytes boot)" "$1"
    mke2fs -q -t ext4 -O ^has_journal -E root_owner=0:0 -d "$files" "$1"
    rm -rf "$files"
}

# machine_make_settings FILE: U-Boot looks at the second flash memory, of 64 MiB, for an environment of its own.
machine_make_settings() {
    printf '%s\n' 'bootdelay=-2' \
        'bootcmd=pci enum; nvme scan; load nvme 0:1 0x40200000 boot.scr; source 0x40200000; reset' |
        mkenvimage -s 0x40000 -o "$1" -
    truncate -s 64M "$1"
}

# machine_make_file_systems TWIN IMAGE: of the directories of a twin.
machine_make_file_systems() {
    local name
    for name in "${!TWIN_FILE_SYSTEM_SIZE[@]}"; do
        mke2fs -q -F -t ext4 -m 0 -N 1024 -E "offset=${MACHINE_START[$name]},root_owner=0:0" -d "$1/$name" "$2" \
            "$(machine_partition_bytes "$name" | numfmt --to-unit=1024)k"
    done
}

# machine_create MACHINE COMPONENTS [PACKAGE]: a new device as `twin create` makes it, on a disk; PACKAGE is that of its
# software.
machine_create() {
    local machine=$1 name
    rm -rf "$machine"
    mkdir -p "$machine"
    "$machine_home/../twin" create "$machine/twin" --plain --components "$2" >/dev/null
    [[ -z ${3-} ]] || cp "$3" "$machine/twin/firmware/current.pkg"
    machine_make_disk "$machine/disk.img"
    machine_make_boot_partition "$machine/boot.img"
    machine_fill "$machine/disk.img" boot "$machine/boot.img"
    for name in "${!TWIN_PARTITION_SIZE[@]}"; do
        machine_fill "$machine/disk.img" "$name" "$machine/twin/partitions/$name"
    done
    machine_make_file_systems "$machine/twin" "$machine/disk.img"
    machine_make_settings "$machine/settings.img"
    mv "$machine/twin/mcu" "$machine/mcu"
    rm -rf "$machine/twin" "$machine/boot.img"
}

# --- the machine ----------------------------------------------------------------------------------------------------

MACHINE_BOARD=(-M virt -cpu cortex-a53 -m "$MACHINE_MEMORY" -nodefaults -display none -nic none)

# What ends a machine's processes, by their numbers alone.
machine_pid='' mcu_pid=''

# machine_dump_device_tree FILE: as the emulator would hand it to a boot loader, without the room that it leaves in it.
# With a boot loader, the machine has other devices than without one.
machine_dump_device_tree() {
    qemu-system-aarch64 "${MACHINE_BOARD[@]}" -bios "$MACHINE_LOADER" -machine dumpdtb="$1.room" >/dev/null 2>&1
    dtc -q -I dtb -O dtb -o "$1" "$1.room"
    rm -f "$1.room"
}

# machine_read_loader MACHINE: what the boot ROM does at each start.
machine_read_loader() {
    machine_get "$1/disk.img" bootloader "$1/loader.bin"
}

# What an emulator did that no device does: it ended by itself, in another way than by a reset. Whoever drives the machine
# counts it among the failures.
machine_faults=()

# machine_end_process WHAT PID STATUS...: at once, as power does. It may have ended just before, with one of these.
machine_end_process() {
    kill -KILL "$2" 2>/dev/null || true
    machine_collect "$@" 137
}

# machine_collect WHAT PID STATUS...: of an emulator that has ended or is about to; each of these is in order.
machine_collect() {
    local status=0
    wait "$2" 2>/dev/null || status=$?
    [[ " ${*:3} " == *" $status "* ]] || machine_faults+=("the emulator of the $1 ended by itself, with status $status")
}

# mcu_start MACHINE [FAULT...]
mcu_start() {
    local fault faults=() tries
    for fault in "${@:2}"; do
        faults+=(--fault "$fault")
    done
    rm -f "$1/mcu/link" "$1/mcu/reset_request"
    (cd "$1/mcu" && exec "$KAVRO_TWIN_PROGRAMS/mcu-emulator" run --flash flash.bin --listen link "${faults[@]}") \
        </dev/null >>"$1/mcu/log" 2>&1 &
    mcu_pid=$!
    for ((tries = 0; tries < 500; tries++)); do
        [[ ! -S $1/mcu/link ]] || return 0
        sleep 0.02
    done
    printf 'machine: the microcontroller does not start: %s\n' "$(tail -n 3 "$1/mcu/log")" >&2
    return 1
}

# machine_start MACHINE: the main processor starts; it runs until it resets itself, which ends the emulator, for a start
# begins with the boot ROM and the loader that is on the disk then. With a file in `machine_log`, every write to the disk
# is logged there.
machine_log=
machine_start() {
    local machine=$1 drive stick=()
    # shellcheck disable=SC2054  # commas within an option
    drive=(-blockdev "driver=file,node-name=disk_file,filename=$machine/disk.img")
    if [[ -n $machine_log ]]; then
        : >"$machine_log"
        # shellcheck disable=SC2054
        drive+=(-blockdev "driver=file,node-name=log,filename=$machine_log"
            -blockdev driver=blklogwrites,node-name=disk,file=disk_file,log=log)
    else
        # shellcheck disable=SC2054
        drive+=(-blockdev driver=raw,node-name=disk,file=disk_file)
    fi
    machine_read_loader "$machine"
    rm -f "$machine"/control.{in,out}
    mkfifo "$machine"/control.{in,out}
    exec {control_in}<>"$machine/control.in" {control_out}<>"$machine/control.out"
    # shellcheck disable=SC2054  # commas within an option
    [[ ! -f $machine/stick.img ]] ||
        stick=(-drive "if=none,id=stick,format=raw,readonly=on,file=$machine/stick.img"
            -device nvme,drive=stick,serial=stick,addr=5)
    qemu-system-aarch64 "${MACHINE_BOARD[@]}" -no-reboot -bios "$machine/loader.bin" \
        -drive "if=pflash,unit=1,format=raw,file=$machine/settings.img" \
        "${drive[@]}" -device nvme,drive=disk,serial=disk,addr=2 \
        -chardev "socket,id=mcu,reconnect=1,path=$machine/mcu/link" -device pci-serial,chardev=mcu,addr=3 \
        -chardev "pipe,id=control,path=$machine/control" -device pci-serial,chardev=control,addr=4 \
        -chardev "file,id=console,append=on,path=$machine/console.log" -serial chardev:console \
        -device i6300esb,addr=6 "${stick[@]}" \
        </dev/null >>"$machine/emulator.log" 2>&1 {control_in}>&- {control_out}>&- &
    machine_pid=$!
    control_rest=
}

machine_is_on() {
    [[ -n $machine_pid ]] && kill -0 "$machine_pid" 2>/dev/null
}

# machine_cut: the power goes, of both processors. What the main processor has not handed over to its disk is lost.
machine_cut() {
    [[ -z $machine_pid ]] || machine_end_process "main processor" "$machine_pid" 0
    [[ -z $mcu_pid ]] || machine_end_process microcontroller "$mcu_pid"
    machine_pid='' mcu_pid=''
}

# machine_note_reset: of a main processor that is off. The emulator ends with 0 then.
machine_note_reset() {
    machine_collect "main processor" "$machine_pid" 0
    machine_pid=
}

# machine_wait_for_reset SECONDS: until the main processor has reset itself.
machine_wait_for_reset() {
    local end=$((SECONDS + $1))
    while machine_is_on; do
        ((SECONDS < end)) || return 1
        sleep 0.1
    done
    machine_note_reset
}

# machine_read_line SECONDS: what the device says next, in `line`. Fails when it says nothing in that time, or is off.
machine_read_line() {
    local end=$((SECONDS + $1)) piece
    while true; do
        if IFS= read -r -t 0.5 -u "$control_out" piece; then
            line=${control_rest}${piece%$'\r'}
            control_rest=
            return 0
        fi
        control_rest+=$piece
        machine_is_on || return 1
        ((SECONDS < end)) || return 1
    done
}

# machine_wait_until_ready SECONDS: until the device obeys.
machine_wait_until_ready() {
    local line
    while machine_read_line "$1"; do
        [[ $line != *$'\036'ready ]] || return 0
    done
    return 1
}

# machine_send COMMAND: the device carries it out; what it says comes as it says it.
machine_send() {
    printf '%s\n' "$*" >&"$control_in"
}

# machine_hear SECONDS: prints what the device says until the command is done, and returns its status; 255 when the device
# is silent for so long, or is off.
machine_hear() {
    local line
    while machine_read_line "$1"; do
        if [[ $line =~ $'\036'([0-9]+)$ ]]; then
            return "${BASH_REMATCH[1]}"
        fi
        [[ -z $line ]] || printf '%s\n' "$line"
    done
    return 255
}

# machine_run COMMAND...
machine_run() {
    machine_send "$*"
    machine_hear 300
}

# machine_boot MACHINE: starts the device until it obeys, as often as it resets itself on the way; `starts` is how often.
# Fails when it neither obeys nor resets itself, or does the latter for ever.
machine_boot() {
    starts=0
    while ((starts < 8)); do
        machine_start "$1"
        starts=$((starts + 1))
        ! machine_wait_until_ready 180 || return 0
        ! machine_is_on || return 1
        machine_note_reset
    done
    return 1
}

# machine_reset: in order.
machine_reset() {
    machine_send "sync; umount /config /firmware /raw; reboot -f"
    machine_wait_for_reset 60
}

# machine_restart MACHINE: in order.
machine_restart() {
    machine_reset && machine_boot "$1"
}

# machine_switch_off: in order.
machine_switch_off() {
    machine_reset
    machine_cut
}

# machine_copy FROM TO: of one that is off.
machine_copy() {
    rm -rf "$2"
    mkdir -p "$2"
    cp --sparse=always "$1"/{disk,settings}.img "$2"
    cp -r "$1/mcu" "$2/mcu"
    rm -f "$2/mcu/link"
    [[ ! -e $1/stick.img ]] || ln "$1/stick.img" "$2/stick.img"
}
