#!/bin/bash
# Installs a 32-bit build into a new folder: the module and its page, and nothing else.
#
#     module_install_test.sh BUILD_FOLDER
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$1" --prefix "$work" >/dev/null
(cd "$work" && find . -type f | sort) >"$work.found"
trap 'rm -rf "$work" "$work.found"' EXIT
diff - "$work.found" <<END
./lib/i386-linux-gnu/filestore/filestore.so
./share/doc/filestore-module/changelog.gz
./share/doc/filestore-module/copyright
./share/doc/filestore-module/exports.txt
./share/doc/filestore-module/module.md
END
readelf --file-header "$work/lib/i386-linux-gnu/filestore/filestore.so" | grep -q ELF32
echo "passed"
