#!/bin/sh
# Runs clang-tidy over the product's sources, two at a time; any finding fails.
# Needs the compilation commands of the `dev` preset and makes them when they
# are missing.
#
#   scripts/tidy.sh              all product code
#   scripts/tidy.sh --changed    only what differs from the branch `main`
#   scripts/tidy.sh FILE...      these files
set -eu
cd "$(dirname "$0")/.."

product="os cmn client store service host modules fstore"
case "${1:-}" in
    "") files=$(git ls-files --cached --others --exclude-standard $product) ;;
    --changed) files=$(git diff --name-only --diff-filter=d main -- $product) ;;
    *) files="$*" ;;
esac
[ -f build/dev/compile_commands.json ] || cmake --preset dev >/dev/null
printf '%s\n' "$files" | grep '\.cpp$' | xargs -r -P 2 -n 1 \
    clang-tidy-14 -p build/dev --quiet
