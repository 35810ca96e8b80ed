#!/bin/bash
# Builds the Debian packages into build/package, and checks them with lintian where
# that is installed.
#
#     scripts/package.sh
set -eu
cd "$(dirname "$0")/.."

folder=build/package
cmake --preset release -B "$folder" -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG -D_FORTIFY_SOURCE=2 -fstack-protector-strong" \
    -DCMAKE_EXE_LINKER_FLAGS="-Wl,-z,relro,-z,now" \
    -DCMAKE_MODULE_LINKER_FLAGS="-Wl,-z,relro,-z,now" >/dev/null
cmake --build "$folder"
rm -f "$folder"/*.deb
(cd "$folder" && umask 022 && cpack -G DEB >/dev/null)
for package in "$folder"/*.deb; do
    dpkg-deb --info "$package" >/dev/null
    printf '%s: %s bytes\n' "$package" "$(stat -c %s "$package")"
done
if command -v lintian >/dev/null; then
    # The project has no mail address, and no bug report to close; the call of ldconfig is
    # CPack's own, and does no harm.
    lintian --fail-on error,warning --allow-root --suppress-tags \
        bogus-mail-host,bogus-mail-host-in-debian-changelog,initial-upload-closes-no-bugs,maintscript-calls-ldconfig \
        "$folder"/*.deb
else
    echo "lintian is not installed: the packages were not checked"
fi
