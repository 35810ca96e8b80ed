#!/bin/bash
# Installs the build into a new folder, moves it to one with a blank in its name, and builds and runs
# somebody else's programs against it alone: with CMake, and with pkg-config. They find the modules
# that were installed.
#
#     install_test.sh BUILD_FOLDER COMPILER
set -eu
build=$1 compiler=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

step() { printf '== %s\n' "$*"; }
fail() {
    printf 'failed: %s\n' "$*"
    exit 1
}

step "install, and move what was installed"
cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/a prefix"
prefix="$work/a prefix"
libdir=$(dirname "$(find "$prefix" -name libfilestore_client.a)")
for file in bin/fstore lib/filestore/filestore.so lib/filestore/pkcs5.so \
    lib/filestore/pkixkey.so lib/filestore/x509cmn.so include/filestore/host/store_host.h \
    include/filestore/filestore.h lib/python3/dist-packages/filestore/__init__.py \
    share/man/man1/fstore.1.gz share/man/man5/filestore.5.gz \
    share/bash-completion/completions/fstore share/zsh/site-functions/_fstore \
    share/fish/vendor_completions.d/fstore.fish; do
    [ -f "$prefix/$file" ] || fail "$file is not installed"
done
if grep -rlF "$work/first" "$prefix"; then
    fail "a file names the folder that it was installed into"
fi

step "the provider finds its library"
ldd "$libdir/ossl-modules/fstore.so" | grep -qF "libfilestore.so.1 => $libdir/" ||
    fail "fstore.so does not find libfilestore.so.1"

step "the installed program works"
mkdir "$work/db"
cd "$work/db"
FSTORE_PASSWORD=secret "$prefix/bin/fstore" -q init --cost 14
echo hello | FSTORE_PASSWORD=secret "$prefix/bin/fstore" -q put settings/greeting -
[ "$(FSTORE_PASSWORD=secret "$prefix/bin/fstore" get greeting)" = hello ] || fail "fstore get"

step "every installed header compiles by itself, from the installed tree alone"
cd "$prefix/include/filestore"
find . -name '*.h' | sort | while read -r header; do
    echo "#include \"$header\"" |
        "$compiler" -std=c++20 -Wall -Wextra -Werror -fsyntax-only -D_FILE_OFFSET_BITS=64 -I. \
            -x c++ - || fail "$header"
done

step "what goes into other people's programs names its licence"
find "$prefix/include/filestore" "$prefix/share/doc/libfilestore-dev/examples" "$prefix/lib/python3" \
    -name '*.h' -o -name '*.c' -o -name '*.cpp' -o -name '*.py' >"$work/sources"
for kind in include/filestore examples python3; do
    grep -q "/$kind/" "$work/sources" || fail "$kind: no source was found"
done
while read -r source; do
    head -n 2 "$source" | grep -q 'SPDX-License-Identifier: Apache-2\.0' || fail "$source names no licence"
done <"$work/sources"

step "what an installed header refers to is installed"
grep -rnoE '[A-Za-z0-9_.-]+/[A-Za-z0-9_./-]+\.(h|cpp|md|py|sh)\>' . >"$work/references"
grep -q 'docs/locking\.md' "$work/references" || fail "no reference was found"
while IFS=: read -r header line name; do
    case $name in
    sys/*) ;;
    docs/*) [ -f "$prefix/share/doc/filestore/${name#docs/}" ] || fail "$header:$line: $name" ;;
    *) [ -f "$name" ] || fail "$header:$line: $name" ;;
    esac
done <"$work/references"

# run_client PROGRAM OUTPUT
run_client() {
    rm -rf "$work/run"
    mkdir "$work/run"
    cd "$work/run"
    output=$(env -u FILESTORE_MODULES "$1") || fail "$1: exit code $?: $output"
    [ "$output" = "$2" ] || fail "$1: $output"
}

step "a client built with CMake"
cmake -G Ninja -S "$here/install" -B "$work/cmake" -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" ||
    { cat "$work/log"; fail "configure"; }
cmake --build "$work/cmake" >"$work/log" || { cat "$work/log"; fail "build"; }
run_client "$work/cmake/client" "all as promised"
[ "$(cat "$work/cmake/module_dir")" = "$prefix/lib/filestore" ] || fail "filestore_MODULE_DIR"

# compile PACKAGE COMPILER WORD...: the answer of pkg-config is quoted for a shell.
compile() {
    local package=$1 flags
    shift
    flags=$(pkg-config --cflags --libs "$package")
    eval '"$@"' "$flags"
}

step "a client built with pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
examples=$prefix/share/doc/libfilestore-dev/examples
compile filestore "$compiler" -Wall -Wextra -Werror \
    "-DFILESTORE_INSTALLED_MODULES=\"$prefix/lib/filestore\"" "$examples/store_key.cpp" -o "$work/client"
run_client "$work/client" "alice's key is stored"

step "clients in C, built with CMake and with pkg-config"
run_client "$work/cmake/c_client" "kept"
compile filestore-c gcc -std=c99 -Wall -Wextra -Werror "$here/install/c_client.c" -o "$work/c_client"
export LD_LIBRARY_PATH=$libdir
run_client "$work/c_client" "kept"

step "the example in Python"
cd "$work"
echo secret >password
export PYTHONPATH=$prefix/lib/python3/dist-packages PYTHONDONTWRITEBYTECODE=1
python3 "$here/../../examples/notes.py" keys password milk "two bottles" || fail "notes.py"
[ "$(python3 "$here/../../examples/notes.py" keys password milk)" = "two bottles" ] ||
    fail "notes.py"
unset LD_LIBRARY_PATH PYTHONPATH

step "what README.md removes is all that was installed"
cmake --install "$build" --prefix "$work/removed" >/dev/null
line=$(grep 'install_manifest\.txt' "$here/../../README.md" | sed 's/ *#.*//')
(cd "$build/../.." && eval "${line//build\/release/$build}")
[ -z "$(find "$work/removed" ! -type d)" ] || fail "left: $(find "$work/removed" ! -type d)"

step "a client beside the modules finds them by itself"
cp "$work/client" "$prefix/bin/client"
mv "$prefix" "$work/another prefix"
run_client "$work/another prefix/bin/client" "alice's key is stored"
echo "passed"
