#!/bin/sh
# Runs shellcheck over every shell script of the project, and over the completion for bash.
#
#     scripts/check_shell.sh
set -eu
cd "$(dirname "$0")/.."

scripts=$(grep -rlE --exclude-dir=build --exclude-dir=.git --exclude='*.md' '^#!/bin/(ba)?sh$' .)
[ -n "$scripts" ]
# shellcheck disable=SC2086  # a list of paths without blanks
shellcheck $scripts
shellcheck --shell=bash fstore/completion/fstore.bash
