#!/usr/bin/env bash
# The example of docs/package-format.md is the file that is compiled, line by line, and it tells a package of the trusted
# key from one of another, and from what is no package.
#
#   check_package_test.sh BUILD_DIR CHECK_PACKAGE
set -euo pipefail

build=$1 check_package=$2
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
work=$build/twins/check_package

die() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# expect STATUS LINE ARGUMENT...: the example ends like that, and the line is among what it says.
expect() {
    local status=0 said
    said=$("$check_package" "${@:3}" 2>&1) || status=$?
    [[ $status == "$1" ]] || die "for ${*:3} it ends with $status, not $1: $said"
    grep -qF -- "$2" <<<"$said" || die "for ${*:3} it says: $said"
}

rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT
# shellcheck disable=SC2016  # backquotes of Markdown
diff <(sed -n '/^```cpp$/,/^```$/p' "$root/docs/package-format.md" | sed '1d;$d') "$root/examples/check_package.cpp"

for name in ours others; do
    openssl genpkey -quiet -algorithm RSA -out "$work/$name.key"
    openssl pkey -in "$work/$name.key" -pubout -out "$work/$name.pem"
done
"$root/twin/demo/make_release.sh" "$work/release" 1 105 8 3
"$build/tools/upgradectl/upgradectl" pack --output "$work/release.pkg" --key "$work/ours.key" --version 1.105.8.3 \
    "$work/release" >"$work/said.txt"

expect 0 "V01.105.008.003, signed with RSA, 2048 bits" "$work/release.pkg" "$work/ours.pem"
expect 0 "Image: in order" "$work/release.pkg" "$work/ours.pem"
expect 1 "fault: the package does not carry the trusted key" "$work/release.pkg" "$work/others.pem"
expect 2 "refused: the package '$work/ours.key' has" "$work/ours.key" "$work/ours.pem"
expect 2 "usage: the trusted key '$work/nowhere' cannot be read" "$work/release.pkg" "$work/nowhere"
expect 2 "usage: check_package" "$work/release.pkg"
