#!/bin/bash
# What package_root_test.sh does on its copy of the machine.
set -eu
cd /packages
fail() {
    printf 'failed: %s\n' "$*"
    exit 1
}
expect() {
    [ "$1" = "$2" ] || fail "not \"$1\" but \"$2\""
}

# Files that may be ours; other programs have such names, too.
named_so() {
    find /usr /etc /var/lib -xdev \( -name '*filestore*' -o -name '*fstore*' \) | LC_ALL=C sort
}

echo "== an older release, and a database of its time"
mkdir /older
named_so >/older/before
for package in *_amd64.deb *_all.deb; do
    case $package in *-dbgsym_*) continue ;; esac
    dpkg-deb -R "$package" /older/tree
    version=$(dpkg-deb --field "$package" Version)
    sed -i -e "s/^Version: .*/Version: 0.9/" -e "s/= $version)/= 0.9)/g" /older/tree/DEBIAN/control
    dpkg-deb -b /older/tree "/older/$package" >/dev/null
    rm -rf /older/tree
done
dpkg -i /older/*.deb >/older/log 2>&1 || { cat /older/log; fail "dpkg -i of 0.9"; }
useradd --create-home --home-dir /srv/visitor visitor
# As the plain user, in a folder of theirs.
visitor() {
    setpriv --reuid visitor --regid visitor --clear-groups \
        env HOME=/srv/visitor FSTORE_PASSWORD=secret bash -euc "cd; $1"
}
visitor 'fstore -q init --cost 14; echo hello | fstore -q put settings/greeting -'

echo "== the upgrade"
dpkg -i ./*_amd64.deb ./*_all.deb >/older/log 2>&1 || { cat /older/log; fail "dpkg -i"; }
expect "install ok installed $(dpkg-deb --field filestore_*_amd64.deb Version)" \
    "$(dpkg-query -W -f '${Status} ${Version}' filestore)"
expect hello "$(visitor 'fstore get greeting')"
visitor 'fstore -q check --deep'

echo "== manual pages"
for page in 'fstore(1)' 'filestore(5)' 'fstore-provider(7)'; do
    name=${page%(*} section=${page#*(}
    visitor "man ${section%)} $name | head -n 1 | grep -qF '$page'" || fail "man $page"
done

echo "== completion in bash, zsh and fish"
# shellcheck disable=SC2016  # for the user's shell
visitor 'source /usr/share/bash-completion/bash_completion
    set +eu
    _completion_loader fstore
    COMP_WORDS=(fstore ini) COMP_CWORD=1
    _fstore 2>/dev/null
    [ "${COMPREPLY[*]}" = init ]' || fail "bash"
# shellcheck disable=SC2016
expect _fstore "$(visitor 'zsh -fc "autoload -U compinit; compinit -u -D; print \$_comps[fstore]"')"
visitor "fish -c \"complete -C 'fstore ini'\" | grep -q ^init" || fail "fish"

echo "== a program with more rights than its caller takes no modules from the environment"
mkdir /opt/privileged
compile=$(pkg-config --cflags --libs filestore)
eval g++ "-DFILESTORE_INSTALLED_MODULES='\"/usr/lib/filestore\"'" /usr/share/doc/libfilestore-dev/examples/store_key.cpp "$compile" -o /opt/privileged/plain
cp /opt/privileged/plain /opt/privileged/trusted
chmod 4755 /opt/privileged/trusted
# shellcheck disable=SC2016  # for the shell of the user
visitor 'mkdir plain trusted
    cd plain
    ! FILESTORE_MODULES=$HOME /opt/privileged/plain >/dev/null 2>&1'
# shellcheck disable=SC2016
expect "alice's key is stored" "$(visitor 'cd trusted && FILESTORE_MODULES=$HOME /opt/privileged/trusted')"

echo "== debug symbols"
build_id=$(readelf -n /usr/bin/fstore | sed -n 's/.*Build ID: //p')
[ -f "/usr/lib/debug/.build-id/${build_id:0:2}/${build_id:2}.debug" ] || fail "no symbols of fstore"

echo "== links of the installed documents"
# Each file that a document links to stands beside it.
find /usr/share/doc/filestore* /usr/share/doc/libfilestore* -name '*.md*' >/older/documents
grep -q README.md /older/documents || fail "no document"
while read -r document; do
    zgrep -hoE '\]\([^)#:]+' "$document" | sed 's/^](//' | while read -r link; do
        target=$(dirname "$document")/$link
        [ -e "$target" ] || [ -e "$target.gz" ] || fail "$document: $link"
    done
done </older/documents

echo "== the tests of the source package"
autopkgtest -B ./*.dsc -- null >/older/log 2>&1 || { tail -n 200 /older/log; fail "autopkgtest"; }

echo "== removal"
# shellcheck disable=SC2046  # a list of words
dpkg --purge $(for package in *_amd64.deb *_all.deb; do dpkg-deb -f "$package" Package; done) >/dev/null
left=$(named_so | comm -13 /older/before -)
[ -z "$left" ] || fail "left behind: $left"
echo "passed"
