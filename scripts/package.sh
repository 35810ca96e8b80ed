#!/bin/bash
# Makes the Debian packages of what build/release has, the very files that were tested, into
# build/package; checks them with lintian where that is installed, and uses what is in them.
#
#     scripts/package.sh
set -eu
cd "$(dirname "$0")/.."

folder=build/package
# Packages install below /usr, where Debian's layout of the libraries differs; who installs
# by hand gets the usual place again.
trap 'cmake --preset release -DCMAKE_INSTALL_PREFIX=/usr/local >/dev/null' EXIT
cmake --preset release -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build --preset release
rm -rf "$folder"
(cd build/release && umask 022 && cpack -G DEB -B "../${folder##*/}" >/dev/null)
# Which version has each function first: what packages of programs come to depend on. One that is
# missing there, or not in the library any more, is a failure.
version=$(dpkg-deb --field "$folder"/libfilestore1_*.deb Version)
dpkg-gensymbols -plibfilestore1 -v"$version" -ebuild/release/lib/libfilestore.so.1 \
    -Icmake/debian/library/symbols -c4 -O/dev/null
dpkg-deb --info "$folder"/libfilestore1_*.deb symbols | cmp - cmake/debian/library/symbols
for package in "$folder"/*.deb; do
    dpkg-deb --info "$package" >/dev/null
    printf '%s: %s bytes\n' "$package" "$(stat -c %s "$package")"
done
tests/system/package_test.sh "$folder"/*.deb
if command -v lintian >/dev/null; then
    # The project has no mail address, and no bug report to close; the call of ldconfig is
    # CPack's own, and does no harm.
    lintian --fail-on error,warning --allow-root --suppress-tags \
        bogus-mail-host,bogus-mail-host-in-debian-changelog,initial-upload-closes-no-bugs,maintscript-calls-ldconfig \
        "$folder"/*.deb
else
    echo "lintian is not installed: the packages were not checked"
fi
