#!/bin/bash
# Installs the Debian packages where nothing of ours has ever been, and uses them as the users of that
# machine would: the tool, a program in C that is built there, Python. Then removes them, and looks
# for what stays.
#
#     package_root_test.sh ROOT PACKAGE.deb...
#
# Runs as root. ROOT is a system that `debootstrap --variant=minbase bookworm ROOT` has made; it is
# copied beside itself, and the copy is gone afterwards. What the packages need comes from wherever
# ROOT's apt takes it. It takes minutes, so no build runs it; see docs/testing.md.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
[ $# -ge 2 ] || { echo "usage: $0 ROOT PACKAGE.deb..." >&2; exit 2; }
from=${1%/}
shift

copy=$(mktemp -d "$from-copy.XXXXXX")
clean_up() {
    ! mountpoint -q "$copy/proc" || umount "$copy/proc"
    rm -rf --one-file-system "$copy"
}
trap clean_up EXIT
cp -a --reflink=auto "$from/." "$copy"
mount -t proc proc "$copy/proc"

# Commands of that machine, which read their own environment and nothing of ours.
there() {
    chroot "$copy" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive \
        FSTORE_PASSWORD=secret sh -euc "$1"
}
fail() {
    printf 'failed: %s\n' "$*"
    exit 1
}
# In the folder /run-here of that machine.
expect() {
    local output
    output=$(there "cd /run-here && $2") || fail "$2: $output"
    [ "$output" = "$1" ] || fail "$2: $output"
}

there 'if command -v fstore; then echo "ROOT has fstore already"; exit 1; fi'
mkdir "$copy/packages" "$copy/run-here"
cp "$@" "$copy/packages"
cp "$here/install/c_client.c" "$here/../../examples/notes.py" "$copy/run-here"

# dpkg unpacks, and says what is missing; apt brings that.
install() {
    there "cd /packages && { dpkg -i $1 >/dev/null 2>&1 || true; }
           apt-get -qq -f install -y --no-install-recommends >/dev/null 2>&1"
    there "cd /packages && for package in $1; do
               dpkg-query -W -f '\${Status}\n' \"\$(dpkg-deb -f \$package Package)\" |
                   grep -qx 'install ok installed'
           done" || fail "$1 is not installed"
}

there 'apt-get -qq update'
echo "== the tool"
install 'filestore_*.deb filestore-modules_*.deb'
there 'cd /run-here && fstore -q init --cost 14 && echo hello | fstore -q put settings/greeting -'
expect hello 'fstore get greeting'
expect "" 'fstore -q check --deep'

echo "== a program in C"
there 'apt-get -qq install -y --no-install-recommends gcc libc6-dev pkg-config >/dev/null 2>&1'
install 'libfilestore1_*.deb libfilestore-dev_*.deb'
# shellcheck disable=SC2016  # expanded there
expect kept 'gcc -std=c99 c_client.c $(pkg-config --cflags --libs filestore-c) -o c_client &&
             mkdir empty && cd empty && ../c_client'

echo "== Python"
install 'python3-filestore_*.deb'
there 'cd /run-here && echo secret >password && python3 notes.py . password milk "two bottles"'
expect "two bottles" 'python3 notes.py . password milk'
expect "two bottles" 'fstore get milk'

echo "== removal"
# shellcheck disable=SC2016  # expanded there
there 'dpkg --purge $(for package in /packages/*.deb; do dpkg-deb -f $package Package; done) >/dev/null'
left=$(there "find /usr /etc /var/lib -xdev \( -name '*filestore*' -o -name '*fstore*' \)")
[ -z "$left" ] || fail "left behind: $left"
echo "passed"
