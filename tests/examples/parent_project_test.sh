#!/usr/bin/env bash
# A project that takes the tree in gets the library and its include root, and neither tools nor tests; nor does it
# install anything of it.
#
#   parent_project_test.sh WORK_DIR
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
work=$1
rm -rf "$work"
trap 'rm -rf "$work"' EXIT
cmake -S "$here/parent_project" -B "$work" -G Ninja -DKAVRO_ROOT="$(dirname "$(dirname "$here")")"
cmake --build "$work" --target camera
cmake --install "$work" --prefix "$work/prefix"
[[ ! -e $work/prefix ]] || { echo "something is installed although nobody asked for it" >&2 && exit 1; }
