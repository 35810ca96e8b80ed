#!/bin/sh
# Prints the digests of the messages of 0 to 1000 bytes, one a line, as md5sum
# has them. Byte i of every message is (i * i + 7 * i) mod 251, as in md5_test.cpp.
#
#     tests/service/make_md5_lengths.sh > tests/service/md5_lengths.txt
set -eu
message=$(mktemp)
trap 'rm -f "$message"' EXIT
i=0
while [ "$i" -lt 1000 ]; do
    printf %b "\\0$(printf %03o $(((i * i + 7 * i) % 251)))"
    i=$((i + 1))
done > "$message"
length=0
while [ "$length" -le 1000 ]; do
    head -c "$length" "$message" | md5sum | cut -d ' ' -f 1
    length=$((length + 1))
done
