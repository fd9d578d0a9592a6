#!/usr/bin/env bash
# Makes what is made of the sources: the reference of the interfaces, build/docs/html, and the diagrams, build/docs/*.svg.
# Fails for an interface without its contract, and for a diagram beside these documents that is not the one drawn now.
# `./dev docs` calls it.
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."

# Which nodes and edges a drawing has, and what is written in it. Where it is placed differs between versions of dot.
content_of() {
    sed -n -e 's,.*\(<title>.*</title>\).*,\1,p' -e 's,.*<text [^>]*>\(.*\)</text>.*,\1,p' "$1"
}

draw() {
    local source=$1 shown=${1%.dot}.svg drawn
    drawn=build/docs/$(basename -- "$shown")
    dot -Tsvg "$source" -o "$drawn"
    if ! diff <(content_of "$shown") <(content_of "$drawn"); then
        printf '%s is not what %s says (> is new): cp %s %s\n' "$shown" "$source" "$drawn" "$shown" >&2
        return 1
    fi
}

mkdir -p build/docs
for source in docs/*.dot; do
    draw "$source"
done
rm -rf build/docs/html
doxygen docs/Doxyfile
printf 'build/docs/html/index.html\n'
