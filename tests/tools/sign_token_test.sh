#!/usr/bin/env bash
# Signs packages with a key that never leaves a token, in the ways that docs/package-format.md shows.
#
#   sign_token_test.sh BUILD_DIR
#
# Exit status 77 where there is no token to be had.
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
build=$(realpath -- "$1")
upgradectl=$build/tools/upgradectl/upgradectl
module=/usr/lib/softhsm/libsofthsm2.so

for program in softhsm2-util pkcs11-tool; do
    command -v "$program" >/dev/null || { printf 'not run: there is no %s\n' "$program" && exit 77; }
done
[[ -e $module ]] || { printf 'not run: there is no %s\n' "$module" && exit 77; }

work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
export MODULE=$module RELEASE_PIN=1234 SOFTHSM2_CONF=$work/softhsm2.conf

# document_commands NUMBER: those of one block of the document that needs a token.
document_commands() {
    awk -v wanted="$1" '/^<!-- not run: needs a token/ { here = ++block == wanted }
        /^```$/ { here = 0 }
        here && !/^(<!--|```)/ { sub(/^\$ /, ""); print }' "$root/docs/package-format.md" | grep .
}

# runs NUMBER: the commands of that block, in a shell of their own.
runs() {
    document_commands "$1" >"$work/commands"
    (cd -- "$work" && PATH=${upgradectl%/*}:$PATH bash -euo pipefail "$work/commands")
}

# make_key TYPE: the only key on a new token.
make_key() {
    rm -rf "$work/tokens"
    mkdir "$work/tokens"
    softhsm2-util --init-token --free --label release --pin "$RELEASE_PIN" --so-pin 4321
    pkcs11-tool --module "$MODULE" --login --pin env:RELEASE_PIN --keypairgen --key-type "$1" --id 01 --usage-sign
    runs 1
}

# packs NUMBER KEY: the commands of that block make a package that is in order and signed with such a key.
packs() {
    rm -f "$work/camera.pkg"
    runs "$1" >"$work/said"
    cat "$work/said"
    grep -q "^signed    $2\$" "$work/said"
    "$upgradectl" verify --trusted-key "$work/release.pem" "$work/camera.pkg" >/dev/null
}

# refuses NUMBER TEXT: they do not, for the reason in TEXT.
refuses() {
    rm -f "$work/camera.pkg"
    if runs "$1" 2>"$work/said"; then
        printf 'a package was made by block %s\n' "$1" && exit 1
    fi
    grep -q -- "$2" "$work/said" || { cat "$work/said" && exit 1; }
    [[ ! -e $work/camera.pkg ]]
}

printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' "$work/tokens" >"$SOFTHSM2_CONF"
"$root/twin/demo/make_release.sh" --small "$work/release" 1 105 8 3

make_key EC:prime256v1
packs 2 "EC, 256 bits"
RELEASE_PIN=4321 refuses 2 "the command that signs 'bld_release.bin' has failed"
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 | openssl pkey -pubout -out "$work/release.pem"
refuses 2 "does not verify with the public key (EC, 256 bits"

make_key rsa:2048
packs 3 "RSA, 2048 bits"
[[ $(grep -c '^signed ' "$work/said") == 2 ]]
printf 'ok\n'
