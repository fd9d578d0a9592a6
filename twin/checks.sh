# shellcheck shell=bash
# What the walks through a device's life say and count. Sourced by them.

failures=0

say() {
    printf '\n== %s\n' "$*"
}

# expect WHAT ACTUAL EXPECTED
expect() {
    if [[ $2 == "$3" ]]; then
        printf '  ok    %s: %s\n' "$1" "$2"
    else
        printf '  FAIL  %s: %s, expected %s\n' "$1" "$2" "$3"
        failures=$((failures + 1))
    fi
}

# end_with_failures NAME
end_with_failures() {
    if ((failures)); then
        printf '\n%s: %d checks failed\n' "$1" "$failures" >&2
        exit 1
    fi
    printf '\n%s: every check passed\n' "$1"
}
