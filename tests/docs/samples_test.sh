#!/usr/bin/env bash
# The test of documents finds the faults that these samples have, each of them and no other.
#
#   samples_test.sh BUILD_DIR
set -euo pipefail

build=$1
here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)

# expect SAMPLE STATUS LINE...: where the faults are.
expect() {
    local sample=$1 status=0 output lines
    output=$("$here/commands_test.sh" "$build" "$here/samples/$sample.md" 2>&1) || status=$?
    lines=$(sed -n "s,^tests/docs/samples/$sample\.md:\([0-9]*\): .*,\1,p" <<<"$output" | xargs)
    if [[ "$status $lines" != "$2 ${*:3}" ]]; then
        printf 'FAILED: %s ends with %s and finds faults in the lines %s, not %s\n%s\n' \
            "$sample" "$status" "$lines" "${*:3}" "$output" >&2
        exit 1
    fi
}

expect good 0
expect wrong_output 1 4 6 7 9 13 17 19 21 24
expect failing_command 1 4 6 8 10 0
expect nobody_runs_it 1 3 5 8 12 16 24
