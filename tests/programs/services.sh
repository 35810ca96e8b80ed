#!/bin/bash
# shellcheck disable=SC2154,SC2086  # $work and $log are of support.sh, and have no blanks
# Databases, message brokers and tunnels.

try_mosquitto() {
    cat >mosquitto.conf <<CONFIGURATION
listener 8452
certfile $work/rsa.pem
keyfile $work/rsa.ref
allow_anonymous true
user mosquitto
CONFIGURATION
    keys_for mosquitto
    in_background env OPENSSL_CONF=/srv/mosquitto-keys/openssl.cnf mosquitto -c mosquitto.conf
    expect "mosquitto, RSA, as its own user" "Verification: OK" handshake rsa.example.com 8452
    end_background
    remove_keys_of mosquitto
}

try_redis() {
    in_background redis-server --port 0 --tls-port 8453 --tls-cert-file ec.pem \
        --tls-key-file ec.ref --tls-ca-cert-file root.pem --tls-auth-clients no --save ''
    expect "redis, a client that verifies the name" "Verification: OK" handshake ec.example.com 8453
    expect "redis, ECDSA" "PONG" env -u OPENSSL_CONF redis-cli -p 8453 --tls --cacert root.pem \
        --sni ec.example.com ping
    end_background
}

# PostgreSQL reads the key as its own user, and insists on a file that no other can read.
try_postgresql() {
    local programs=/usr/lib/postgresql/15/bin as=(setpriv --reuid postgres --regid postgres --clear-groups)
    keys_for postgres
    mkdir -p postgres
    chown postgres: postgres
    "${as[@]}" fstore -q -D /srv/postgres-keys deploy rsa.example.com \
        --chain $work/postgres/tls/chain.pem --ref $work/postgres/tls/key.ref --private
    "${as[@]}" $programs/initdb -D $work/postgres/data >/dev/null
    in_background env OPENSSL_CONF=/srv/postgres-keys/openssl.cnf "${as[@]}" $programs/postgres \
        -D $work/postgres/data -p 8454 -k '' -c listen_addresses=127.0.0.1 -c ssl=on \
        -c ssl_cert_file=$work/postgres/tls/chain.pem -c ssl_key_file=$work/postgres/tls/key.ref
    wait_for "$programs/pg_isready -q -h 127.0.0.1 -p 8454"
    expect "PostgreSQL, RSA, its own user, files of deploy" "TLSv1.3" env -u OPENSSL_CONF psql -tA \
        "host=rsa.example.com hostaddr=127.0.0.1 port=8454 user=postgres dbname=postgres \
        sslmode=verify-full sslrootcert=$work/root.pem" \
        -c "select version from pg_stat_ssl where pid = pg_backend_pid()"
    end_background
    remove_keys_of postgres
}

try_socat() {
    in_background socat OPENSSL-LISTEN:8455,fork,reuseaddr,cert=ec.pem,key=ec.ref,verify=0 \
        SYSTEM:'echo ok'
    expect "socat, ECDSA" "Verification: OK" handshake ec.example.com 8455
    end_background
}

# Two of them agree on keys; both have theirs in the database.
try_openvpn() {
    local common=(--dev null --ifconfig-noexec --ca root.pem --cipher AES-256-GCM --verb 3)
    in_background openvpn "${common[@]}" --proto tcp-server --local 127.0.0.1 --lport 8456 \
        --tls-server --dh none --cert rsa.pem --key rsa.ref
    wait_for "grep -q 'Listening for incoming TCP' $log"
    timeout 20 openvpn "${common[@]}" --proto tcp-client \
        --remote 127.0.0.1 8456 --nobind --tls-client --verify-x509-name rsa.example.com name \
        --cert ec.pem --key ec.ref >openvpn.log 2>&1 &
    local client=$!
    wait_for 'grep -q "Initialization Sequence Completed" openvpn.log'
    expect "OpenVPN, RSA" "Initialization Sequence Completed" cat openvpn.log "$log"
    kill $client
    end_background
}
