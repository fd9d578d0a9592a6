#!/usr/bin/env bash
# The borders of the house: reads every #include of a tree and names, with file and line, each that a room may not have.
#
#   borders.sh TREE
#   borders.sh --self-check     each forbidden include must be found in a sample tree, and nothing in one without
set -euo pipefail

# What a room may include, itself aside. common/ is what all of them agree on. upgrade/ knows the services by their
# declarations alone, since a maker's own libraries may be behind them.
declare -A may=(
    [common]=""
    [base]="common"
    [package]="base common"
    [upgrade]="common"
    [platform]="base common"
    [agent]="upgrade package base common"
    [tools]="agent package upgrade base common"
    [twin]="platform base common"
    [examples]="agent package upgrade common"
)

# includes_of ROOM: lines of file:line:path.
includes_of() {
    grep -rnE --include='*.h' --include='*.cpp' '^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]' "$1" |
        sed -E 's/^([^:]*:[0-9]+):[^"<]*["<]([^">]*)[">].*/\1:\2/' || true
}

# fault_of ROOM FILE PATH: why it may not be there; nothing for one that may.
fault_of() {
    local room=$1 file=$2 path=$3 other=${3%%/*}
    if [[ /$path/ == */../* ]]; then
        echo "leads upwards; paths begin at the top"
    elif [[ -z ${may[$other]+known} || $other == "$path" ]]; then
        return 0 # of the system, or made by the build
    elif [[ $other != "$room" && $path == */internal* ]]; then
        echo "is internal to $other/"
    elif [[ $other != "$room" && " ${may[$room]} " != *" $other "* ]]; then
        echo "leads from $room/ to $other/"
    fi
}

check() {
    local room file line path fault result=0
    cd -- "$1"
    for room in "${!may[@]}"; do
        [[ -d $room ]] || continue
        while IFS=: read -r file line path; do
            fault=$(fault_of "$room" "$file" "$path")
            if [[ -n $fault ]]; then
                printf '%s:%s: #include "%s" %s\n' "$file" "$line" "$path" "$fault"
                result=1
            fi
        done < <(includes_of "$room")
    done
    return "$result"
}

# --- self-check -------------------------------------------------------------------------------------------------------

die() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# expect_fault FILE INCLUDE: in a tree that has nothing else.
expect_fault() {
    local work said
    work=$(mktemp -d)
    mkdir -p "$work/${1%/*}"
    printf '// A sample.\n%s\n' "$2" >"$work/$1"
    ! said=$(check "$work") || die "$2 in $1 is not found"
    [[ $said == "$1:2: "* ]] || die "$2 in $1 is told as: $said"
    rm -r "$work"
}

self_check() {
    local room other work
    for room in "${!may[@]}"; do
        for other in "${!may[@]}"; do
            [[ $other == "$room" || " ${may[$room]} " == *" $other "* ]] ||
                expect_fault "$room/deep/sample.h" "#include \"$other/some.h\""
        done
    done
    expect_fault upgrade/sample.cpp '  #  include <platform/some.h>'
    expect_fault tools/sample.cpp '#include "package/internal/some.h"'
    expect_fault agent/sample.cpp '#include "upgrade/internal.h"'
    expect_fault base/sample.cpp '#include "../platform/some.h"'

    work=$(mktemp -d)
    mkdir "$work/package" "$work/upgrade"
    printf '#include "package/internal/some.h"\n#include "base/some.h"\n#include <string>\n' >"$work/package/sample.h"
    printf '#include "common/some.h"\n// #include "platform/some.h"\n' >"$work/upgrade/sample.cpp"
    check "$work" || die "a tree in order is not taken"
    rm -r "$work"
    echo "every forbidden include is found"
}

case $1 in
--self-check) self_check ;;
*) check "$1" ;;
esac
