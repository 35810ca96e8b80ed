#!/bin/bash
# shellcheck disable=SC2154  # $work is of support.sh
# What is made to be looked at, or read by other programs: the report in a browser, metrics, exports.

try_looks() {
    local open=(fstore -D /srv/keys --password-file "$work/password")
    expect "the report in a browser" "page is good" look_at_report "${open[@]}"
    expect "promtool takes the metrics" "good" check_metrics "${open[@]}"
    printf exported >out-password
    chmod 600 out-password
    "${open[@]}" export --for rsa.example.com --format p12 --chain --out-password-file out-password \
        -f -o rsa.p12
    expect "certtool reads PKCS#12" "BEGIN ENCRYPTED PRIVATE KEY" \
        certtool --p12-info --inraw --infile rsa.p12 --password exported
    expect "certtool reads its chain" "certificates: 2" certificates_in rsa.p12
    expect "pk12util reads PKCS#12" "rsa.example.com" pk12util -l rsa.p12 -W exported
    "${open[@]}" export --for rsa.example.com --format p7 --chain -f -o rsa.p7
    expect "certtool reads PKCS#7" "Number of certificates: 2" \
        certtool --p7-info --inder --infile rsa.p7
    rm rsa.p12 rsa.p7 out-password
}

look_at_report() {
    "$@" -q report -f -o report.html && env -u OPENSSL_CONF python3 /programs/page.py report.html looks
}

check_metrics() {
    "$@" metrics >fstore.prom && grep -q not_after fstore.prom && promtool check metrics <fstore.prom &&
        echo good
}

certificates_in() {
    echo "certificates: $(certtool --p12-info --inraw --infile "$1" --password exported |
        grep -c "BEGIN CERTIFICATE")"
}
