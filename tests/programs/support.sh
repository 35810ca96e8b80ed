#!/bin/bash
# What the tests of programs share; each of their files defines functions that run.sh calls.

failed=0
work=/srv/programs
log=$work/log  # what servers print that keep no log of their own

# expect NAME TEXT COMMAND...: the command's output has the text
expect() {
    local name=$1 text=$2 output
    shift 2
    output=$("$@" 2>&1)
    if [ -n "$text" ] && grep -qF -- "$text" <<<"$output"; then
        echo "passed: $name"
    else
        echo "FAILED: $name: $output"
        failed=$((failed + 1))
    fi
}

# What a client sees that verifies the server's certificate: "ok200".
get() {
    env -u OPENSSL_CONF curl -sS --retry 5 --retry-delay 1 --retry-connrefused --cacert root.pem \
        --resolve "$1:$2:127.0.0.1" "https://$1:$2/" -w '%{http_code} '
}

# handshake HOST PORT [OPTION...]: "Verification: OK" of a client that verifies the server
handshake() {
    local host=$1 port=$2 output
    shift 2
    for _ in {1..50}; do
        output=$(env -u OPENSSL_CONF openssl s_client -connect "127.0.0.1:$port" -CAfile root.pem \
            -verify_hostname "$host" -verify_return_error -brief "$@" </dev/null 2>&1)
        grep -q "errno=111" <<<"$output" || break
        sleep 0.1
    done
    echo "$output"
}

# wait_for COMMAND: until this line of a shell succeeds, for 30 seconds; what then fails says why
wait_for() {
    for _ in {1..300}; do
        sh -c "$1" 2>/dev/null && return
        sleep 0.1
    done
}

# in_background COMMAND...: a server that stays in the foreground; stop it with end_background
in_background() {
    "$@" >>"$log" 2>&1 </dev/null &
    background=$!
}
end_background() {
    kill "$background"
    wait "$background" 2>/dev/null
}

# new_database NAME: an empty one in /srv/NAME that a key file opens, and NAME.cnf for its provider.
new_database() {
    local folder=/srv/$1
    mkdir -m 700 "$folder"
    fstore -q -D "$folder" --password-file password init --cost 14
    fstore -q -D "$folder" --password-file password key add --key-file "$work/$1.keyfile"
    fstore -D "$folder" --key-file "$work/$1.keyfile" openssl-conf >"$1.cnf"
}

# keys_for USER: a copy of the database in /srv/USER-keys, for a server that loads its key when it has
# given up root's rights already; remove_keys_of USER.
keys_for() {
    local folder=/srv/$1-keys
    cp -a /srv/keys "$folder"
    cp password "$folder/password"
    fstore -D "$folder" --password-file "$folder/password" openssl-conf >"$folder/openssl.cnf"
    chown -R "$1:" "$folder"
}
remove_keys_of() {
    rm -r "/srv/$1-keys"
}

files_with_keys() {
    grep -rlE "PRIVATE KEY-----" /srv /var /tmp /run /etc /root /home 2>/dev/null || echo none
}
