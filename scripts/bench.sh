#!/bin/bash
# Measures the store beside a plain program that makes the same calls, and beside
# SQLite, SQLCipher and LMDB.
#
#   scripts/bench.sh [--quick] [FOLDER]
#
# Installs the libraries of the others, builds the `bench` preset, runs in a new folder
# below FOLDER (by default build/), which must be on a disk, and prints medians, ratios
# and their spread. A full run takes some six minutes and puts its figures into
# docs/performance.md and the plot beside it; --quick takes less than two, with smaller
# databases, and writes no document. Leave the machine alone meanwhile.
set -eu
cd "$(dirname "$0")/.."

quick=""
if [ "${1:-}" = --quick ]; then
    quick=--quick
    shift
fi
if [ $# -gt 1 ] || [[ "${1:-}" == -* ]]; then
    echo "usage: $0 [--quick] [FOLDER]" >&2
    exit 2
fi
mkdir -p build
place=${1:-build}

kind=$(stat -f -c %T "$place")
case "$kind" in
    tmpfs | ramfs) echo "$0: $place is in memory ($kind); name a folder on a disk" >&2; exit 1 ;;
esac

scripts/install_deps.sh --bench
cmake --preset bench >build/bench_configure.log || { cat build/bench_configure.log; exit 1; }
cmake --build --preset bench --target contest library_bench fstore >build/bench_build.log ||
    { cat build/bench_build.log; exit 1; }

folder=$(mktemp -d "$place/contest.XXXXXX")
trap 'rm -rf "$folder"' EXIT
# Each contender's folder gets a place of its own on the disk; a folder in which much was
# deleted is slow for others in the same place. Only some file systems take the wish, and
# the figures hold without it, for all contenders alike: so it is told and no failure.
if ! chattr +T "$folder"; then
    echo "note: $kind places folders as it likes; expect a wider spread"
fi

echo "running; the machine has a load of $(cut -d' ' -f1 /proc/loadavg)"
# shellcheck disable=SC2086  # an absent option is no argument
build/bench/bin/contest $quick "$folder" >build/contest.tsv
mkdir "$folder/library"
ulimit -n "$(ulimit -H -n)"  # it opens a thousand databases at once
# shellcheck disable=SC2086
build/bench/bin/library_bench $quick "$folder/library" >>build/contest.tsv
# shellcheck disable=SC2086
bench/tool.py build/bench/bin/fstore "$folder" $quick >>build/contest.tsv
if [ -n "$quick" ]; then
    scripts/bench_report.py build/contest.tsv "$folder"
else
    scripts/bench_report.py build/contest.tsv "$folder" \
        --write docs/performance.md scripts/bench.sh
fi
