#!/usr/bin/env bash
# Signs packages with a key that never leaves a token, in the ways that docs/package-format.md shows.
#
#   sign_token_test.sh BUILD_DIR
#
# Exit status 77 where there is no token to be had.
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
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

# at_token WORD...: asks the token.
at_token() {
    pkcs11-tool --module "$MODULE" --login --pin env:RELEASE_PIN "$@"
}

# make_key NAME TYPE ID: a key pair on the token, and the public half in NAME.pem.
make_key() {
    at_token --keypairgen --key-type "$2" --id "$3" --usage-sign
    at_token --read-object --type pubkey --id "$3" --output-file "$work/$1.der"
    openssl pkey -pubin -inform DER -in "$work/$1.der" -out "$work/$1.pem"
}

# packs KEY COMMAND: COMMAND signs a package that is in order and carries the public KEY.
packs() {
    rm -f "$work/camera.pkg"
    "$upgradectl" pack --public-key "$work/$1.pem" --sign-command "$2" --version 1.105.8.3 \
        --output "$work/camera.pkg" "$work/release"
    "$upgradectl" verify --trusted-key "$work/$1.pem" "$work/camera.pkg" >/dev/null
}

# refuses COMMAND TEXT: COMMAND does not get a package signed by the RSA key, for the reason in TEXT.
refuses() {
    rm -f "$work/camera.pkg"
    if "$upgradectl" pack --public-key "$work/rsa.pem" --sign-command "$1" --version 1.105.8.3 \
        --output "$work/camera.pkg" "$work/release" 2>"$work/said"; then
        printf 'a package was made by: %s\n' "$1" && exit 1
    fi
    grep -q -- "$2" "$work/said" || { cat "$work/said" && exit 1; }
    [[ ! -e $work/camera.pkg ]]
}

mkdir "$work/tokens"
printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' "$work/tokens" >"$SOFTHSM2_CONF"
softhsm2-util --init-token --free --label release --pin "$RELEASE_PIN" --so-pin 4321
make_key rsa rsa:2048 01
make_key ec EC:prime256v1 02
"$here/../../twin/demo/make_release.sh" --small "$work/release" 1 105 8 3

# shellcheck disable=SC2016  # the command's own shell takes them up
of_key='pkcs11-tool --module "$MODULE" --login --pin env:RELEASE_PIN --sign --id'
digest_info='printf "\060\061\060\015\006\011\140\206\110\001\145\003\004\002\001\005\000\004\040"'
packs rsa "$of_key 01 --mechanism SHA256-RSA-PKCS --input-file \"\$KAVRO_SIGN_FILE\""
packs rsa "{ $digest_info; cat; } | $of_key 01 --mechanism RSA-PKCS"
packs ec "$of_key 02 --mechanism ECDSA --signature-format openssl"

refuses "$of_key 02 --mechanism ECDSA --signature-format openssl" "does not verify with the public key (RSA, 2048 bits"
RELEASE_PIN=4321 refuses "$of_key 01 --mechanism SHA256-RSA-PKCS --input-file \"\$KAVRO_SIGN_FILE\"" \
    "the command that signs 'bld_release.bin' has failed"
printf 'ok\n'
