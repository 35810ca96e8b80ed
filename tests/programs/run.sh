#!/bin/bash
# shellcheck disable=SC2154,SC2086  # $work and $failed are of support.sh, and have no blanks
# Runs in the root that scripts/programs_test.sh has made: a database with keys of four kinds, which
# are nowhere else on the disk, and programs that serve TLS with them. Each is checked by a handshake
# that a client verifies, and the last line says how many did not pass.
#
# Three groups of them run at once, each with databases of its own; each prints how long it took for
# what.
#
#     run.sh [TRY...]    only these functions, as "try_nginx", one after the other
set -u
for part in support web services languages renewals hooks units looks keystores; do
    # shellcheck source=tests/programs/support.sh
    . "/programs/$part.sh"
done
mkdir -p $work /srv/keys
cd $work || exit 1

# The database, references and certificates; then no key is left outside of it.
make_files() {
    openssl req -x509 -newkey ed25519 -nodes -keyout root.key -out root.pem -subj /CN=Root -days 9
    local name
    for name in rsa ec ed pss; do
        case $name in
            rsa) openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out $name.key ;;
            ec) openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out $name.key ;;
            ed) openssl genpkey -algorithm ED25519 -out $name.key ;;
            pss) openssl genpkey -algorithm RSA-PSS -pkeyopt rsa_keygen_bits:2048 -out $name.key ;;
        esac
        openssl req -new -key $name.key -subj "/CN=$name.example.com" -out request
        echo "subjectAltName = DNS:$name.example.com" >extensions
        openssl x509 -req -in request -CA root.pem -CAkey root.key -days 9 -extfile extensions \
            -out $name.pem
        fstore -q import $name.key $name.pem root.pem
        fstore ref "fstore:///?for=$name.example.com&type=key" -o $name.ref
        cat $name.pem $name.ref >$name.bundle
    done
    rm -f ./*.key
}

make_database() {
    export FSTORE_DIR=/srv/keys FSTORE_PASSWORD_FILE=$work/password
    chmod 700 /srv/keys
    printf secret >password
    printf wrong >wrong
    chmod 600 password wrong
    fstore -q init --cost 14
    rm -f /etc/ssl/private/*  # what a package has made for examples
    make_files 2>make_files.log || { cat make_files.log; exit 1; }
    fstore openssl-conf --password-file password >openssl.cnf
    fstore openssl-conf --password-file wrong >wrong.cnf
    unset FSTORE_PASSWORD_FILE FSTORE_DIR
}

# run_tries TRY...: one after the other; the exit code is the number of failures
run_tries() {
    local try began
    for try; do
        began=$SECONDS
        "$try"
        echo "$try: $((SECONDS - began)) s"
    done
    return $failed
}

# In a shell of its own, which has its own count of failures.
run_group() {
    local group=$1
    shift
    (run_tries "$@") >"$group.out" 2>&1 &
    groups+=("$group:$!")
}

run_all() {
    local groups=() group
    run_group renewals try_renewals
    run_group hooks try_hooks
    run_group others try_nginx try_haproxy try_apache try_lighttpd try_stunnel try_mosquitto \
        try_redis try_postgresql try_socat try_openvpn try_python_and_curl try_php try_ruby \
        try_s_server try_ssh try_units try_looks try_keystores
    for group in "${groups[@]}"; do
        wait "${group#*:}"
        failed=$((failed + $?))
        cat "${group%:*}.out"
    done
}

[ -e openssl.cnf ] || make_database
export OPENSSL_CONF=$work/openssl.cnf
if [ $# -eq 0 ]; then
    run_all
else
    run_tries "$@"
fi
expect "no plain key in any file" "none" files_with_keys
echo "$failed failed, in $SECONDS s"
[ "$failed" -eq 0 ]
