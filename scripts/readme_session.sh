#!/bin/bash
# Runs the session that README.md shows, and puts what it printed into README.md.
#
#     scripts/readme_session.sh [--check] [BUILD_FOLDER]
#
# --check changes nothing: it fails when README.md shows something else. The default of
# BUILD_FOLDER is build/release.
set -eu
export LC_ALL=C.UTF-8
root=$(cd "$(dirname "$0")/.." && pwd)
check=""
if [ "${1:-}" = --check ]; then
    check=yes
    shift
fi
build=$(realpath "${1:-$root/build/release}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/here"
cd "$work/here"
cp "$root/tests/fstore/data/server.p12" .
mkdir bin
ln -s "$build/bin/fstore" bin/fstore
export PATH=$work/here/bin:$PATH FILESTORE_MODULES=$build/lib
export FSTORE_PASSWORD="correct horse" FSTORE_IN_PASSWORD=secret FSTORE_NEW_PASSWORD=battery
unset FSTORE_DIR FSTORE_PASSWORD_FILE FSTORE_IN_PASSWORD_FILE FSTORE_NEW_PASSWORD_FILE

show() {
    printf '$ %s\n' "$1"
    bash -c "$1" 2>&1
}
{
    echo '```'
    show "fstore init"
    show "fstore import server.p12"
    show "fstore ls"
    show "fstore show server-2d0d789c | head -8"
    show "fstore export server-2d0d789c --chain | grep -c BEGIN"
    show "echo 'db.example.com 5432' | fstore put settings/database -"
    show "fstore get database"
    show "fstore passwd"
    export FSTORE_PASSWORD=battery
    show "fstore key add --recovery --sheet ../to-print.txt --label safe"
    show "fstore key add --key-file ../host.key --label 'web server'"
    show "fstore get database --key-file ../host.key"
    show "fstore check --deep"
    show "fstore backup backup.tar && fstore -D copy restore backup.tar"
    echo '```'
} >session

# Between the two markers.
awk -v session=session '
    /<!-- session -->/ { print; while ((getline line < session) > 0) print line; inside = 1 }
    /<!-- end of session -->/ { inside = 0 }
    !inside && !/<!-- session -->/ { print }' "$root/README.md" >README.md
if cmp -s README.md "$root/README.md"; then
    exit 0
fi
if [ -n "$check" ]; then
    diff -u "$root/README.md" README.md
    exit 1
fi
cp README.md "$root/README.md"
