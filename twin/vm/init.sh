#!/bin/sh
# The first process of the device in the virtual machine: puts the file systems together, lets the upgrade manager do what
# is to be done at a start, confirms the software if all of that went well, and then obeys the serial line.
export PATH=/bin:/usr/bin HOME=/tmp
watchdog=/sys/bus/pci/devices/0000:00:06.0

say() {
    echo "init: $*" >/dev/kmsg
}

# The partitions by their labels, as udev makes them.
link_partitions() {
    mkdir -p /dev/disk/by-partlabel
    for entry in /sys/class/block/*/partition; do
        entry=${entry%/partition}
        label=$(sed -n 's/^PARTNAME=//p' "$entry/uevent")
        ln -s "/dev/${entry##*/}" "/dev/disk/by-partlabel/$label"
    done
}

mount_all() {
    mount -t proc proc /proc
    mount -t sysfs sys /sys
    mount -t devtmpfs dev /dev
    mount -t tmpfs -o mode=755 run /run
    mount -t tmpfs tmp /tmp
    mkdir -p /run/lock /run/kavro
    link_partitions
    for name in config firmware raw; do
        mount -t ext4 -o noatime "/dev/disk/by-partlabel/$name" "/$name" || say "$name cannot be mounted"
    done
    # The packages that somebody plugs in.
    [ ! -b /dev/nvme1n1 ] || mount -t ext4 -o ro /dev/nvme1n1 /media
}

# The boot loader has started the watchdog, of a minute. It is fed when the file systems are there, and from the end of the
# start on for as long as this process lives: a start that hangs is a restart.
find_watchdog() {
    echo 1 >$watchdog/enable
    reload=$(($(sed -n '1s/ .*//p' $watchdog/resource) + 12))
}

feed_watchdog() {
    devmem $reload 8 0x80
    devmem $reload 8 0x86
    devmem $reload 16 0x100
}

keep_feeding() {
    while sleep 5; do
        feed_watchdog
    done
}

restart() {
    sync
    umount /config /firmware /raw
    reboot -f
}

# What a camera must be able to do before it may call itself good: here, upgrades. Software on trial that is not good
# leaves it to the boot loader what comes next.
start_up() {
    if upgradectl init && upgradectl confirm; then
        say "version $(cat /etc/kavro-release) is in order and confirmed"
        return
    fi
    say "version $(cat /etc/kavro-release) is not in order"
    [ "$(fw_printenv -n upgrade_available)" != 1 ] || restart
}

# One command a line; behind what it prints comes a line of its status, which no text begins like.
obey() {
    stty raw -echo
    printf '\036ready\n'
    while read -r line; do
        sh -c "$line" </dev/null 2>&1
        printf '\n\036%d\n' $?
    done
}

mount_all
find_watchdog
feed_watchdog
start_up >/dev/kmsg 2>&1
keep_feeding &
obey </dev/ttyS1 >/dev/ttyS1
