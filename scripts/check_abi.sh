#!/bin/bash
# Holds the C library to the binary interface that programs were built against.
#
#   scripts/check_abi.sh [--update] [LIBRARY]
#
# capi/filestore.abi is what abidw says of it: each function with its types, each structure with its
# offsets, each constant. Prints every difference, and fails if there is one. --update writes the
# file anew; CONTRIBUTING.md says when.
#
# The types are those of capi/filestore.h: the compiler holds the library's sources to them, so a
# library of empty functions stands for it, and none has to be built with all that debuggers know.
# LIBRARY, by default that of the release build, must have the same functions and versions of them.
set -eu
cd "$(dirname "$0")/.."
root=$PWD

update=""
if [ "${1:-}" = --update ]; then
    update=yes
    shift
fi
library=$(realpath "${1:-build/release/lib/libfilestore.so.1}")
[ -f "$library" ] || { echo "$0: there is no $library; build it first" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# The header's functions, one a line, and each with a body. A variable for each enumeration, which no
# function mentions: flags and the like are passed as numbers.
gcc -std=c2x -fsyntax-only -aux-info prototypes -x c "$root/capi/filestore.h"
{
    echo '#include "capi/filestore.h"'
    sed -n 's/^.* extern \(.*\bfilestore_.*\);$/\1 { __builtin_trap(); }/p' prototypes
    sed -n 's/^enum \(filestore_[a-z_]*\) {.*/__attribute__((used)) static enum \1 of_\1;/p' \
        "$root/capi/filestore.h"
} >library.c
gcc -std=c2x -g -fPIC -shared -I"$root" \
    -Wl,-soname,libfilestore.so.1 -Wl,--version-script="$root/capi/filestore.map" \
    library.c -o libfilestore.so.1

functions() {
    nm --dynamic --defined-only "$1" | cut -d' ' -f2- | sort
}
if ! diff <(functions libfilestore.so.1) <(functions "$library"); then
    echo "the functions of capi/filestore.h (<) are not those of $(basename "$library") (>)"
    exit 1
fi

abidw --load-all-types --no-show-locs --no-corpus-path --no-comp-dir-path --type-id-style hash \
    libfilestore.so.1 >filestore.abi
if [ -n "$update" ]; then
    cp filestore.abi "$root/capi"
    exit 0
fi
abidiff --non-reachable-types "$root/capi/filestore.abi" filestore.abi || {
    echo "the C library's binary interface has changed; CONTRIBUTING.md says what to do"
    exit 1
}
