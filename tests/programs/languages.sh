#!/bin/bash
# shellcheck disable=SC2154,SC2086  # $work and $log are of support.sh, and have no blanks
# Languages with a library for TLS, and programs for the command line.

# A server in Python that wants a certificate of its client, which is curl.
try_python_and_curl() {
    python3 /programs/server.py 8446 rsa &
    sleep 1
    expect "Python as a server, curl with a client certificate" "commonName=ec" \
        curl -sS --retry 5 --retry-connrefused --cacert root.pem --cert ec.pem --key ec.ref \
        --resolve rsa.example.com:8446:127.0.0.1 https://rsa.example.com:8446/
    wait $!
}

try_php() {
    in_background php8.2 /programs/server.php 8457 rsa
    expect "PHP, RSA" "Verification: OK" handshake rsa.example.com 8457
    end_background
}

try_ruby() {
    in_background ruby3.1 /programs/server.rb 8458 ec
    expect "Ruby, ECDSA" "Verification: OK" handshake ec.example.com 8458
    end_background
}

try_s_server() {
    local name
    for name in rsa ec ed pss; do
        in_background openssl s_server -accept 8459 -cert $name.pem -key $name.ref -quiet
        expect "openssl s_server, $name" "Verification: OK" handshake $name.example.com 8459
        end_background
    done
}

# OpenSSH wants a file that nobody else can read, also of a reference. It knows Ed25519 keys in its own
# format only, so those cannot be had by reference.
try_ssh() {
    local name
    eval "$(ssh-agent)" >/dev/null
    for name in rsa ec; do
        fstore -q -D /srv/keys ref "fstore:///?for=$name.example.com&type=key" --private -o $name.ssh
        openssl x509 -in $name.pem -noout -pubkey >$name.spki
        ssh-keygen -i -m PKCS8 -f $name.spki >$name.pub
        expect "ssh-keygen -y, $name" "$(cat $name.pub)" ssh-keygen -y -f $name.ssh
        ssh-add -q $name.ssh
        expect "ssh-add, $name" "$(cat $name.pub)" ssh-add -L
        echo message >message
        ssh-keygen -q -Y sign -U -n file -f $name.pub message
        expect "the agent signs with it, $name" 'Good "file" signature' \
            ssh-keygen -Y check-novalidate -n file -s message.sig <message
        rm -f message message.sig
    done
    ssh-agent -k >/dev/null
}
