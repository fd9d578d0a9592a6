#!/usr/bin/env bash
# Which lines and branches of the product the tests reach: runs the tests of a build that counts, and prints a table by
# folder. `./dev coverage` calls it.
#
#   coverage.sh BUILD JOBS [CTEST_ARGUMENT...]
#   coverage.sh --report BUILD                  of what was counted before
#
# What a program counts goes to BUILD, from within an emulated device too (twin/device.sh). BUILD/report/index.html shows
# each line. Exit status 1 when a case fails, or when a folder is below what `required` asks of it.
set -euo pipefail
cd -- "${BASH_SOURCE[0]%/*}/../.."

# Per cent of the lines of each folder, with all that is below it.
required='{"agent": 95, "common": 95, "base": 95, "package": 95, "upgrade": 95, "platform": 95, "tools": 90, "twin/emulator": 90}'

# Documents and installed copies are tried with the same programs as everything else, on devices that have no way out.
beside_the_point='^(docs|docs_texts|install|parent_project|porting|readme|verify)\.'

# What is left of sources as they were, and of objects that are made no more, does not agree with the others.
forget_old_notes() {
    local notes
    ninja -C "$build" -t cleandead >/dev/null
    while IFS= read -r -d '' notes; do
        [[ -f ${notes%.gcno}.o ]] || rm -- "$notes"
    done < <(find "$build" -name '*.gcno' -print0)
}

run_cases() {
    find "$build" -name '*.gcda' -delete
    rm -rf "$build/twins"
    KAVRO_COVERAGE=$build ctest --test-dir "$build" --parallel "$jobs" --output-on-failure --no-tests=error \
        -E "$beside_the_point" "$@" </dev/null
}

# Branches that only an exception takes, which the compiler puts behind every call, tell nothing.
count() {
    forget_old_notes
    mkdir -p "$build/report"
    gcovr --root . --filter '(agent|common|base|package|upgrade|platform|tools|twin/emulator)/' --exclude-throw-branches \
        -j "$(nproc)" --json-summary "$build/report/summary.json" --html-details "$build/report/index.html" \
        --html-title 'What the tests reach' "$build"
}

# table: a line for each folder of which something is required, and for each folder with sources: folder, lines covered
# and all, branches covered and all, per cent required.
table() {
    jq -r --argjson required "$required" '
        def sums: [map(.line_covered), map(.line_total), map(.branch_covered), map(.branch_total)] | map(add);
        [.files[] | . + {folder: (.filename | sub("/[^/]*$"; ""))}] as $files
        | [$files[].folder] + ($required | keys) | unique[] as $folder
        | [$folder] + ($files | map(select(.folder + "/" | startswith($folder + "/"))) | sums) + [$required[$folder] // "-"]
        | @tsv' "$build/report/summary.json"
}

# print_table: fails when a folder has less than required.
print_table() {
    local folder lines all_lines branches all_branches least missed result=0
    printf '%-20s %16s %8s %18s %9s\n' folder lines '' branches required
    while IFS=$'\t' read -r folder lines all_lines branches all_branches least; do
        missed=
        if [[ $least != - ]] && ((lines * 100 < all_lines * least || !all_lines)); then
            missed=' missed' result=1
        fi
        printf '%-20s %6d of %6d %6s %% %6d of %6d %9s%s\n' "$folder" "$lines" "$all_lines" \
            "$(share "$lines" "$all_lines")" "$branches" "$all_branches" "$least" "$missed"
    done < <(table)
    printf '%s\n' "$build/report/index.html"
    return "$result"
}

# share PART WHOLE: in per cent, with one decimal, never rounded up.
share() {
    printf '%d.%d' $(($1 * 100 / ($2 ? $2 : 1))) $(($1 * 1000 / ($2 ? $2 : 1) % 10))
}

result=0
if [[ $1 == --report ]]; then
    build=$(realpath -- "$2")
else
    build=$(realpath -- "$1") jobs=$2
    run_cases "${@:3}" || result=1
fi
count
print_table || result=1
exit "$result"
