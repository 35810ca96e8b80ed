#!/bin/bash
# shellcheck disable=SC2154,SC2086  # $work and $log are of support.sh, and have no blanks
# One renewal after the other, deployed to three servers, while clients connect all the time.

renewals=${RENEWALS:-200}

renewal_configurations() {
    cat >renewed-nginx.conf <<CONFIGURATION
user www-data;
pid $work/renewed-nginx.pid;
error_log $work/renewed-nginx.log;
events {}
http {
    access_log off;
    server {
        listen 8460 ssl;
        ssl_certificate $work/renewed-nginx/chain.pem;
        ssl_certificate_key $work/renewed-nginx/key.ref;
        location / { return 200 "ok"; }
    }
}
CONFIGURATION
    cat >renewed-haproxy.cfg <<CONFIGURATION
global
    user haproxy
    log stderr local0 warning
defaults
    mode http
    timeout client 5s
    timeout connect 5s
    timeout server 5s
frontend renewed
    bind 127.0.0.1:8461 ssl crt $work/renewed-haproxy.pem
    http-request return status 200 content-type text/plain string ok
CONFIGURATION
    {
        apache_main renewed-apache
        apache_host 8462 renewed.example.com renewed-apache/chain.pem renewed-apache/key.ref
    } >renewed-apache.conf
    mkdir -p html
    printf ok >html/index.html
    # A signal that comes while haproxy starts anew for the last one is lost, so the reload waits.
    cat >reload-haproxy <<'SCRIPT'
#!/bin/sh
loaded() { grep -c "Loading success" haproxy.log; }
before=$(loaded)
kill -USR2 "$1"
for _ in $(seq 600); do
    [ "$(loaded)" -gt "$before" ] && exit 0
    sleep 0.05
done
exit 1
SCRIPT
    chmod +x reload-haproxy
}

# renew NUMBER: another key and certificate, which ends later than those before
renew() {
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout renewed.key \
        -subj /CN=renewed.example.com -addext subjectAltName=DNS:renewed.example.com -out request
    openssl x509 -req -in request -CA renewals.pem -CAkey renewals.key -days "$((9 + $1))" \
        -set_serial "$1" -copy_extensions copy -out renewed.pem
    fstore -q import renewed.key renewed.pem
    rm renewed.key
} 2>>renewals.log

# deploy_everywhere [OPTION]: to the three at once; with --reload, to servers that run
deploy_everywhere() {
    local reload=$* running=() process
    fstore -q deploy renewed.example.com --chain renewed-nginx/chain.pem \
        --ref renewed-nginx/key.ref ${reload:+--reload "nginx -c $work/renewed-nginx.conf -s reload"} &
    running+=($!)
    fstore -q deploy renewed.example.com --chain renewed-haproxy.pem \
        --ref renewed-haproxy.pem ${reload:+--reload "./reload-haproxy $haproxy"} &
    running+=($!)
    fstore -q deploy renewed.example.com --chain renewed-apache/chain.pem \
        --ref renewed-apache/key.ref ${reload:+--reload "apache2 -f $work/renewed-apache.conf -k graceful"} &
    running+=($!)
    for process in "${running[@]}"; do
        wait "$process" || return 1
    done
}

renew_and_deploy() {
    local number
    for ((number = 2; number <= renewals; number++)); do
        renew "$number" || return 1
        deploy_everywhere --reload || return 1
    done
}

try_renewals() {
    new_database renewals
    export FSTORE_DIR=/srv/renewals FSTORE_KEY_FILE=$work/renewals.keyfile
    export OPENSSL_CONF=$work/renewals.cnf
    openssl req -x509 -newkey ed25519 -nodes -keyout renewals.key -out renewals.pem -days 9 \
        -subj /CN=Renewals 2>renewals.log
    renewal_configurations
    renew 1
    deploy_everywhere
    nginx -c $work/renewed-nginx.conf
    apache2 -f $work/renewed-apache.conf
    haproxy -W -f renewed-haproxy.cfg >haproxy.log 2>&1 &
    haproxy=$!
    wait_for 'grep -q "Loading success" haproxy.log'
    python3 /programs/clients.py $renewals >clients.out 2>&1 &
    local clients=$!
    sleep 0.5
    expect "$renewals renewals are deployed" "all of them" \
        bash -c "$(declare -f renew deploy_everywhere renew_and_deploy)
            work=$work renewals=$renewals haproxy=$haproxy
            renew_and_deploy && echo all of them"
    touch renewals.done
    wait $clients
    expect "no handshake failed, no pair was mixed, the last certificate is served" "failures: 0," \
        cat clients.out
    grep handshakes clients.out
    rm renewals.key
    nginx -c $work/renewed-nginx.conf -s quit
    apache2 -f $work/renewed-apache.conf -k stop
    kill $haproxy
    unset FSTORE_DIR FSTORE_KEY_FILE
    OPENSSL_CONF=$work/openssl.cnf
}
