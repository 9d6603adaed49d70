#!/usr/bin/env bash
# Compiles every ```cpp block of README.md and docs/*.md as a translation
# unit of its own against kel's headers. Usage: doc_samples.sh SRC_DIR CXX
set -euo pipefail
src=$1
cxx=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
n=0
for doc in "$src"/README.md "$src"/docs/*.md; do
    awk -v dir="$work" -v base="$(basename "$doc" .md)" '
        /^```cpp[[:space:]]*$/ { inside = 1; k++; file = dir "/" base "_" k ".cpp"; next }
        /^```/ { inside = 0; next }
        inside { print > file }
    ' "$doc"
done
for f in "$work"/*.cpp; do
    [ -e "$f" ] || continue
    n=$((n + 1))
    "$cxx" -std=c++17 -fsyntax-only -Wall -Wextra -Werror \
        -I"$src/events" -I"$src/util" -I"$src/log" "$f" || { echo "sample $(basename "$f") does not compile"; exit 1; }
done
echo "$n documentation samples compile"
