#!/bin/bash
# Unpacks the Debian packages into an empty folder, and uses what is there and nothing else of
# ours: the tool, clients in C and C++ that are built with pkg-config and CMake, and Python.
#
#     package_test.sh PACKAGE.deb...
set -eu
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export FSTORE_PASSWORD=secret PYTHONDONTWRITEBYTECODE=1
unset FILESTORE_MODULES

fail() {
    printf 'failed: %s\n' "$*"
    exit 1
}

# expect OUTPUT COMMAND...: in an empty folder
expect() {
    local expected=$1 output
    shift
    rm -rf "$work/run"
    mkdir "$work/run"
    output=$(cd "$work/run" && "$@") || fail "$*: exit code $?: $output"
    [ "$output" = "$expected" ] || fail "$*: $output"
}

for package in "$@"; do
    dpkg-deb -x "$package" "$work/root"
done
usr=$work/root/usr
libdir=$(dirname "$(find "$usr/lib" -name libfilestore.so.1)")
export PKG_CONFIG_PATH=$libdir/pkgconfig PYTHONPATH=$usr/lib/python3/dist-packages

echo "== the tool finds the modules of their package"
mkdir "$work/db"
cd "$work/db"
"$usr/bin/fstore" -q init --cost 14
echo hello | "$usr/bin/fstore" -q put settings/greeting -
[ "$("$usr/bin/fstore" get greeting)" = hello ] || fail "fstore get"

echo "== clients built with pkg-config"
# compile PACKAGE COMPILER WORD...: the answer of pkg-config is quoted for a shell.
compile() {
    local package=$1 flags
    shift
    flags=$(pkg-config --cflags --libs "$package")
    eval '"$@"' "$flags"
}
compile filestore-c gcc -std=c99 "$here/install/c_client.c" -o "$work/c_client"
compile filestore g++ "-DFILESTORE_INSTALLED_MODULES=\"$usr/lib/filestore\"" "$here/../../examples/store_key.cpp" -o "$work/store_key"
expect kept env LD_LIBRARY_PATH="$libdir" "$work/c_client"
expect "alice's key is stored" "$work/store_key"

echo "== clients built with CMake"
cmake -G Ninja -S "$here/install" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$usr" >"$work/log" ||
    { cat "$work/log"; fail "configure"; }
cmake --build "$work/cmake" >"$work/log" || { cat "$work/log"; fail "build"; }
expect kept "$work/cmake/c_client"
expect "all as promised" "$work/cmake/client"

echo "== the OpenSSL provider"
openssl req -x509 -newkey ed25519 -nodes -keyout "$work/key" -out "$work/pem" -subj /CN=a \
    -addext subjectAltName=DNS:a.example.com 2>/dev/null
cd "$work/db"
"$usr/bin/fstore" -q import "$work/key" "$work/pem"
printf secret >"$work/password"
chmod 600 "$work/password"
"$usr/bin/fstore" ref 'fstore:///?for=a.example.com&type=key' -o "$work/ref"
"$usr/bin/fstore" openssl-conf --password-file "$work/password" >"$work/openssl.cnf"
[ "$(env -u FSTORE_PASSWORD LD_LIBRARY_PATH="$libdir" OPENSSL_MODULES="$libdir/ossl-modules" \
    OPENSSL_CONF="$work/openssl.cnf" openssl pkey -in "$work/ref")" = "$(cat "$work/key")" ] ||
    fail "openssl pkey"

echo "== Python"
export LD_LIBRARY_PATH=$libdir
[ "$(/usr/bin/python3 -c 'import filestore; print(filestore.__file__)')" = \
    "$PYTHONPATH/filestore/__init__.py" ] || fail "import filestore"
cd "$work/db"
echo secret >password
/usr/bin/python3 "$here/../../examples/notes.py" . password milk "two bottles" || fail "notes.py"
[ "$(/usr/bin/python3 "$here/../../examples/notes.py" . password milk)" = "two bottles" ] ||
    fail "notes.py"
[ "$("$usr/bin/fstore" get milk)" = "two bottles" ] || fail "a note of Python's, read by the tool"
echo "passed"
