#!/bin/bash
# shellcheck disable=SC2154,SC2086  # $work and $log are of support.sh, and have no blanks
# The units for systemd. It is not process 1 here: it judges them, and their command lines run with the
# variables that it would set.

units=/etc/systemd/system
examples=/usr/share/doc/filestore/systemd

# run_expiry FILE VARIABLE...: the last command line of this unit or drop-in
run_expiry() {
    local file=$1
    shift
    env "$@" sh -c "$(sed -n 's/^ExecStart=//p' "$file" | tail -n 1)"
    echo "exit code $?"
}

# What systemd says of units; nothing is what it should say.
verify() {
    systemd-analyze --man=no verify "$@" 2>&1
    echo "exit code $?"
}

# verify_with_drop_in UNIT FILE
verify_with_drop_in() {
    mkdir -p $units/$1.service.d
    cp $examples/$2 $units/$1.service.d/fstore.conf
    grep -qx "LoadCredential=fstore.key:/etc/fstore/.*" $units/$1.service.d/fstore.conf &&
        verify $1.service
}

# How much of the machine systemd's own judgement leaves open to the unit: 10 is all of it.
exposure() {
    systemd-analyze security --offline=yes $1.service |
        sed -n 's/.*Overall exposure level for \([^:]*\): \([0-9.]*\) .*/\1 \2/p'
}

# is_at_most FIGURE FIGURE
is_at_most() {
    awk "BEGIN { exit !($1 <= $2) }" && echo "yes"
}

try_units() {
    local name figure
    cp $examples/fstore-*.service $examples/fstore-*.timer $units
    expect "the timer and the services of fstore" "exit code 0" \
        verify $units/fstore-expiry.timer $units/fstore-expiry.service $units/fstore-expiry-alarm.service
    for name in nginx apache2 haproxy; do
        exposure $name >>open-before
        expect "the drop-in of $name" "exit code 0" verify_with_drop_in $name $name-fstore.conf
    done
    expect "the drop-in for encrypted certificates" "exit code 0" \
        verify_with_drop_in fstore-expiry fstore-expiry-key.conf
    # docs/programs.md has these figures.
    for name in fstore-expiry:1.3 fstore-expiry-alarm:9.6 nginx:5.8 apache2:5.8 haproxy:5.8; do
        figure=$(exposure ${name%:*})
        echo "systemd's judgement of $figure; before: $(grep "^${name%:*}\.service" open-before)"
        expect "systemd judges ${name%:*} as documented" "yes" \
            is_at_most "${figure#* }" ${name#*:}
    done
    try_expiry
    try_credentials
}

try_expiry() {
    local unit=$units/fstore-expiry.service drop_in=$examples/fstore-expiry-key.conf
    expect "nothing expires within a day" "exit code 0" \
        run_expiry $unit FSTORE_DIR=/srv/keys EXPIRES_WITHIN=1d
    expect "something expires within a month" "exit code 3" \
        run_expiry $unit FSTORE_DIR=/srv/keys EXPIRES_WITHIN=30d
    expect "a missing database is a failure, too" "exit code 50" \
        run_expiry $unit FSTORE_DIR=/srv/none EXPIRES_WITHIN=30d
    mkdir -p encrypted credentials/fstore-expiry.service
    fstore -q -D encrypted --password-file password init --cost 14
    fstore -q -D encrypted --password-file password import --encrypt rsa.pem
    fstore -q -D encrypted --password-file password key add \
        --key-file credentials/fstore-expiry.service/fstore.key
    expect "nobody can know when encrypted certificates expire" "exit code 3" \
        run_expiry $unit FSTORE_DIR=encrypted EXPIRES_WITHIN=1d
    expect "with a credential it is known that none does within a day" "exit code 0" \
        run_expiry $drop_in FSTORE_DIR=encrypted EXPIRES_WITHIN=1d \
        CREDENTIALS_DIRECTORY=$work/credentials/fstore-expiry.service
    expect "and that one does within a month" "exit code 3" \
        run_expiry $drop_in FSTORE_DIR=encrypted EXPIRES_WITHIN=30d \
        CREDENTIALS_DIRECTORY=$work/credentials/fstore-expiry.service
}

# nginx as its unit starts it: a configuration without a password, and a key file that is a credential.
try_credentials() {
    local credentials=$work/credentials/nginx.service variables
    mkdir -p $credentials
    fstore -q -D /srv/keys --password-file password key add --key-file $credentials/fstore.key
    fstore -D /srv/keys openssl-conf >/etc/ssl/fstore.cnf
    mapfile -t variables < <(sed -n 's/^Environment=//p' $examples/nginx-fstore.conf)
    variables+=("CREDENTIALS_DIRECTORY=$credentials")
    printf 'pid %s/unit.pid;\nerror_log %s/unit.log;\nevents {}\nhttp {\n access_log off;\n%s\n}\n' \
        $work $work "$(nginx_server 8463 rsa)" >unit.conf
    env -u OPENSSL_CONF "${variables[@]}" nginx -c $work/unit.conf
    expect "nginx with the variables of its drop-in" "ok200" get rsa.example.com 8463
    env -u OPENSSL_CONF "${variables[@]}" nginx -c $work/unit.conf -s reload
    sleep 1
    expect "nginx with the variables of its drop-in, after a reload" "ok200" \
        get rsa.example.com 8463
    env -u OPENSSL_CONF "${variables[@]}" nginx -c $work/unit.conf -s quit
    rm $credentials/fstore.key
    expect "nginx without its credential says what is missing" "no password or key was given" \
        env -u OPENSSL_CONF "${variables[@]}" nginx -t -c $work/unit.conf
}
