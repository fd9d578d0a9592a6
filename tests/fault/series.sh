# shellcheck shell=bash disable=SC2154,SC2034
# What the scripts share that make long series on twins: their options, one process after the other on a device of
# its own, several side by side, and the count of what came of it. Sourced; the script sets `name`.
#
# The script says with `ids_of ARGUMENT...` which results a process of its program must bring.

# shellcheck source=results.sh
source "${BASH_SOURCE[0]%/*}/results.sh"
fault_home=$(cd -- "${BASH_SOURCE[0]%/*}" && pwd -P)
tree=$(cd -- "$fault_home/../.." && pwd -P)

usage() {
    cat <<TEXT
usage: tests/fault/$name.sh [--quick|--full] [--only ID] [--json FILE] [--seed N] [--jobs N] [--build NAME=DIR]...
              [--in NAME]

--quick   the selection that goes with every change (the default); --full, everything
--only    only the one with that id, as a failure names it
--json    also writes the results to FILE, a line each
--seed    what is drawn is drawn from it, a number or any text; the commit's id unless given
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

# parse_options "$@": sets extent, only, json, seed, jobs, in and builds. The words of seed are those that were given.
parse_options() {
    extent=quick only='' json='' seed=$(commit_seed) jobs='' in='' unmade=false
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
    begin_results "$work"
    printf '%s: drawn from %s\n' "$name" "$seed"
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

# make_process LABEL BUILD SPEED PROGRAM [ARGUMENT...]: one process on a device of its own. Its results get BUILD in front
# of their ids.
make_process() {
    local label=$1 build=$2 speed=$3 dir=$work/$1.$2 settings code=0
    mapfile -t settings < <(build_environment "$build" "$speed")
    mkdir -p "$dir"
    twin/twin create "$dir/device" --plain >"$dir/errors" 2>&1
    env "${settings[@]}" nice setarch -R twin/twin run "$dir/device" --visible "${builds[$build]}" -- \
        "${builds[$build]}/tests/fault/$4" "${@:5}" >"$dir/lines" 2>>"$dir/errors" || code=$?
    take_results "$dir" "$build"
    judge_process "$dir" "$build:$label" "$code"
    twin/twin remove "$dir/device"
}

# take_results DIRECTORY BUILD: whole lines. What a process was about to say when it died is no result.
take_results() {
    jq -cR --arg build "$2" 'fromjson? | select(type == "object" and has("id")) | .id = $build + ":" + .id' "$1/lines" \
        >"$1/taken"
    append "$results" "$(<"$1/taken")"
}

# judge_process DIRECTORY LABEL STATUS: it ends with 0, or with 1 when it has said what failed, and without a word of the
# sanitizers. Otherwise the suite has failed, whatever the process had said before.
judge_process() {
    local expected=0 said
    ! grep -q '"outcome":"failed"' "$1/taken" || expected=1
    said=$(grep -E -A 25 'ERROR: |WARNING: ThreadSanitizer|terminate called|runtime error: ' "$1/errors" | head -c 4000) || true
    [[ $3 != "$expected" || -n $said ]] || return 0
    fail_suite "$2: the process ended with status $3 after $(wc -l <"$1/taken") results; ${said:-$(tail -n 3 "$1/errors")}"
}

# side_by_side JOBS: reads lines of arguments of make_process and makes them.
side_by_side() {
    local line words jobs=$1 lines
    mapfile -t lines
    for line in "${lines[@]}"; do
        read -ra words <<<"$line"
        select_id "$(ids_of "${words[@]:4}" | sed "s/^/${words[1]}:/")"
        in_parallel make_process "${words[@]}" </dev/null
    done
    await_children
}

# soak_ids SERIES --seed SEED --runs N | SERIES --seed SEED --index I: what `soak` tells with these arguments.
soak_ids() {
    local i
    if [[ $4 == --index ]]; then
        for ((i = 0; i < 10; i++)); do
            printf '%s:%s:%s\n' "$1" "$3" "$5"
        done
        return
    fi
    for ((i = 0; i < $5; i++)); do
        printf '%s:%s:%d\n' "$1" "$3" "$i"
    done
    printf '%s:%s:memory\n' "$1" "$3"
}

# conclude: tells what was tried and ends the script.
conclude() {
    local status=0
    jq -r '"\(.id | split(":")[0]): \(.outcome | split(",")[0])"' "$results" | sort | uniq -c |
        sed 's/^ *\([0-9]*\) \(.*\)$/  \2: \1/'
    conclude_results || status=1
    ((status != 0)) || ! "$unmade" || status=77
    exit $status
}
