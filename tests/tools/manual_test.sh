#!/usr/bin/env bash
# The manual pages and the completion that the build makes of the description of the command line.
#
#   manual_test.sh MAKE_MANUAL UPGRADECTL
set -euo pipefail

make_manual=$1 upgradectl=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

die() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# --- pages ------------------------------------------------------------------------------------------------------------

# page NAME: as a reader sees it.
page() {
    MANWIDTH=200 man --warnings -E UTF-8 -l "$work/manual/man1/$1.1" 2>"$work/warnings" | col -b
    [[ ! -s $work/warnings ]] || die "$1: $(cat "$work/warnings")"
}

# has_options PAGE HELP: all of them.
has_options() {
    local option
    while read -r option; do
        [[ $1 == *"$option"* ]] || die "a page lacks $option"
    done < <(grep -oE '^  [^ ]*--[a-z-]+' <<<"$2" | grep -oE -- '--[a-z-]+')
}

unset SOURCE_DATE_EPOCH
"$make_manual" "$work/manual" 1.2.3 2026-03-04
main_page=$(page upgradectl)
[[ $main_page == *2026-03-04* && $main_page == *"kavro-upgrade 1.2.3"* ]] || die "date or version is missing"
for section in NAME SYNOPSIS DESCRIPTION COMMANDS OPTIONS "EXIT STATUS" FILES "SEE ALSO"; do
    grep -qx "$section" <<<"$main_page" || die "upgradectl(1) lacks $section"
done

help=$("$upgradectl" --help)
mapfile -t commands < <(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\).*/\1/p' <<<"$help")
((${#commands[@]} >= 9)) || die "the help lists ${#commands[@]} commands"
for command in "${commands[@]}"; do
    text=$(page "upgradectl-$command")
    grep -q "^ *upgradectl $command" <<<"$text" || die "upgradectl-$command(1) lacks its synopsis"
    for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" EXAMPLES "SEE ALSO"; do
        grep -qx "$section" <<<"$text" || die "upgradectl-$command(1) lacks $section"
    done
    has_options "$text" "$("$upgradectl" "$command" --help)"
    [[ $main_page == *"upgradectl-$command(1)"* ]] || die "upgradectl(1) does not refer to $command"
done
has_options "$(page upgradectl-twin)" "$("$upgradectl" twin run --help)"

"$make_manual" "$work/again" 1.2.3 2026-03-04
diff -r "$work/manual" "$work/again"
SOURCE_DATE_EPOCH=0 "$make_manual" "$work/again" 1.2.3 2026-03-04
grep -q '^\.TH UPGRADECTL 1 1970-01-01 ' "$work/again/man1/upgradectl.1" || die "SOURCE_DATE_EPOCH is not heeded"

# --- completion -------------------------------------------------------------------------------------------------------

# shellcheck source=/dev/null
source "$work/manual/upgradectl"
[[ $(complete -p upgradectl) == "complete -o default -F _upgradectl upgradectl" ]] || die "$(complete -p upgradectl)"

# completes EXPECTED WORD...: the last word is the one that is begun.
completes() {
    local expected=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    _upgradectl || true # outside of a completion there are no options of one
    [[ ${COMPREPLY[*]-} == "$expected" ]] || die "'$*' gives '${COMPREPLY[*]-}', not '$expected'"
}

completes "activate" upgradectl ac
completes "${commands[*]}" upgradectl ""
completes "--output" upgradectl pack --o
completes "--consume" upgradectl status --cons
completes "show" upgradectl twin sh
completes "--digests" upgradectl twin show camera --d
completes "" upgradectl twin run camera -- --h     # the device's command is not ours
completes "" upgradectl install ""                 # file names, by bash itself
completes "" upgradectl pack --key ""
mkdir "$work/new release"
cd "$work"
completes "new release" upgradectl pack ne
completes "new release" upgradectl twin create camera --components ne
completes "new release" upgradectl twin create camera --components = ne
completes "" upgradectl watch --count ""
