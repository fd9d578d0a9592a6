# shellcheck shell=bash disable=SC2154
# What the suites share that try devices of the plain form: where they are, what each of them is, and what the judge says of
# it. Sourced, after twin/device.sh and releases.sh; the script also sets `name`, `judge_program` and `speed`.

# directory_for_devices: a new one, in memory where there is room.
directory_for_devices() {
    local parent=${TMPDIR:-/tmp} free
    free=$(stat -f -c '%a * %S' /dev/shm 2>/dev/null || printf 0)
    ((free < 4 << 30)) || parent=/dev/shm
    mktemp -d "$parent/$name.XXXXXXXX"
}

# copy_device FROM TO: as it is when its microcontroller, which takes its link away at its end, is off.
copy_device() {
    [[ ! -e $1/mcu/flash.bin ]] || flock --timeout 60 "$1/mcu/flash.bin" true
    rm -rf -- "$2"
    cp -a --sparse=auto -- "$1" "$2"
}

# hear_judge DEVICE SAID OPTION...: prints what does not hold of the device, which changes it; what the judge says goes to the
# file SAID. That it did not come to its end is such a thing, too.
hear_judge() {
    local status=0
    KAVRO_CLOCK_SPEED=$speed "$judge_program" --build "$build" --next "$releases/next" "${@:3}" "$1" \
        "${known_releases[@]}" >"$2" 2>&1 || status=$?
    [[ $status != 0 || $(tail -n 1 "$2") != 'all holds' ]] || return 0
    grep '^wrong' "$2" ||
        printf 'the judge ended early, exit status %d: %s\n' "$status" "$(tail -n 3 "$2" | tr '\n' '|')"
}

# whose FILE SUFFIX: the release whose file this is, over that one's length.
whose() {
    local release
    for release in "${release_names[@]}"; do
        if cmp -s -n "$(stat -c %s "$releases/$release$2")" -- "$1" "$releases/$release$2"; then
            printf '%s' "$release"
            return
        fi
    done
    printf 'other'
}

package_fact() {
    if [[ $(stat -c %s "$1") == 134217728 ]]; then
        whose "$1" .pkg
    else
        printf 'of %d bytes' "$(stat -c %s "$1")"
    fi
}

# facts_of DEVICE: one line for each thing that lasts, but for /raw, which each run empties.
facts_of() {
    local file part slot
    printf 'running slot %s\n' "$(<"$1/run/running_slot")"
    { twin_environment_tool "$1" fw_printenv 2>&1 || printf 'cannot be read\n'; } | sort | sed 's/^/environment /'
    for file in "$1"/config/* "$1"/etc-kavro/version.json; do
        # Whatever was done stands without its note in the history.
        [[ ! -f $file || $file == */upgrade_history.jsonl ]] ||
            printf '%s: %s\n' "${file#"$1"}" "$(jq -cS . "$file" 2>/dev/null || tr '\n' ' ' <"$file" | head -c 400)"
    done
    for file in "$1"/firmware/* "$1"/etc-kavro/origin*; do
        [[ ! -f $file ]] || printf '%s: %s\n' "${file#"$1"}" "$(package_fact "$file")"
    done
    for slot in a b; do
        for part in kernel dtb rootfs; do
            printf 'slot %s: %s %s\n' $slot $part "$(whose "$1/partitions/${part}_$slot" "/${TWIN_COMPONENT_OF[$part]}")"
        done
    done
    printf 'boot loader: %s\n' "$(whose "$1/partitions/bootloader" "/${TWIN_COMPONENT_OF[bootloader]}")"
    printf 'microcontroller: %s\n' "$(sha256sum <"$1/mcu/flash.bin" | cut -c 1-12)"
}
