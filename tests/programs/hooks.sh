#!/bin/bash
# shellcheck disable=SC2154,SC2086  # $work and $log are of support.sh, and have no blanks
# certbot and dehydrated, with the hooks that `fstore renew-hook` writes and an authority of our own.

authority=https://localhost:14000/dir

start_authority() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout authority.key \
        -out authority.pem -subj /CN=localhost -addext subjectAltName=DNS:localhost -days 2 2>/dev/null
    cat >authority.json <<CONFIGURATION
{"pebble": {"listenAddress": "127.0.0.1:14000", "managementListenAddress": "127.0.0.1:15000",
 "certificate": "$work/authority.pem", "privateKey": "$work/authority.key",
 "httpPort": 5002, "tlsPort": 5001}}
CONFIGURATION
    pebble-challtestsrv -http01 '' -https01 '' -tlsalpn01 '' -dns01 127.0.0.1:8053 \
        -defaultIPv6 '' -management 127.0.0.1:8055 >>"$log" 2>&1 &
    names=$!
    PEBBLE_VA_NOSLEEP=1 PEBBLE_WFE_NONCEREJECT=0 pebble -config authority.json \
        -dnsserver 127.0.0.1:8053 >>"$log" 2>&1 &
    authority_process=$!
    sleep 1
    env -u OPENSSL_CONF curl -sS --retry 10 --retry-delay 1 --retry-connrefused \
        --cacert authority.pem $authority >/dev/null
    env -u OPENSSL_CONF curl -sS --cacert authority.pem https://localhost:15000/roots/0 \
        >authority-root.pem
}

# hook CLIENT HOST FOLDER OPTION...
hook() {
    local client=$1 host=$2 folder=$3
    shift 3
    fstore -q --key-file hooks.keyfile -D /srv/hooks renew-hook "$client" "$host" \
        --chain "$work/$folder/chain.pem" --ref "$work/$folder/key.ref" \
        --reload "touch $work/$folder.reloaded" "$@"
}

# What the hook did: "deployed, reloaded" if the pair is that of the client's file, and was loaded.
outcome() {
    local folder=$1 certificate=$2 key
    cmp "$folder/chain.pem" "$certificate" || return
    key=$(openssl pkey -in "$folder/key.ref" -pubout) || return
    [ "$key" = "$(openssl x509 -in "$folder/chain.pem" -noout -pubkey)" ] || return
    printf deployed
    [ -e "$folder.reloaded" ] && echo ", reloaded"
}

differs() {
    [ -s "$2" ] && [ "$(cat "$2")" != "$1" ] && echo differs
}

run_certbot() {
    env -u OPENSSL_CONF REQUESTS_CA_BUNDLE=authority.pem certbot "$@" --quiet --non-interactive \
        --server $authority --config-dir certbot --work-dir certbot/work --logs-dir certbot/logs
}

# Its deploy hooks are for renewals; what was issued before is imported by running the hook.
try_certbot() {
    local lineage=certbot/live/certbot.example.com turn before
    mkdir -p certbot/renewal-hooks/deploy
    hook certbot certbot.example.com renewed-certbot --empty-key \
        -o certbot/renewal-hooks/deploy/filestore
    run_certbot certonly --standalone --http-01-port 5002 -d certbot.example.com --agree-tos \
        --register-unsafely-without-email
    RENEWED_LINEAGE=$work/$lineage certbot/renewal-hooks/deploy/filestore
    expect "certbot, issued" "deployed, reloaded" outcome renewed-certbot $lineage/fullchain.pem
    for turn in first second; do
        before=$(cat $lineage/fullchain.pem)
        rm -f renewed-certbot.reloaded
        run_certbot renew --force-renewal --no-random-sleep-on-renew >>"$log" 2>&1
        expect "certbot, $turn forced renewal" "deployed, reloaded" \
            outcome renewed-certbot $lineage/fullchain.pem
        expect "certbot, $turn forced renewal, a new certificate" "differs" \
            differs "$before" $lineage/fullchain.pem
    done
}

run_dehydrated() {
    env -u OPENSSL_CONF CURL_CA_BUNDLE=$work/authority.pem dehydrated --config dehydrated.conf "$@"
}

try_dehydrated() {
    local folder=$work/dehydrated/certs/dehydrated.example.com
    mkdir -p dehydrated/challenges/.well-known/acme-challenge
    echo dehydrated.example.com >dehydrated.txt
    hook dehydrated dehydrated.example.com renewed-dehydrated --empty-key -o dehydrated.hook
    cat >dehydrated.conf <<CONFIGURATION
CA=$authority
BASEDIR=$work/dehydrated
DOMAINS_TXT=$work/dehydrated.txt
WELLKNOWN=$work/dehydrated/challenges/.well-known/acme-challenge
HOOK=$work/dehydrated.hook
CONTACT_EMAIL=
CONFIGURATION
    python3 -m http.server --bind 127.0.0.1 --directory dehydrated/challenges 5002 >>"$log" 2>&1 &
    local pages=$!
    run_dehydrated --register --accept-terms >>"$log" 2>&1
    local turn before=
    for turn in issued "renewed by force"; do
        rm -f renewed-dehydrated.reloaded
        run_dehydrated --cron --force >>"$log" 2>&1
        expect "dehydrated, $turn" "deployed, reloaded" \
            outcome renewed-dehydrated "$folder/fullchain.pem"
        expect "dehydrated, $turn, a new certificate" "differs" \
            differs "$before" "$folder/fullchain.pem"
        before=$(cat "$folder/fullchain.pem")
    done
    kill $pages
}

# The account's keys are the clients' own; those of the certificates may not stay.
try_hooks() {
    new_database hooks
    export OPENSSL_CONF=$work/hooks.cnf
    start_authority
    try_certbot
    try_dehydrated
    kill $authority_process $names
    rm -rf authority.key certbot/accounts dehydrated/accounts
    OPENSSL_CONF=$work/openssl.cnf
}
