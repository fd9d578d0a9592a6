#!/usr/bin/env bash
# Measures what the system takes of time, memory and storage, on emulated devices, and prints a table. What it is measured
# against runs in turns with it, so that whatever else the machine does meets both.
set -euo pipefail

bench_home=$(cd -- "${BASH_SOURCE[0]%/*}" && pwd -P)
tree=$(dirname -- "$bench_home")

usage() {
    cat <<'TEXT'
usage: bench/bench.sh [--quick] [--only NAME] [--build DIR] [--json FILE] [--plain|--block] [--record]

--quick   fewer samples, in less than two minutes; fails when a figure is worse than the one in bench/recorded.json by
          more than its margin
--only    only one group: install, give_up, waiting, memory, copy, flash, side_by_side, latency, queries, load, size
--build   where the programs are (build/bench)
--json    where the results go, with all samples (build/bench/bench.json)
--plain, --block  the form of the emulated device; --block where it is possible
--record  makes these figures the recorded ones
TEXT
}

fail() {
    printf 'bench: %s\n' "$1" >&2
    exit "${2:-1}"
}

parse_options() {
    quick=false record=false only='' build=$tree/build/bench json='' form=()
    while (($#)); do
        case $1 in
        --quick) quick=true ;;
        --record) record=true ;;
        --plain | --block) form=("$1") ;;
        --help) usage && exit ;;
        --only | --build | --json)
            [[ $# -ge 2 ]] || fail "$1 needs a value" 2
            printf -v "${1#--}" '%s' "$2"
            shift
            ;;
        *) usage >&2 && exit 2 ;;
        esac
        shift
    done
    build=$(realpath -- "$build") || fail "$build is missing: ./dev bench makes it"
    json=${json:-$build/bench.json}
}

clean_up() {
    ! mountpoint -q "$work/xfs" || umount "$work/xfs"
    [[ ! -f $work/device/created-with ]] || "$tree/twin/twin" remove "$work/device"
    rm -rf -- "$work"
}

prepare() {
    export KAVRO_TWIN_PROGRAMS=$build/twin
    work=$(mktemp -d "$build/run.XXXXXXXX")
    samples=$work/samples
    device=$work/device
    : >"$samples"
    trap clean_up EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    "$build/bench/bench_make_package" "$work/large.pkg" 120000000 7
    "$tree/twin/twin" create "$device" "${form[@]}" >/dev/null
    # The package that was received, still in memory.
    cp -- "$work/large.pkg" "$device/firmware/received.pkg"
}

# on_device [TWIN_OPTION...] -- COMMAND...
on_device() {
    "$tree/twin/twin" run "$device" --visible "$build" "$@"
}

# sample MEASUREMENT [ARGUMENT] [ROUNDS]
sample() {
    on_device -- "$build/bench/bench_device" "$@" >>"$samples"
}

# without_packages: the device as before a run, nothing left to be written, and no slot in the cache, as after a start.
without_packages() {
    rm -rf -- "$device"/firmware/{upgrade,rollback,current}.pkg "$device"/raw/* "$device/config/upgraded"
    sync
    # shellcheck disable=SC2016 # for the shell on the device
    on_device -- find -L /dev/disk/by-partlabel -name '*_b' -exec sh -c 'for slot; do dd if="$slot" iflag=nocache count=0 status=none || exit; done' sh {} +
}

# unpack: the components to flash.
unpack() {
    without_packages
    mkdir -p "$device/raw/upgrade"
    tar -xf "$device/firmware/received.pkg" -C "$device/raw/upgrade"
}

# rounds FULL QUICK
rounds() {
    if "$quick"; then printf '%s' "$2"; else printf '%s' "$1"; fi
}

# --- what is measured -----------------------------------------------------------------------------------------------

by_hand() {
    without_packages
    on_device -- "$bench_home/shell_install.sh" /firmware/received.pkg >>"$samples"
}

by_run() {
    without_packages
    sample install /firmware/received.pkg
}

measure_install() {
    local round
    for ((round = 0; round < $(rounds 9 3); round++)); do
        if ((round % 2)); then
            by_hand
            by_run
        else
            by_run
            by_hand
        fi
    done
}

measure_give_up() {
    without_packages
    sample give-up /firmware/received.pkg "$(rounds 40 3)"
}

measure_waiting() {
    without_packages
    sample waiting /firmware/received.pkg
}

# of_package NAME PAYLOAD_BYTES: the peak of a run with it.
of_package() {
    "$build/bench/bench_make_package" "$device/firmware/memory.pkg" "$2" 7
    without_packages
    on_device -- "$build/bench/bench_device" memory /firmware/memory.pkg |
        jq -c --arg name "$1" '.name = $name' >>"$samples"
    rm -f -- "$device/firmware/memory.pkg"
}

measure_memory() {
    rm -f -- "$device/firmware/received.pkg"
    of_package memory 133900000
    of_package 'memory small' 1000000
    cp -- "$work/large.pkg" "$device/firmware/received.pkg"
}

measure_copy() {
    without_packages
    sample copy /firmware/received.pkg "$(rounds 11 5)"
    sample md5 /firmware/received.pkg "$(rounds 11 5)"
    ((EUID == 0)) && command -v mkfs.xfs >/dev/null || return 0
    truncate -s 1G "$work/xfs.img"
    mkfs.xfs -q -m reflink=1 "$work/xfs.img"
    mkdir "$work/xfs"
    mount -o loop "$work/xfs.img" "$work/xfs"
    cp -- "$work/large.pkg" "$work/xfs/package"
    sync
    "$build/bench/bench_device" copy-shared "$work/xfs/package" "$(rounds 11 5)" | jq -c '.name = "cpFile shared"' >>"$samples"
    umount "$work/xfs"
    rm -f -- "$work/xfs.img"
}

measure_flash() {
    unpack
    sample flash /raw/upgrade "$(rounds 11 5)"
}

measure_side_by_side() {
    unpack
    sample side-by-side /raw/upgrade "$(rounds 5 1)"
}

# In batches: a host that takes the processor away for a moment spoils one of them.
measure_latency() {
    local round
    for ((round = 0; round < 5; round++)); do
        sample latency '' "$(rounds 1000 200)"
    done
}

measure_queries() {
    on_device -- "$build/bench/bench_queries" --benchmark_format=json --benchmark_min_time="$(rounds 1 0.2)" \
        --benchmark_repetitions=5 2>/dev/null |
        jq -c '.benchmarks[] | select(.run_type == "iteration") | {name, ours: .cpu_time}' >>"$samples"
}

measure_load() {
    local round
    for ((round = 0; round < $(rounds 9 3); round++)); do
        on_device -- "$build/bench/bench_load" >>"$samples"
    done
}

# stripped NAME STRIP LIBRARY
stripped() {
    [[ -f $3 ]] && command -v "$2" >/dev/null || return 0
    "$2" -o "$work/stripped.so" "$3"
    printf '{"name": "size %s", "ours": %s}\n' "$1" "$(($(stat -c %s "$work/stripped.so") * 10 / 1024))e-1" >>"$samples"
}

measure_size() {
    stripped x86-64 strip "$build/upgrade/libupgrade.so"
    stripped aarch64 aarch64-linux-gnu-strip "$tree/build/arm64/upgrade/libupgrade.so"
}

# --- results --------------------------------------------------------------------------------------------------------

print_table() {
    printf '\n%-50s %10s %10s %12s %10s\n' 'what' 'ours' 'theirs' 'value' 'to reach'
    jq -r 'def short: if . == null then "-" elif . >= 100 then round else (. * 1000 | round) / 1000 end;
        .results[] | select(.value != null) | [.what, (.ours | short), (.theirs | short), (.value | short), .unit, .limit,
            if .value <= .limit then "" else "missed" end] | @tsv' "$json" |
        while IFS=$'\t' read -r what ours theirs value unit limit missed; do
            printf '%-50s %10s %10s %6s %-5s %10s %s\n' "$what" "$ours" "$theirs" "$value" "$unit" "$limit" "$missed"
        done
    jq -r '.results[] | select(.value == null) | "not measured: \(.what)"' "$json"
}

# print_parts TITLE FIELD: the medians of a run's parts, the longest first.
print_parts() {
    jq -r --arg title "$1" --arg field "$2" '
        def median: sort | (.[(length - 1) / 2 | floor] + .[length / 2 | floor]) / 2;
        [.samples[] | select(.name == "install" and .[$field] != null) | .[$field] | to_entries[]]
        | group_by(.key) | map({part: .[0].key, ms: (map(.value) | median)}) | sort_by(-.ms)
        | if length > 0 then "\n\($title):", (.[] | "  \(.ms * 10 | round / 10)\t\(.part)") else empty end' "$json"
}

summarise() {
    jq -n --arg machine "$(sed -n 's/^model name\s*: //p' /proc/cpuinfo | head -n 1), $(nproc) processors" \
        --arg date "$(date -u +%FT%TZ)" --arg device "$(head -n 1 "$device/created-with")" \
        --slurpfile samples "$samples" \
        --argjson results "$(jq -s --slurpfile rows "$bench_home/recorded.json" -f "$bench_home/summary.jq" "$samples")" \
        '{$date, $machine, $device, $results, $samples}' >"$json"
}

# The margins leave room for another machine and for its storage. A figure that only some hosts give may be missing.
compare_with_recorded() {
    local worse missing
    missing=$(jq -r --arg only "$only" '.results[] | select($only == "" and .value == null and
        .name != "cpFile shared" and .name != "size aarch64") | .what' "$json")
    [[ -z $missing ]] || fail $'not measured:\n'"$missing"
    worse=$(jq -r '.results[] | select(.value != null and .recorded != null and .value > .recorded * .margin)
        | "\(.what): \(.value) \(.unit), recorded \(.recorded), margin \(.margin)"' "$json")
    [[ -z $worse ]] || fail $'worse than recorded:\n'"$worse"
}

record_figures() {
    jq '.results | map(del(.samples, .ours, .theirs) | if .value != null then .recorded = (.value * 1000 | round) / 1000 else . end
        | del(.value))' \
        "$json" | jq -r '"[\n" + (map("    " + tojson) | join(",\n")) + "\n]"' >"$work/recorded.json"
    cp -- "$work/recorded.json" "$bench_home/recorded.json"
}

parse_options "$@"
prepare
for group in ${only:-install give_up waiting memory copy flash side_by_side latency queries load size}; do
    printf 'measuring %s\n' "$group"
    "measure_$group"
done
summarise
print_table
print_parts 'the run, ms' parts
print_parts 'the shell script, ms' their_parts
! "$record" || record_figures
! "$quick" || compare_with_recorded
