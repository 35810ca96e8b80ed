#!/bin/sh
# Installs the Debian packages that building and testing need and that are not
# there yet; does nothing, and needs no rights, when all are. Runs as root or
# through sudo.
#
#   scripts/install_deps.sh [--full | --package | --quickstart | --bench]
#
# --full adds what only the further checks need: the clang tools, coverage reports,
# the checks of packages and of shell scripts, two more shells,
# debootstrap, for real programs in a root of their own, and what prints a page.
# --package installs what making the Debian packages needs.
# --quickstart installs only what building and trying the command-line tool needs,
# --bench also the stores that scripts/bench.sh compares with.
set -eu

# Compilers and tools. g++-12-multilib makes the 32-bit module and, unlike
# g++-multilib, leaves cross compilers alone; no foreign architecture is added.
build="g++ g++-12-multilib cmake ninja-build"
# Libraries of the OpenSSL modules, the library, the command-line tool and its manual page.
libraries="libssl-dev libsqlite3-dev libcli11-dev nlohmann-json3-dev libfmt-dev scdoc"
# googletest has the sources, built for 32 bits; the others its native libraries.
# openssl, ssh-keygen and certtool, of gnutls-bin, are what import is compared with.
testing="googletest libgtest-dev libgmock-dev libbenchmark-dev openssl openssh-client python3 git
strace pkg-config gnutls-bin valgrind"
package="debhelper dh-python dpkg-dev file lintian pkg-config python3 openssl"
full="$package autopkgtest man-db bash-completion shellcheck mypy zsh fish clang-14 clang-format-14 clang-tidy-14 libclang-rt-14-dev
llvm-14 gcovr abigail-tools debootstrap enscript ghostscript"
bench="libsqlcipher-dev liblmdb-dev e2fsprogs"

packages="$build $libraries $testing ca-certificates"
case "${1:-}" in
    "") ;;
    --full) packages="$packages $full" ;;
    --package) packages="$build $libraries $package" ;;
    --bench) packages="$packages $bench" ;;
    --quickstart) packages="g++ cmake ninja-build $libraries openssl ca-certificates" ;;
    *) echo "usage: $0 [--full | --package | --quickstart | --bench]" >&2; exit 2 ;;
esac

missing=""
for package in $packages; do
    # A package that dpkg has never heard of has no state, and is missing.
    state=$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null || true)
    if [ "$state" != "install ok installed" ]; then
        missing="$missing $package"
    fi
done
if [ -z "$missing" ]; then
    exit 0
fi

as_root=""
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "$0: as root, install:$missing" >&2
        exit 1
    fi
    as_root=sudo
fi
echo "installing:$missing"
$as_root apt-get -qq update
# shellcheck disable=SC2086  # words of a list, and an empty prefix
$as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -qq install -y --no-install-recommends --no-remove $missing >/dev/null
