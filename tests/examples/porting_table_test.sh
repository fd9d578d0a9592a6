#!/usr/bin/env bash
# docs/porting.md has a row for every function and class that a board implements, and the skeleton has them all: what the
# headers export, but for the template that needs no library.
set -euo pipefail
cd -- "$1"

headers=(common/utility.h common/user_thread.h common/message_node.h common/flash_driver.h)
names=$(sed -nE 's/^(class )?KAVRO_EXPORT ([^(]*[ *])?([A-Za-z0-9_]+)\(.*/\3/p; s/^class KAVRO_EXPORT ([A-Za-z]+).*/\1/p' "${headers[@]}" |
    grep -vx UpgradeLib)
count=$(wc -w <<<"$names")
exported=$(cat "${headers[@]}" | grep -cE '^(class )?KAVRO_EXPORT ')
((count == exported - 1)) || { echo "of $exported exported names $count were found: $names" >&2 && exit 1; }

for name in $names; do
    grep -qE "^\|.*\b$name\b" docs/porting.md || { echo "docs/porting.md has no row for $name" >&2 && exit 1; }
    grep -q "\b$name\b" examples/board_skeleton.cpp || { echo "the skeleton lacks $name" >&2 && exit 1; }
done

# shellcheck disable=SC2016  # backquotes of Markdown
named=$(grep -oE '`(utility|node|flash)/[a-z_]+\.cpp`' docs/porting.md | tr -d '`' | sort -u)
for file in $named; do
    [[ -f platform/$file || -f tests/platform/$file ]] ||
        { echo "docs/porting.md names $file, which is not there" >&2 && exit 1; }
done
