#!/usr/bin/env bash
# A series must notice when its program ends otherwise than it should, and when that says less than it should. A program
# that does so on purpose stands in the place of `soak`.
#
#   series_self_test.sh BUILD_DIR
set -euo pipefail

here=$(cd -- "${BASH_SOURCE[0]%/*}" && pwd -P)
build=$(realpath -- "$1")
runs=80
missed=0

work=$(mktemp -d "$build/series_self_test.XXXXXXXX")
trap 'rm -rf -- "$work"' EXIT
mkdir -p "$work/build/tests/fault"
ln -s "$build/twin" "$work/build/twin"
cp "$build/tests/fault/libkavro_short_clock.so" "$work/build/tests/fault"

# make_soak LAST_WORDS: a program that tells the first results, and then does as the words say.
make_soak() {
    cat >"$work/build/tests/fault/soak" <<TEXT
#!/bin/bash
seed=\$3
tell() { printf '{"kind":"soak_mixed","id":"mixed:%s:%s","outcome":"installed"}\n' "\$seed" "\$1"; }
for ((i = 0; i < $runs / 2; i++)); do tell \$i; done
the_rest() { for ((; i < $runs; i++)); do tell \$i; done && tell memory; }
$1
TEXT
    chmod +x "$work/build/tests/fault/soak"
}

# try STATUS WHAT LAST_WORDS [TEXT]: the series ends with this status, and says this.
try() {
    local status=0
    make_soak "$3"
    "$here/soak_mixed.sh" --quick --build "release=$work/build" >"$work/said" 2>&1 || status=$?
    if [[ $status == "$1" ]] && grep -q -- "${4-}" "$work/said"; then
        printf 'a program that %s: exit status %d, as it should be\n' "$2" "$status"
    else
        printf 'FAILED self-test: a program that %s: exit status %d, and said was\n%s\n' "$2" "$status" "$(tail -n 5 "$work/said")"
        missed=$((missed + 1))
    fi
}

# shellcheck disable=SC2016  # the words of the program
{
    try 0 "tells everything" 'the_rest' 'tried 81, ok 81, failed 0'
    try 1 "dies within a line" 'printf "{\"kind\":\"soak_mi"; kill -SEGV $$' 'failed 4[0-9]'
    try 1 "ends early" 'exit 0' 'nobody has said whether it holds'
    try 1 "dies when all is said" 'the_rest; kill -SEGV $$' 'ended with status 139'
    try 1 "says something twice" 'the_rest; tell 3' 'one too many'
    try 1 "leaves memory behind" 'the_rest; echo "==1==ERROR: LeakSanitizer: detected memory leaks" >&2' LeakSanitizer
}
((missed == 0))
