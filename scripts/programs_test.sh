#!/bin/bash
# Runs real programs with keys of an encrypted database, by way of the OpenSSL provider, in a root of
# their own (scripts/programs_root.sh).
#
#     scripts/programs_test.sh [BUILD]    a build folder, by default build/release
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/release}
# shellcheck source=scripts/programs_root.sh
. scripts/programs_root.sh

mkdir "$root/programs"
cp -r tests/programs/* "$root/programs"

# Whatever a program leaves running ends with the namespace.
unshare --mount --pid --fork --kill-child --mount-proc="$root/proc" \
    chroot "$root" /programs/run.sh
