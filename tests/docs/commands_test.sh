#!/usr/bin/env bash
# Runs the commands that a document shows, in their order, and compares what they print with what it shows.
# docs/contributing.md has the rules for those who write documents.
#
#   commands_test.sh BUILD_DIR DOCUMENT
#   commands_test.sh --inside WORK_DIR DOCUMENT
#
# The commands see the source tree in their working directory, with what was built as build/release, and an empty /tmp of
# their own. When the document ends, so does whatever they have left running. The second form is what runs in there.
set -uo pipefail
shopt -s extglob

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
root=$(cd -- "$here/../.." && pwd -P)

# --- outside: a place of its own ------------------------------------------------------------------------------------

make_place() {
    local entry
    rm -rf "$work"
    mkdir -p "$work"/{tree/build,tmp}
    for entry in "$root"/*; do
        [[ ${entry##*/} == build ]] || ln -s "$entry" "$work/tree/"
    done
    ln -s "$build" "$work/tree/build/release"
}

# No loop devices inside: a twin has the plain form, whoever runs this, and nothing stays behind on the host.
run_in_place() {
    bwrap --unshare-pid --die-with-parent --dev-bind / / --proc /proc --dev /dev --bind "$work/tmp" /tmp \
        --ro-bind "$root" "$root" --ro-bind "$build" "$build" --bind "$work" "$work" --chdir "$work/tree" \
        --setenv KAVRO_TWIN_PROGRAMS "$build/twin" --setenv PATH "$build/tools/upgradectl:$build/twin:$PATH" \
        --setenv LC_ALL C.UTF-8 --setenv TZ UTC --unsetenv SOURCE_DATE_EPOCH \
        -- "$0" --inside "$work" "$document"
}

if [[ $1 != --inside ]]; then
    build=$(realpath -- "$1")
    document=$(realpath -- "$2")
    name=$(basename -- "$document" .md)
    work=$build/twins/docs/$name
    trap 'chmod -R u+rwX "$work" 2>/dev/null; rm -rf "$work"' EXIT
    trap 'exit 143' TERM
    make_place
    run_in_place
    exit
fi

# --- inside ---------------------------------------------------------------------------------------------------------

work=$2
document=$3
failures=0
commands_run=0
not_run=()
command_status=0

# complain LINE TEXT
complain() {
    printf '%s:%s: %s\n' "${document#"$root"/}" "$1" "$2"
    failures=$((failures + 1))
}

# What differs from run to run is compared by its kind: times, and digests and keys as hexadecimal digits.
normalised() {
    sed -E -e 's/[[:space:]]+$//' \
        -e 's/[0-9]{4}-[0-9]{2}-[0-9]{2}/<date>/g' \
        -e 's/\b[0-9]{2}:[0-9]{2}(:[0-9]{2})?(\.[0-9]+)?\b/<time>/g' \
        -e 's/(^|[[:space:]]+)[0-9]+\.[0-9]{3}([[:space:]]|$)/ <seconds>\2/g' \
        -e 's/\b[0-9a-fA-F]{16,}\b/<digits>/g'
}

# matches SHOWN CAME: a line of three dots stands for any number of lines, three dots in a line for any text.
matches() {
    local line pattern='' newline=$'\n'
    while IFS= read -r line; do
        if [[ $line == ... ]]; then
            pattern+="?(*$newline)"
        else
            line=$(sed 's/[^A-Za-z0-9]/\\&/g; s/\\\.\\\.\\\./*([^\n])/g' <<<"$line")
            pattern+=$line$newline
        fi
    done <<<"$1"
    [[ -n $1 ]] || pattern=
    # shellcheck disable=SC2053  # a pattern it is
    [[ ${2:+$2$newline} == $pattern ]]
}

# set_status STATUS: what `$?` is for the next command.
set_status() {
    return "$1"
}

# Runs in this very shell, so that variables and directories last.
run_command() {
    exec 3>&1 4>&2 >"$work/output" 2>&1
    set_status "$command_status"
    eval "$1" </dev/null
    command_status=$?
    exec 1>&3 2>&4 3>&- 4>&-
}

# check_command LINE COMMAND SHOWN MAY_FAIL
check_command() {
    local came shown
    run_command "$2"
    commands_run=$((commands_run + 1))
    came=$(normalised <"$work/output")
    shown=$(normalised <<<"$3")
    if [[ $4 == no && $command_status != 0 ]]; then
        complain "$1" "exit code $command_status from: $2"
        sed 's/^/    /' "$work/output"
    elif ! matches "$shown" "$came"; then
        complain "$1" "the document (-) and what came (+) differ after: $2"
        diff -U 100 --label document --label came <(printf '%s\n' "$3") "$work/output" | sed '1,3d; s/^/    /'
    fi
}

# A command may fail when the next one shows its exit code.
check_commands() {
    local index may_fail
    for index in "${!command_text[@]}"; do
        may_fail=no
        # shellcheck disable=SC2016  # as it is written
        [[ ${command_text[index + 1]-} != 'echo $?' ]] || may_fail=yes
        check_command "${command_line[index]}" "${command_text[index]}" "${command_output[index]}" "$may_fail"
    done
}

# read_text: the lines up to the next keyword, which is left in `keyword`.
read_text() {
    text=
    while IFS= read -r keyword && [[ $keyword == .* ]]; do
        text+=${keyword:1}$'\n'
    done
    text=${text%%*($'\n')}
}

read_document() {
    local keyword text line rest
    while read -r keyword line rest; do
        case $keyword in
        command)
            command_line+=("$line")
            read_text
            command_text+=("$text")
            read_text
            command_output+=("$text")
            ;;
        skipped) not_run+=("line $line, commands: ${rest%% *}: ${rest#* }") ;;
        stray) complain "$line" "no test runs this; the place of a command is a console block: $rest" ;;
        esac
    done < <(awk -f "$here/console_blocks.awk" "$document")
}

# A command that ends this shell must not pass for the end of the document.
finished=no
trap '[[ $finished == yes ]] || { exec >&3; complain 0 "a command has ended the shell"; exit 1; }' EXIT

command_line=() command_text=() command_output=()
read_document
check_commands
finished=yes
printf '%s: %d commands run, %d failures\n' "${document#"$root"/}" "$commands_run" "$failures"
for reason in "${not_run[@]}"; do
    printf 'not run: %s\n' "$reason"
done
((failures == 0))
