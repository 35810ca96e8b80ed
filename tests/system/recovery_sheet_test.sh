#!/bin/bash
# Prints the sheet of a recovery key as an operator would, and reads the page: all lines, on one
# page, and the key whole.
#
#   recovery_sheet_test.sh FSTORE PICTURE
#
# FSTORE is the built program. PICTURE gets the page, for people to look at; its key opens nothing.
# Needs enscript and ghostscript, and so is a step of ./test --full and no entry of ctest.
set -eu
fstore=$(realpath "$1")
mkdir -p "$(dirname "$2")"
picture=$(realpath "$(dirname "$2")")/$(basename "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

export FSTORE_PASSWORD='correct horse'
"$fstore" --no-input -D keys init --cost 14
"$fstore" --no-input -D keys key add --recovery --label "in the safe" --sheet sheet
enscript --quiet --no-header --media=A4 --output=sheet.ps sheet

pages=$(sed -n 's/^%%Pages: \([0-9]*\)$/\1/p' sheet.ps)
[ "$pages" = 1 ] || { echo "the sheet takes $pages pages"; exit 1; }

# What stands on the page, a line each. How wide a blank is depends on the printer, and its fonts
# have a curved quotation mark for a straight one.
words() {
    sed "s/\xc2\xa0/ /g; s/\xe2\x80\x98/\`/g; s/[\r\f]//g" | tr -s ' ' | sed 's/^ //; s/ $//; /^$/d'
}
gs -q -dSAFER -sDEVICE=txtwrite -o page sheet.ps
if ! diff <(words <sheet) <(words <page); then
    echo "the page (>) does not say what the sheet (<) says"
    exit 1
fi

# Who has only the page opens the database.
grep -oE '[0-9A-Z]{5}(-[0-9A-Z]{5}){3}' page | paste -sd- >typed
[ "$(tr -d '\n' <typed | wc -c)" -eq 47 ] || { echo "the key is not on the page"; exit 1; }
FSTORE_PASSWORD=$(cat typed) "$fstore" --no-input -D keys key test 2

gs -q -dSAFER -sDEVICE=pnggray -r100 -o "$picture" sheet.ps
echo "the page is in $picture"
