#!/bin/sh
# Builds with line counts, runs all tests, and prints the share of lines and
# branches that they reach, file by file. --html also writes build/coverage/html.
set -eu
cd "$(dirname "$0")/.."

cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete  # counts of an earlier run
ctest --preset coverage
html=""
if [ "${1:-}" = --html ]; then
    mkdir -p build/coverage/html
    html="--html-details build/coverage/html/index.html"
fi
# shellcheck disable=SC2086  # an absent option is no argument
gcovr --root . --exclude tests/ --exclude fuzz/ --exclude bench/ --exclude-throw-branches \
    $html build/coverage
