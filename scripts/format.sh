#!/bin/sh
# Formats every C++ file in place; with --check only names those that differ
# and fails when there are any. The version is pinned: another one would format
# some lines otherwise.
set -eu
cd "$(dirname "$0")/.."

case "${1:-}" in
    "") mode="-i" ;;
    --check) mode="--dry-run --Werror" ;;
    *) echo "usage: $0 [--check]" >&2; exit 2 ;;
esac
# shellcheck disable=SC2086  # two words
find . \( -path './.?*' -o -path ./build \) -prune -o \( -name '*.h' -o -name '*.cpp' \) -print0 |
    xargs -0 clang-format-14 $mode
