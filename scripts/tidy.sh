#!/bin/bash
# Runs clang-tidy over the product's sources, two at a time; any finding fails.
# Needs the compilation commands of the `dev` preset and makes them when they
# are missing.
#
#   scripts/tidy.sh              all product code
#   scripts/tidy.sh --changed    only the sources that differ from the branch `main`
#   scripts/tidy.sh FILE...      these files
set -euo pipefail
cd "$(dirname "$0")/.."

case "${1:-}" in
    "") files=$(find . \( -path './.?*' -o -path ./build -o -path ./tests -o -path ./fuzz \
                          -o -path ./bench \) -prune -o -name '*.cpp' -print) ;;
    --changed) files=$(git diff --name-only --diff-filter=d main -- \
                           '*.cpp' ':!tests' ':!fuzz' ':!bench') ;;
    *) files=$(printf '%s\n' "$@") ;;
esac
[ -f build/dev/compile_commands.json ] || cmake --preset dev >/dev/null
xargs -r -P 2 -n 1 clang-tidy-14 -p build/dev --quiet <<<"$files"
