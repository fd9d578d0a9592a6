#!/usr/bin/env bash
# Makes the Debian packages in build/packages and looks them over. `./dev package` calls it.
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."

build=$PWD/build/package
packages=$PWD/build/packages

# The same sources give the same packages: their date is that of the changelog.
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l packaging/changelog -S Timestamp)
export SOURCE_DATE_EPOCH
version=$(dpkg-parsechangelog -l packaging/changelog -S Version)
umask 022

export DEB_BUILD_MAINT_OPTIONS=hardening=+all
flags=$(dpkg-buildflags --get CXXFLAGS)
cmake -S . -B "$build" -G Ninja -Wno-dev \
    -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_CXX_FLAGS="$flags $(dpkg-buildflags --get CPPFLAGS) -ffile-prefix-map=$PWD=." \
    -DCMAKE_SHARED_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)" \
    -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)" \
    -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_INSTALL_DOCDIR=share/doc/libkavro-upgrade-dev \
    -DKAVRO_DEBIAN=ON -DKAVRO_BUILD_TESTS=OFF -DKAVRO_WARNINGS_AS_ERRORS=ON
grep -qx "CMAKE_PROJECT_VERSION:STATIC=$version" "$build/CMakeCache.txt" ||
    { echo "packaging/changelog is of version $version, CMakeLists.txt is not" >&2 && exit 1; }
cmake --build "$build"

rm -rf "$packages"
(cd "$build" && cpack -B "$packages")
rm -rf "$packages/_CPack_Packages"

# CPack has scripts call ldconfig where dpkg has a trigger for it.
libraries=$(echo "$packages"/libkavro-upgrade1_*.deb)
dpkg-deb --raw-extract "$libraries" "$packages/libraries"
rm "$packages"/libraries/DEBIAN/post{inst,rm}
echo "activate-noawait ldconfig" >"$packages/libraries/DEBIAN/triggers"
dpkg-deb --root-owner-group --build "$packages/libraries" "$libraries" >/dev/null
rm -r "$packages/libraries"

lintian --allow-root --display-info --fail-on error,warning,info \
    --suppress-tags-from-file packaging/lintian.txt "$packages"/*.deb
ls -l "$packages"
