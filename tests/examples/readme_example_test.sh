#!/usr/bin/env bash
# The README's example is the file that the tests compile, line by line.
set -euo pipefail
cd -- "$1"

# shellcheck disable=SC2016  # backquotes of Markdown
shown=$(sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d')
[[ -n $shown ]] || { echo "README.md shows no C++ example" >&2 && exit 1; }
diff <(printf '%s\n' "$shown") examples/minimal_app.cpp
