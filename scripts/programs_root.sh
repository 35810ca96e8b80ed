#!/bin/bash
# shellcheck disable=SC2154  # $build is of the script that sources this
# For scripts that source it: a root of its own with packages of the distribution, and with fstore of a
# build, so that nothing of them is installed on this machine. Needs root and the sources that apt is
# configured with, and ends the script without them. The root as the packages made it is kept in
# build/programs; remove it there to have newer packages.
#
#     . scripts/programs_root.sh    as a script in the project's folder, with $build as the build folder
#
# Afterwards $root is its folder, which is removed when the script ends.
packages=openssl,libfmt9,libsqlite3-0,curl,python3-minimal,nginx-light,haproxy,apache2,lighttpd,lighttpd-mod-openssl
packages+=,stunnel4,mosquitto,redis-server,postgresql-15,socat,openvpn,php8.2-cli,ruby3.1,openssh-client
packages+=,certbot,python3-cffi-backend,dehydrated,pebble,systemd
packages+=,glusterfs-server,glusterfs-client,iproute2,procps,python3,restic,borgbackup,rclone,rsync,git
# What debootstrap cannot configure in its order; apt can.
late=chromium,fonts-dejavu-core,poppler-utils,prometheus,gnutls-bin,libnss3-tools,openjdk-17-jre-headless

if [ "$(id -u)" -ne 0 ] || ! command -v debootstrap >/dev/null; then
    echo "$0: needs root, and debootstrap, which scripts/install_deps.sh --full installs" >&2
    exit 1
fi
suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
kept=build/programs/root-$(sha256sum <<<"$suite $packages $late" | cut -c 1-16).tar
root=$(mktemp -d /var/tmp/filestore-programs.XXXXXX)
trap 'rm -rf "$root"' EXIT

# In a name space of its own, so that no mount outlives a failure, and on an overlay that never syncs:
# dpkg asks for that after each file, which took half of the time.
in_overlay() {
    mkdir "$root/lower" "$root/work"
    # shellcheck disable=SC2016  # for the inner shell
    unshare --mount --kill-child sh -euc '
        mount -t overlay -o "volatile,lowerdir=$1/lower,upperdir=$1/made,workdir=$1/work" overlay \
            "$1/made" || echo "no overlay here, so each file is synced"
        shift
        exec "$@"' sh "$root" "$@"
}

in_chroot() {
    DEBIAN_FRONTEND=noninteractive unshare --mount --pid --fork --kill-child \
        --mount-proc="$root/made/proc" chroot "$root/made" "$@"
}

# A root with the packages, in $kept; downloads that were broken off are not made again.
make_root() {
    local mirror
    mirror=$(apt-get indextargets --format "\$(SITE)" "Created-By: Packages" "Component: main" |
        grep -v security | head -n 1)
    mkdir -p build/programs/packages "$root/made"
    in_overlay debootstrap --variant=minbase --cache-dir="$PWD/build/programs/packages" \
        --include="$packages" "$suite" "$root/made" "$mirror" >"$root/log" 2>&1 || {
        tail -n 5 "$root/log"
        echo "$0: no root could be made of the packages of $suite; without a network, or packages," \
            "leave this out with --without-programs of ./test --full" >&2
        exit 1
    }
    cp -r /etc/apt/apt.conf.d "$root/made/etc/apt"
    in_chroot apt-get install --yes --no-install-recommends ${late//,/ } >"$root/log" 2>&1 || {
        tail -n 5 "$root/log"
        echo "$0: apt could not install $late in the root" >&2
        exit 1
    }
    tar -C "$root/made" -cf "$kept.new" .
    mv "$kept.new" "$kept"
    rm -rf "$root/made" "$root/work" build/programs/packages
}

echo "== a root with $packages,$late"
[ -e "$kept" ] || make_root
tar -C "$root" -xpf "$kept"
for component in tool modules library provider; do
    cmake --install "$build" --prefix "$root/usr" --component "$component" >/dev/null
done
modules=$(chroot "$root" openssl version -m | cut -d '"' -f 2)
mv "$root"/usr/lib/ossl-modules/fstore.so "$root$modules"
chroot "$root" ldconfig
echo "== after $SECONDS s"
