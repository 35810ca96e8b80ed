#!/bin/sh
# The types of the Python package, as strictly as they can be checked.
set -eu
cd "$(dirname "$0")/.."
mypy --strict --cache-dir build/mypy python/filestore
