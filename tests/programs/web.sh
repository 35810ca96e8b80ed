#!/bin/bash
# shellcheck disable=SC2154,SC2086  # $work and $log are of support.sh, and have no blanks
# Servers of web pages and what stands in front of them.

nginx_server() {
    printf 'server {\n listen %s ssl;\n ssl_certificate %s.pem;\n ssl_certificate_key %s.ref;\n' \
        "$1" "$work/$2" "$work/$2"
    printf ' location / { return 200 "ok"; }\n}\n'
}

try_nginx() {
    cat >nginx.conf <<CONFIGURATION
user www-data;
pid $work/nginx.pid;
error_log $work/nginx.log;
events {}
http {
    access_log off;
    $(nginx_server 8440 rsa)
    $(nginx_server 8441 ec)
    $(nginx_server 8442 ed)
    $(nginx_server 8443 pss)
}
CONFIGURATION
    nginx -c $work/nginx.conf
    expect "nginx, RSA, workers as www-data" "ok200" get rsa.example.com 8440
    expect "nginx, ECDSA" "ok200" get ec.example.com 8441
    expect "nginx, Ed25519" "Verification: OK" handshake ed.example.com 8442
    expect "nginx, RSA-PSS" "Verification: OK" handshake pss.example.com 8443
    nginx -c $work/nginx.conf -s reload
    sleep 1
    expect "nginx after a reload" "ok200" get rsa.example.com 8440
    try_nginx_failures
    expect "nginx still serves after reloads that failed" "ok200" get rsa.example.com 8440
    nginx -c $work/nginx.conf -s quit
}

# Whatever is wrong, the log says it.
try_nginx_failures() {
    expect "nginx's log names the wrong password" \
        "wrong password or key:unlocking the database in /srv/keys with $work/wrong" \
        env OPENSSL_CONF=$work/wrong.cnf nginx -t -c $work/nginx.conf
    keys_for root
    local folder=/srv/root-keys key
    local test=(env "OPENSSL_CONF=$folder/openssl.cnf" nginx -t -c "$work/nginx.conf")
    key=$(fstore -D $folder show --for rsa.example.com --type key | sed -n 's/^address *//p')
    cp -a $folder/db/keys keys.aside
    truncate -s -1 $folder/db/keys/????????
    expect "nginx's log names the damaged record" "$key" "${test[@]}"
    rm "$folder/db/$key.dsc"
    expect "nginx's log says which key is missing" \
        "no certificate for rsa.example.com can be used: 1 without its key in the database" "${test[@]}"
    rm -r $folder/db/keys
    mv keys.aside $folder/db/keys
    mv $folder/db $folder/aside
    expect "nginx's log names the missing database" $folder "${test[@]}"
    mv $folder/aside $folder/db
    flock -x -o $folder sleep 30 &
    sleep 0.3
    expect "nginx's log names the database that another process uses" \
        "another process uses the database" "${test[@]}"
    kill $!
    remove_keys_of root
}

try_haproxy() {
    cat >haproxy.cfg <<CONFIGURATION
global
    user haproxy
    daemon
    pidfile $work/haproxy.pid
defaults
    mode http
    timeout client 5s
    timeout connect 5s
    timeout server 5s
frontend bundle
    bind 127.0.0.1:8444 ssl crt $work/ec.bundle
    bind 127.0.0.1:8447 ssl crt $work/rsa.bundle
    http-request return status 200 content-type text/plain string ok
CONFIGURATION
    haproxy -q -f haproxy.cfg
    expect "haproxy, certificate and reference in one file" "ok200" get ec.example.com 8444
    expect "haproxy, RSA" "ok200" get rsa.example.com 8447
    kill "$(cat haproxy.pid)"
}

# apache_main NAME: all but the hosts
apache_main() {
    printf 'LoadModule %s_module /usr/lib/apache2/modules/mod_%s.so\n' \
        mpm_event mpm_event authz_core authz_core ssl ssl
    cat <<CONFIGURATION
ServerName localhost
User www-data
Group www-data
DefaultRuntimeDir $work
PidFile $work/$1.pid
ErrorLog $work/$1.log
DocumentRoot $work/html
CONFIGURATION
}

# apache_host PORT HOST CERTIFICATE REFERENCE
apache_host() {
    cat <<CONFIGURATION
Listen $1
<VirtualHost *:$1>
    ServerName $2
    SSLEngine on
    SSLCertificateFile $work/$3
    SSLCertificateKeyFile $work/$4
</VirtualHost>
CONFIGURATION
}

try_apache() {
    {
        apache_main apache
        apache_host 8448 rsa.example.com rsa.pem rsa.ref
        apache_host 8449 ed.example.com ed.pem ed.ref
    } >apache.conf
    mkdir -p html
    printf ok >html/index.html
    OPENSSL_CONF=$work/wrong.cnf apache2 -f $work/apache.conf 2>>"$log"
    expect "Apache's log names the wrong password" \
        "wrong password or key (unlocking the database in /srv/keys" cat apache.log
    apache2 -f $work/apache.conf
    expect "Apache, RSA, workers as www-data" "Verification: OK" handshake rsa.example.com 8448
    expect "Apache, Ed25519" "Verification: OK" handshake ed.example.com 8449
    apache2 -f $work/apache.conf -k graceful
    sleep 1
    expect "Apache after a graceful restart" "Verification: OK" handshake rsa.example.com 8448
    apache2 -f $work/apache.conf -k stop
}

try_lighttpd() {
    cat >lighttpd.conf <<CONFIGURATION
server.modules = ("mod_openssl")
server.document-root = "$work/html"
server.port = 8451
server.username = "www-data"
ssl.engine = "enable"
ssl.pemfile = "$work/rsa.pem"
ssl.privkey = "$work/rsa.ref"
CONFIGURATION
    keys_for www-data
    in_background env OPENSSL_CONF=/srv/www-data-keys/openssl.cnf lighttpd -D -f lighttpd.conf
    expect "lighttpd, RSA, as www-data" "Verification: OK" handshake rsa.example.com 8451
    end_background
    remove_keys_of www-data
}

try_stunnel() {
    cat >stunnel.conf <<CONFIGURATION
pid = $work/stunnel.pid
output = $work/stunnel.log
[serve]
accept = 127.0.0.1:8445
cert = $work/ed.pem
key = $work/ed.ref
exec = /usr/bin/printf
execArgs = printf HTTP/1.0\ 200\ OK\r\n\r\nok
CONFIGURATION
    stunnel4 stunnel.conf 2>/dev/null
    expect "stunnel, Ed25519" "Verification: OK" handshake ed.example.com 8445
    kill "$(cat stunnel.pid)"
}
