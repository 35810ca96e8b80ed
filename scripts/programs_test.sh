#!/bin/bash
# Runs real programs with keys of an encrypted database, by way of the OpenSSL provider, in a root of
# their own (scripts/programs_root.sh).
#
#     scripts/programs_test.sh [BUILD [TRY...]]    a build folder, by default build/release, and which
#                                                  of the functions of tests/programs: all of them
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/release}
[ $# -eq 0 ] || shift
tries=("$@")
# shellcheck source=scripts/programs_root.sh
. scripts/programs_root.sh

mkdir "$root/programs"
cp -r tests/programs/* "$root/programs"

# Whatever a program leaves running ends with the namespace.
failed=0
unshare --mount --pid --fork --kill-child --mount-proc="$root/proc" \
    chroot "$root" /programs/run.sh "${tries[@]}" || failed=$?
if [ -d "$root/srv/programs/looks" ]; then
    mkdir -p build/programs
    rm -rf build/programs/looks
    cp -r "$root/srv/programs/looks" build/programs
    echo "what the browser showed is in build/programs/looks"
fi
exit "$failed"
