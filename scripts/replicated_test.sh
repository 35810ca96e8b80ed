#!/bin/bash
# Two hosts that share a database on a volume of three replicas, while links are cut and servers and
# hosts die; and the ways of keeping a replica elsewhere, as docs/several-hosts.md has them. Servers and
# hosts are network namespaces in a root of their own (scripts/programs_root.sh). Needs /dev/fuse.
#
#     scripts/replicated_test.sh [BUILD [TEST...]]    a build folder, by default build/release
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/release}
shift $(($# > 0))
if [ ! -c /dev/fuse ]; then
    echo "$0: there is no /dev/fuse, so no host can mount a volume; leave this out with" \
        "--without-programs of ./test --full" >&2
    exit 1
fi
# shellcheck source=scripts/programs_root.sh
. scripts/programs_root.sh

mkdir "$root/replicated"
cp tests/replicated/* tests/fstore/support.py docs/several-hosts.md "$build/lib/call_trap.so" "$root/replicated"

# Whatever is left running, mounted or linked ends with the namespaces. The root becomes the only one,
# since nsenter, by which a test enters a host, goes to the root of a namespace. The shell stays: it is
# the namespace's first process, which takes leave of the dead, and a brick that nobody has taken leave
# of counts as alive.
# shellcheck disable=SC2016  # for the inner shell
unshare --mount --pid --net --fork --kill-child bash -euc '
    mount --bind "$1" "$1"
    cd "$1"
    mount -t proc proc proc
    mount --rbind /dev dev
    mount -t sysfs sysfs sys
    mount -t tmpfs tmpfs run
    mount -t tmpfs tmpfs srv
    pivot_root . .
    umount -l .
    shift
    export FSTORE_PROGRAM=/usr/bin/fstore CALL_TRAP=/replicated/call_trap.so
    python3 -B /replicated/replicated_test.py "$@" || exit' bash "$root" "$@"
