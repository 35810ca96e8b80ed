#!/bin/bash
# What is built without a preset is optimised and hardened, and what a packager's flags name stays the
# packager's.
#
#     flags_test.sh SOURCES COMPILER
set -eu
sources=$1 compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset CXXFLAGS LDFLAGS

fail() {
    printf 'failed: %s\n' "$*"
    exit 1
}

# configure FOLDER [OPTION...]
configure() {
    local folder=$work/$1
    shift
    cmake -G Ninja -S "$sources" -B "$folder" -DCMAKE_CXX_COMPILER="$compiler" -DBUILD_TESTING=OFF "$@" \
        >"$work/log" 2>&1 || { cat "$work/log"; fail "configure $*"; }
}

# has FOLDER FLAG and lacks FOLDER FLAG: in how the build compiles and links.
has() { grep -qF -e "$2" "$work/$1/build.ninja" || fail "$1: no $2"; }
lacks() { ! grep -qF -e "$2" "$work/$1/build.ninja" || fail "$1: $2"; }

configure plain
for flag in -O3 -D_FORTIFY_SOURCE=2 -fstack-protector-strong -Wl,-z,relro -Wl,-z,now; do
    has plain "$flag"
done

CXXFLAGS="-O1 -D_FORTIFY_SOURCE=3 -fstack-protector-all" LDFLAGS=-Wl,-z,norelro \
    configure given -DCMAKE_BUILD_TYPE=None
for flag in -O1 -D_FORTIFY_SOURCE=3 -fstack-protector-all -Wl,-z,norelro; do
    has given "$flag"
done
for flag in -D_FORTIFY_SOURCE=2 -fstack-protector-strong -Wl,-z,relro -O3; do
    lacks given "$flag"
done

configure debug -DCMAKE_BUILD_TYPE=Debug
lacks debug _FORTIFY_SOURCE
echo "passed"
