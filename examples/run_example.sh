#!/bin/sh
# Runs a program in an empty folder: run_example.sh PROGRAM EXPECTED_OUTPUT
set -eu
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
output=$("$1")
echo "$output"
[ "$output" = "$2" ]
