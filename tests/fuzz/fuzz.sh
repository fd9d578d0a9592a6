#!/usr/bin/env bash
# Runs fuzz targets, each in a name space of its own in which nothing of this host can be changed but BUILD/fuzz.
#
#   fuzz.sh BUILD TARGET SECONDS [JOBS]  TARGET may be `all`, then JOBS of them side by side (1)
#   fuzz.sh BUILD TARGET --keep          adds to corpus/TARGET what was found to lead somewhere else, as few as possible
#
# A finding ends the target's run and stays in BUILD/fuzz/findings; exit 1 then.
set -euo pipefail

here=$(cd -- "${BASH_SOURCE[0]%/*}" && pwd -P)
root=$(cd -- "$here/../.." && pwd -P)
build=$(realpath -- "$1")
target=$2
what=$3
jobs=${4:-1}
most_kept_bytes=2048

targets() {
    if [[ $target != all ]]; then
        [[ -f $here/${target}_fuzz.cpp ]] || { printf "fuzz.sh: there is no target '%s'\n" "$target" >&2 && exit 2; }
        printf '%s\n' "$target"
        return
    fi
    local file
    for file in "$here"/*_fuzz.cpp; do
        file=${file##*/}
        printf '%s\n' "${file%_fuzz.cpp}"
    done
}

# The device's paths lie in memory here.
enclosed() {
    bwrap --ro-bind / / --dev /dev --proc /proc --tmpfs /tmp --tmpfs /run --dir /run/lock \
        --ro-bind "$root" "$root" --bind "$build/fuzz" "$build/fuzz" --unshare-pid --die-with-parent -- \
        env ASAN_OPTIONS=detect_stack_use_after_return=1:detect_leaks=1 \
        UBSAN_OPTIONS=print_stacktrace=1 "$@"
}

# inputs NAME: the directories that hold some.
inputs() {
    local kind
    for kind in corpus regressions; do
        [[ ! -d $here/$kind/$1 ]] || printf '%s\n' "$here/$kind/$1"
    done
}

fuzz() {
    local name=$1 found=$build/fuzz/corpus/$1 known last
    mapfile -t known < <(inputs "$name")
    mkdir -p "$found" "$build/fuzz/findings"
    enclosed "$build/tests/fuzz/${name}_fuzz" -max_total_time="$what" -timeout=20 -rss_limit_mb=1024 -max_len=8192 \
        -print_final_stats=1 -verbosity=1 -reload=0 \
        -artifact_prefix="$build/fuzz/findings/$name-" "$found" "${known[@]}" >"$build/fuzz/$name.log" 2>&1 || {
        printf '== %s\n%s\nthe input lies in %s\n' "$name" "$(tail -n 30 "$build/fuzz/$name.log")" "$build/fuzz/findings"
        return 1
    }
    # #N DONE cov: N ft: N corp: N/N lim: N exec/s: N rss: N
    last=$(grep -aw DONE "$build/fuzz/$name.log")
    printf '== %s, %s s\n%s\n' "$name" "$what" "$last"
}

keep() {
    local name=$1 kept=$build/fuzz/kept/$1 known
    mapfile -t known < <(inputs "$name")
    rm -rf "$kept"
    mkdir -p "$kept"
    cp -- "${known[0]}"/* "$kept"
    enclosed "$build/tests/fuzz/${name}_fuzz" -merge=1 -use_counters=0 -max_len="$most_kept_bytes" "$kept" "$build/fuzz/corpus/$name" \
        >"$build/fuzz/$name.merge.log" 2>&1
    cp -n -- "$kept"/* "${known[0]}"
    printf '%s: %s inputs, %s bytes\n' "$name" "$(find "${known[0]}" -type f | wc -l)" \
        "$(cat "${known[0]}"/* | wc -c)"
}

# fuzz_all NAME...: no more side by side than asked for.
fuzz_all() {
    local name started=0 failed=0
    for name; do
        ((started++ < jobs)) || wait -n || failed=$((failed + 1))
        fuzz "$name" &
    done
    for ((started = $# < jobs ? $# : jobs; started > 0; started--)); do
        wait -n || failed=$((failed + 1))
    done
    printf '%d targets, %d failed\n' $# "$failed"
    ((!failed))
}

mapfile -t names < <(targets)
((${#names[@]})) || exit 2
if [[ $what == --keep ]]; then
    for name in "${names[@]}"; do
        keep "$name"
    done
else
    fuzz_all "${names[@]}"
fi
