#!/usr/bin/env bash
# The libraries of an arm64 device and what is needed to build for it, from Debian's packages, in a directory of its
# own: nothing is installed on this host, and no root is needed.
#
#   arm64_sysroot.sh DIR        DIR/root is the root of the packages, DIR/kernel that of the kernel's
#
# What is there already stays, unless the list of packages has changed.
set -euo pipefail

build_packages=(libssl-dev libjsoncpp-dev libnng-dev libubootenv-dev zlib1g-dev libarchive-dev libcli11-dev libgtest-dev
    libgmock-dev)
device_packages=(busybox-static openssl tar libubootenv-tool)
kernel_package=linux-image-cloud-arm64

mkdir -p "$1"
directory=$(realpath -- "$1")
apt=$directory/apt
wanted="${build_packages[*]} ${device_packages[*]} $kernel_package"
export APT_CONFIG=$apt/apt.conf

# An apt of its own, for which nothing is installed yet: it resolves the dependencies of another architecture without
# this host's taking notice.
set_up_apt() {
    mkdir -p "$apt"/{state/lists/partial,cache/archives/partial}
    : >"$apt/status"
    cat >"$APT_CONFIG" <<CONF
APT::Architecture "arm64";
APT::Architectures { "arm64"; };
APT::Install-Recommends "false";
APT::Sandbox::User "$(id -un)";
Dir::State "$apt/state";
Dir::State::status "$apt/status";
Dir::Cache "$apt/cache";
CONF
    apt-get -q update
}

# The package that Debian's meta package stands for at present; without what it wants to be installed by.
download_kernel() {
    local package
    package=$(apt-cache depends "$kernel_package" | sed -n 's/^ *Depends: //p')
    (cd "$apt" && rm -f linux-image-*.deb && apt-get -q download "$package")
}

# unpack PACKAGE... into DIRECTORY: the last argument.
unpack() {
    local package root=${*: -1}
    rm -rf "$root"
    mkdir -p "$root"
    for package in "${@:1:$#-1}"; do
        dpkg -x "$package" "$root"
    done
}

# Links that lead to the root of a file system lead to this one's.
make_links_relative() {
    local link target
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        ln -sfnr "$1$target" "$link"
    done < <(find "$1" -type l -lname '/*' -print0)
}

# A device needs the reader of tar archives alone, of a library that is linked to readers of everything: it is linked
# statically, and what it does not use stays away.
prefer_static_archive_library() {
    rm -f "$1"/usr/lib/aarch64-linux-gnu/libarchive.so*
}

if [[ -f $directory/made-of && $(<"$directory/made-of") == "$wanted" ]]; then
    exit
fi
rm -f "$directory/made-of"
set_up_apt
apt-get -q -y --download-only install "${build_packages[@]}" "${device_packages[@]}"
download_kernel
unpack "$apt"/cache/archives/*.deb "$directory/root"
unpack "$apt"/linux-image-*.deb "$directory/kernel"
make_links_relative "$directory/root"
prefer_static_archive_library "$directory/root"
printf '%s\n' "$wanted" >"$directory/made-of"
