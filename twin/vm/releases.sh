# shellcheck shell=bash disable=SC2154
# The packages that the walks install: each of a release that really starts. Sourced by them; `host` is this machine's
# build, `target` the one for arm64, `work` where they go. With the machine and the checks, which every walk needs.

# shellcheck source=machine.sh
source "${BASH_SOURCE[0]%/*}/machine.sh"
# shellcheck source=../checks.sh
source "${BASH_SOURCE[0]%/*}/../checks.sh"

# make_package VERSION [FAULT]: WORK/VERSION.pkg of WORK/release-VERSION.
make_package() {
    # shellcheck disable=SC2046  # the four numbers of the version
    "$machine_home/make_release.sh" ${2:+--broken "$2"} "$target" "$sysroot" "$work/release-$1" $(tr . ' ' <<<"$1")
    "$host/tools/upgradectl/upgradectl" pack --output "$work/$1.pkg" --key "$work/release-key.pem" --version "$1" \
        --stamp 20261121120000 --branch main --user device "$work/release-$1" >/dev/null
}

make_key() {
    openssl genpkey -quiet -algorithm RSA -pkeyopt rsa_keygen_bits:3072 -out "$work/release-key.pem" 2>/dev/null
}

# make_stick VERSION...: a disk with these packages, which are mostly holes.
make_stick() {
    local version
    rm -rf "$work/stick" "$work/stick.img"
    mkdir "$work/stick"
    for version; do
        ln "$work/$version.pkg" "$work/stick/$version.pkg"
    done
    truncate -s $((160 * $#))M "$work/stick.img"
    mke2fs -q -t ext4 -O ^has_journal -m 0 -E root_owner=0:0 -d "$work/stick" "$work/stick.img"
    rm -rf "$work/stick"
}
