#!/bin/sh
# What a change must pass beside its tests, cheapest first. CI runs the same.
set -eu
cd "$(dirname "$0")/.."

scripts/format.sh --check
scripts/check_layers.py
scripts/check_groups.py
scripts/check_paths.py
scripts/check_shell.sh
scripts/check_headers.py
scripts/check_python.sh
scripts/tidy.py "$@"
