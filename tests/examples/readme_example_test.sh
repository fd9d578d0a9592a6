#!/usr/bin/env bash
# The README's example is the file that the tests compile, line by line, and what it links to is there.
set -euo pipefail
cd -- "$1"

# shellcheck disable=SC2016  # backquotes of Markdown
shown=$(sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d')
[[ -n $shown ]] || { echo "README.md shows no C++ example" >&2 && exit 1; }
diff <(printf '%s\n' "$shown") examples/minimal_app.cpp

for link in $(grep -o '](\([^)]*\))' README.md | tr -d ']()'); do
    [[ -f $link ]] || { echo "README.md links to $link, which does not exist" >&2 && exit 1; }
done
