#!/bin/bash
# Makes the Debian packages, source package included, from a copy of these sources, and the i386 one of
# the module, into build/package; makes them again in another folder, and compares every byte; checks
# them with lintian, and uses what is in them.
#
#     scripts/package.sh
set -eEu
cd "$(dirname "$0")/.."
scripts/install_deps.sh --package

folder=$PWD/build/package
work=$(mktemp -d /var/tmp/filestore-package.XXXXXX)
trap 'rm -rf "$work"' EXIT
version=$(dpkg-parsechangelog --show-field Version)
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog --show-field Timestamp)
export SOURCE_DATE_EPOCH

# A compiler's cache may answer for one copy with what it kept of the other.
unset CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER CFLAGS CXXFLAGS LDFLAGS

# What both are made of, whatever changes here meanwhile.
tar --exclude=./build --exclude=./.git --exclude=__pycache__ -cf "$work/sources.tar" .

# make_packages FOLDER WHAT: the packages in it.
make_packages() {
    local copy=$1/filestore-$version
    mkdir -p "$copy"
    tar -C "$copy" -xf "$work/sources.tar"
    {
        cd "$copy"
        cmake --preset m32 -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON
        cmake --build --preset m32 --target filestore module_changelog
        (cd build/m32 && umask 022 && cpack -G DEB -B "$1")
        rm -rf build "$1/_CPack_Packages"
        dpkg-buildpackage --no-sign --build="$2"
        cd "$1"
        rm -rf "$copy"
    } >"$1.log" 2>&1
}
# In processes of their own, so that the first failure of a line ends one, and with its last words.
tell() {
    tail -n 40 "$1.log"
    exit 1
}

echo "== packages"
first=$work/first
(trap 'tell "$first"' ERR; make_packages "$first" full)
echo "== again, in another folder and elsewhere on earth, for another reader; after $SECONDS s"
second=$work/a_folder_with_another_name
(umask 077
    export TZ=Asia/Tokyo LC_ALL=C.UTF-8
    trap 'tell "$second"' ERR
    make_packages "$second" binary)
compared=0
differ=0
for package in "$first"/*.deb; do
    name=${package##*/}
    compared=$((compared + 1))
    if ! cmp "$package" "$second/$name"; then
        differ=$((differ + 1))
        mkdir -p "$work/one" "$work/two"
        dpkg-deb -R "$package" "$work/one/$name"
        dpkg-deb -R "$second/$name" "$work/two/$name"
    fi
done
[ "$differ" = 0 ] || diff -r --no-dereference "$work/one" "$work/two"
[ "$compared" -gt 7 ] || { echo "only $compared packages were compared"; exit 1; }
echo "== $compared packages, the same twice; after $SECONDS s"

rm -rf "$folder"
mkdir -p "$folder"
mv "$first"/*.{deb,dsc,tar.*,buildinfo,changes} "$folder"

# What the module was linked with, in the names that its packages have on its own architecture.
mkdir -p "$work/needs/debian"
printf 'Source: a\n\nPackage: a\nArchitecture: any\n' >"$work/needs/debian/control"
dpkg-deb -x "$folder"/filestore-module_*_i386.deb "$work/needs/debian/a"
needed=$(cd "$work/needs" && dpkg-shlibdeps -O debian/a/usr/lib/*/filestore/filestore.so 2>/dev/null |
    sed -e 's/^shlibs:Depends=//' -e 's/libc6-i386/libc6/g' -e 's/lib32/lib/g' -e 's/, /\n/g' | sort)
named=$(dpkg-deb --field "$folder"/filestore-module_*_i386.deb Depends | sed 's/, /\n/g' | sort)
[ "$needed" = "$named" ] || { printf 'filestore-module needs\n%s\nand names\n%s\n' "$needed" "$named"; exit 1; }

tests/system/package_test.sh "$folder"/*_amd64.deb "$folder"/*_all.deb
lintian --fail-on error,warning --allow-root "$folder"/*.changes "$folder"/*_i386.deb
echo "after $SECONDS s"
