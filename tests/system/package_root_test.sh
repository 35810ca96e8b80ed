#!/bin/bash
# Installs the packages on a copy of this machine that is gone afterwards, and uses them as the users of
# that machine would (package_root_inside.sh). Nothing is written to this machine, and nothing is fetched.
#
#     package_root_test.sh FOLDER     with the packages and the .dsc that scripts/package.sh has made
#
# Runs as root, on a machine with what scripts/install_deps.sh --full installs.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
packages=$(cd "$1" && pwd)
[ "$(id -u)" -eq 0 ] || { echo "$0: needs root" >&2; exit 1; }
work=$(mktemp -d /var/tmp/filestore-root.XXXXXX)
trap 'rm -rf "$work"' EXIT

# In a name space of its own, so that no mount and no process outlives it. The copy's changes are in
# memory; they hold neither this machine's shared memory nor its own temporary files.
# shellcheck disable=SC2016  # for the inner shell
unshare --mount --pid --fork --kill-child bash -euc '
    work=$1 packages=$2 here=$3
    mount -t tmpfs -o mode=755 tmpfs "$work"
    mkdir "$work/upper" "$work/work" "$work/root"
    mount -t overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/work" overlay "$work/root"
    mount --rbind /dev "$work/root/dev"
    mount -t proc proc "$work/root/proc"
    mount -t tmpfs -o mode=1777 tmpfs "$work/root/tmp"
    mkdir "$work/root/packages"
    cp "$packages"/* "$here/package_root_inside.sh" "$work/root/packages"
    chroot "$work/root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive \
        LC_ALL=C.UTF-8 bash /packages/package_root_inside.sh
' bash "$work" "$packages" "$here"
