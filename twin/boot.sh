# shellcheck shell=bash disable=SC2154
# What the boot loader of the device does at a start: it counts the starts of a slot on trial, falls back from one that
# nobody confirmed, refuses a slot whose content is not what the environment expects, and starts what is left. It works
# on the environment by U-Boot's own tools and shares nothing with the flash drivers, whose work it judges. Sourced by
# twin; `state` is the device's directory.
#
#   boot_slot                         the slot to start
#   upgrade_available                 1 while that slot is on trial: activated, not confirmed
#   bootcount, bootlimit              starts on trial so far, and how many there may be; without a limit, any number
#   slot_NAME_kernel, _dtb, _rootfs   "BYTES SHA256" of what the first bytes of the partition must be
#   slots_unchecked                   1 in a device that was made without software: a slot that is not known is started

boot_parts=(kernel dtb rootfs)
declare -A boot_defaults=([boot_slot]=a [upgrade_available]=0 [bootcount]=0 [bootlimit]=3)

# What the loader of each part would look for: where, and which bytes.
declare -A boot_magic_at=([kernel]=56 [dtb]=0 [rootfs]=1080)
declare -A boot_magic=([kernel]=41524d64 [dtb]=d00dfeed [rootfs]=53ef)

declare -A environment=() slot_verdict=()

other_slot() {
    if [[ $1 == a ]]; then printf 'b\n'; else printf 'a\n'; fi
}

# --- the environment ------------------------------------------------------------------------------------------------

# read_environment: fills `environment`; fails when neither copy is whole.
read_environment() {
    local text name value
    environment=()
    text=$(twin_environment_tool "$state" fw_printenv 2>/dev/null) || return 1
    while IFS='=' read -r name value; do
        [[ -z $name ]] || environment[$name]=$value
    done <<<"$text"
}

# number_of NAME: a variable that is no number counts as 0, as U-Boot takes it.
number_of() {
    if [[ ${environment[$1]-} =~ ^[0-9]{1,9}$ ]]; then
        printf '%d\n' "$((10#${environment[$1]}))"
    else
        printf '0\n'
    fi
}

# save NAME=VALUE...: in one save.
save() {
    local pair
    twin_save_environment "$state" "$@" || fail "the boot environment cannot be saved"
    for pair; do
        environment[${pair%%=*}]=${pair#*=}
    done
    printf 'Saving environment... %s\n' "$*"
}

use_defaults() {
    local name defaults=()
    printf 'Loading environment... *** Warning - bad CRC, using default environment\n'
    for name in boot_slot upgrade_available bootcount bootlimit; do
        defaults+=("$name=${boot_defaults[$name]}")
    done
    save "${defaults[@]}"
}

load_environment() {
    if read_environment; then
        printf 'Loading environment... OK\n'
    else
        use_defaults
    fi
    if [[ ${environment[boot_slot]-} != [ab] ]]; then
        printf 'boot_slot is "%s": taking slot a\n' "${environment[boot_slot]-}"
        environment[boot_slot]=a
    fi
}

# --- the content of a slot ------------------------------------------------------------------------------------------

# part_is_expected SLOT PART
part_is_expected() {
    local actual
    [[ ${environment[slot_$1_$2]} =~ ^(0*[1-9][0-9]*)\ ([0-9a-f]{64})$ ]] || return 1
    actual=$(head -c "${BASH_REMATCH[1]}" "$state/partitions/$2_$1" | sha256sum)
    [[ ${actual%% *} == "${BASH_REMATCH[2]}" ]]
}

# part_looks_startable SLOT PART
part_looks_startable() {
    local magic=${boot_magic[$2]} found
    found=$(od -An -tx1 -j "${boot_magic_at[$2]}" -N $((${#magic} / 2)) "$state/partitions/$2_$1" | tr -d ' ')
    [[ $found == "$magic" ]]
}

# check_parts SLOT CHECK SAYING: CHECK of each part, telling the first that fails.
check_parts() {
    local part
    for part in "${boot_parts[@]}"; do
        if ! "$2" "$1" "$part"; then
            printf 'Slot %s: %s %s\n' "$1" "$part" "$3"
            return 1
        fi
    done
}

# known_parts SLOT: prints of how many parts the environment says what they must be.
known_parts() {
    local part known=0
    for part in "${boot_parts[@]}"; do
        [[ -z ${environment[slot_$1_$part]-} ]] || known=$((known + 1))
    done
    printf '%d\n' "$known"
}

# Nobody has activated a slot of which the environment says nothing while it knows the other one. When it knows neither,
# it is a default one that stands for an unknown past: the slot must at least look like one.
check_slot() {
    local known other
    known=$(known_parts "$1")
    other=$(known_parts "$(other_slot "$1")")
    if ((known == ${#boot_parts[@]})); then
        check_parts "$1" part_is_expected "is not what the environment expects" || return 1
        printf 'Slot %s: kernel, dtb and rootfs are as expected\n' "$1"
    elif ((known)); then
        printf 'Slot %s: the environment knows only a part of it\n' "$1"
        return 1
    elif [[ ${environment[slots_unchecked]-} == 1 ]]; then
        printf 'Slot %s: not checked, the environment does not know its content\n' "$1"
    elif ((other)); then
        printf 'Slot %s: was never activated, the environment does not know its content\n' "$1"
        return 1
    else
        check_parts "$1" part_looks_startable "cannot be started" || return 1
        printf 'Slot %s: kernel, dtb and rootfs can be started; the environment does not know their content\n' "$1"
    fi
}

# can_start SLOT: hashed once.
can_start() {
    if [[ -z ${slot_verdict[$1]-} ]]; then
        slot_verdict[$1]=bad
        ! check_slot "$1" || slot_verdict[$1]=good
    fi
    [[ ${slot_verdict[$1]} == good ]]
}

# --- the decision ---------------------------------------------------------------------------------------------------

# switch_to SLOT: it has run before, so it is not on trial.
switch_to() {
    save "boot_slot=$1" upgrade_available=0 bootcount=0
}

# The count is saved before the start, for the start may be the end of it.
count_start() {
    local slot=${environment[boot_slot]} limit count other
    limit=$(number_of bootlimit)
    count=$(($(number_of bootcount) + 1))
    other=$(other_slot "$slot")
    if ((limit && count > limit)); then
        printf 'Warning: Bootlimit (%d) exceeded: slot %s was started that often and never confirmed\n' "$limit" "$slot"
        if can_start "$other"; then
            switch_to "$other"
            return
        fi
        printf 'Staying with slot %s\n' "$slot"
    fi
    printf 'Slot %s: on trial, start %d of %d\n' "$slot" "$count" "$limit"
    save "bootcount=$count"
}

# choose_slot: leaves the slot that can be started in environment[boot_slot].
choose_slot() {
    local other
    [[ ${environment[upgrade_available]-} != 1 ]] || count_start
    ! can_start "${environment[boot_slot]}" || return 0
    other=$(other_slot "${environment[boot_slot]}")
    can_start "$other" || return 1
    switch_to "$other"
}
