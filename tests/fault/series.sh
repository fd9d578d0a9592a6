# shellcheck shell=bash disable=SC2154,SC2034
# What the scripts share that make long series on twins: their options, one process after the other on a device of
# its own, several side by side, and the count of what came of it. Sourced; the script sets `name`.
#
# Results are lines of JSON: {"kind", "id", "outcome"}, and "why" where the outcome is "failed".

fault_home=$(cd -- "${BASH_SOURCE[0]%/*}" && pwd -P)
tree=$(cd -- "$fault_home/../.." && pwd -P)

usage() {
    cat <<TEXT
usage: tests/fault/$name.sh [--quick|--full] [--only ID] [--json FILE] [--seed N] [--jobs N] [--build NAME=DIR]...
              [--in NAME]

--quick   the selection that goes with every change (the default); --full, everything
--only    only the one with that id, as a failure names it
--json    also writes the results to FILE, a line each
--seed    the first seed; drawn by chance unless given
--jobs    how many run side by side
--in      only in that build, where there are several: release, asan, tsan
--build   where a build is that is not in build/NAME: release, asan, tsan
TEXT
}

misuse() {
    printf '%s: %s\n' "$name" "$1" >&2
    usage >&2
    exit 2
}

not_run() {
    printf '%s: not run: %s\n' "$name" "$1"
    unmade=true
}

# parse_options "$@": sets extent, only, json, seed, jobs, in and builds.
parse_options() {
    extent=quick only='' json='' seed=$((RANDOM * 1000)) jobs='' in='' unmade=false
    declare -gA builds=([release]=build/release [asan]=build/asan [tsan]=build/tsan)
    while (($#)); do
        case $1 in
        --quick | --full)
            extent=${1#--}
            shift
            continue
            ;;
        --help)
            usage
            exit 0
            ;;
        esac
        [[ $# -ge 2 ]] || misuse "$1 needs a value"
        case $1 in
        --only | --json | --seed | --jobs | --in) printf -v "${1#--}" '%s' "$2" ;;
        --build) builds[${2%%=*}]=${2#*=} ;;
        *) misuse "unknown option '$1'" ;;
        esac
        shift 2
    done
}

# prepare: what every series needs. The twins are on disk: /tmp may be memory.
prepare() {
    cd "$tree" || exit 1
    local build
    for build in "${!builds[@]}"; do
        builds[$build]=$(realpath -m -- "${builds[$build]}")
    done
    if ! bwrap --ro-bind / / --unshare-pid --proc /proc --dev /dev -- true 2>/dev/null; then
        not_run "bwrap cannot make name spaces here"
        exit 77
    fi
    [[ -x ${builds[release]}/twin/mcu-emulator ]] || {
        not_run "${builds[release]}/twin/mcu-emulator is missing: ./dev build makes it"
        exit 77
    }
    export KAVRO_TWIN_PROGRAMS=${builds[release]}/twin
    work=$(mktemp -d "${builds[release]}/$name.XXXXXXXX")
    results=$work/results
    : >"$results"
    trap 'rm -rf -- "$work"' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
}

# has_program BUILD PROGRAM: it is there, and wanted.
has_program() {
    [[ -z $in || $in == "$1" ]] || return 1
    [[ -x ${builds[$1]}/tests/fault/$2 ]] && return
    not_run "$1: ${builds[$1]}/tests/fault/$2 is missing"
    return 1
}

# build_environment BUILD SPEED: what stands in the environment of a program of that build. The shortened clock does not mix with
# the sanitizers.
build_environment() {
    case $1 in
    release) printf '%s\n' "LD_PRELOAD=${builds[release]}/tests/fault/libkavro_short_clock.so" "KAVRO_CLOCK_SPEED=$2" ;;
    asan) printf '%s\n' "ASAN_OPTIONS=use_sigaltstack=0:detect_stack_use_after_return=1" ;;
    tsan) printf '%s\n' "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1" ;;
    esac
}

# record KIND ID OUTCOME [WHY]
record() {
    jq -cn --arg kind "$1" --arg id "$2" --arg outcome "$3" --arg why "${4-}" \
        '{$kind, $id, $outcome} + if $why == "" then {} else {$why} end'
}

# make_process LABEL BUILD SPEED PROGRAM [ARGUMENT...]: one process on a device of its own. Its results get BUILD in front
# of their ids. A process that ends badly without having said of what is a failure of its own; what it and the sanitizers
# said is in its text.
make_process() {
    local label=$1 build=$2 speed=$3 dir=$work/$1.$2 settings code=0 said
    mapfile -t settings < <(build_environment "$build" "$speed")
    mkdir -p "$dir"
    twin/twin create "$dir/device" --plain >"$dir/errors" 2>&1 || return 1
    env "${settings[@]}" nice setarch -R twin/twin run "$dir/device" --visible "${builds[$build]}" -- \
        "${builds[$build]}/tests/fault/$4" "${@:5}" >"$dir/lines" 2>>"$dir/errors" || code=$?
    {
        jq -c --arg build "$build" '.id = $build + ":" + .id' "$dir/lines"
        if ((code)) && ! grep -q '"outcome":"failed"' "$dir/lines"; then
            said=$(grep -E -A 25 'ERROR: |WARNING: |terminate|runtime error' "$dir/errors" | head -c 4000)
            record "$name" "$build:$label:$(($(wc -l <"$dir/lines")))" failed \
                "the process ended with status $code; ${said:-$(tail -n 3 "$dir/errors")}"
        fi
    } >"$dir/checked"
    # shellcheck disable=SC2016  # the words of the inner shell
    flock "$results" sh -c 'cat "$1" >>"$2"' sh "$dir/checked" "$results"
    twin/twin remove "$dir/device"
}

# side_by_side JOBS: reads lines of arguments of make_process and makes them.
side_by_side() {
    local line running=0 words
    while read -r line; do
        if ((running == $1)); then
            wait -n
            running=$((running - 1))
        fi
        read -ra words <<<"$line"
        make_process "${words[@]}" </dev/null &
        running=$((running + 1))
    done
    wait
}

# conclude: tells what was tried and ends the script.
conclude() {
    local tried failed
    [[ -z $json ]] || cp -- "$results" "$json"
    tried=$(wc -l <"$results")
    failed=$(jq -r 'select(.outcome == "failed") | .id' "$results" | wc -l)
    jq -r 'select(.outcome == "failed") | "FAILED --only \(.id): \(.why)"' "$results"
    jq -r '"\(.id | split(":")[0]): \(.outcome | split(",")[0])"' "$results" | sort | uniq -c |
        sed 's/^ *\([0-9]*\) \(.*\)$/  \2: \1/'
    printf '%s: tried %d, ok %d, failed %d\n' "$name" "$tried" "$((tried - failed))" "$failed"
    ((failed == 0)) || exit 1
    "$unmade" && exit 77
    ((tried > 0)) || exit 1
    exit 0
}
