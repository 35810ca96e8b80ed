#!/bin/bash
# Runs clang-tidy over the sources, two at a time; any finding fails. The product gets all
# checks of .clang-tidy; tests, fuzz targets and benchmarks only what clang itself warns
# of, without headers that are precompiled elsewhere. Needs the compilation commands of
# the `dev` preset and makes them when they are missing.
#
#   scripts/tidy.sh              all sources but those of tests: four builds have them
#   scripts/tidy.sh --changed    those that differ from the branch `main`, also of tests
#   scripts/tidy.sh FILE...      these files, with all checks
set -euo pipefail
cd "$(dirname "$0")/.."

[ -f build/dev/compile_commands.json ] || cmake --preset dev >/dev/null
tidy() { xargs -r -P 2 -n 1 clang-tidy-14 -p build/dev --quiet "$@"; }
others='^(tests|fuzz|bench)/'

case "${1:-}" in
    # What is compiled: a source for another system or program is none of it.
    "") files=$(sed -n "s|^ *\"file\": \"$PWD/\(.*\.cpp\)\".*|\1|p" build/dev/compile_commands.json |
                    grep -v '^tests/' | sort -u) ;;
    --changed) files=$(git diff --name-only --diff-filter=d main -- '*.cpp') ;;
    *) printf '%s\n' "$@" | tidy; exit ;;
esac
# Of either kind there may be none.
{ grep -vE "$others" <<<"$files" || true; } | tidy
# The last check needs nothing but the preprocessor; with none clang-tidy does not begin.
{ grep -E "$others" <<<"$files" || true; } | tidy --checks='-*,clang-diagnostic-*,readability-duplicate-include'
