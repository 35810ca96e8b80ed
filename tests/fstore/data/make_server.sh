#!/bin/sh
# Makes the files of the manual page's and README's examples anew: a root and a server
# of it, for a hundred years. The names of their records follow from the bytes, so the
# examples have to follow, too.
#
#     tests/fstore/data/make_server.sh
set -eu
cd "$(dirname "$0")"
made=$(mktemp -d)
trap 'rm -rf "$made"' EXIT
cat >"$made/cnf" <<'CONFIG'
[req]
distinguished_name = name
[name]
[root]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[leaf]
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = DNS:www.example.com,DNS:example.com
CONFIG
for name in root server; do
    openssl genpkey -quiet -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$made/$name.key"
done
openssl req -new -x509 -config "$made/cnf" -extensions root -key "$made/root.key" \
    -subj "/O=Example/CN=Example Root" -days 36500 -set_serial 1 -out root.pem
openssl req -new -config "$made/cnf" -key "$made/server.key" \
    -subj "/O=Example/CN=www.example.com" -out "$made/server.csr"
openssl x509 -req -in "$made/server.csr" -extfile "$made/cnf" -extensions leaf -days 36500 \
    -CA root.pem -CAkey "$made/root.key" -set_serial 2 -out "$made/server.pem" 2>/dev/null
openssl pkcs12 -export -inkey "$made/server.key" -in "$made/server.pem" -certfile root.pem \
    -name server -passout pass:secret -out server.p12
for file in "$made/server.pem" root.pem; do
    openssl x509 -in "$file" -outform DER | sha256sum | cut -c 1-8
done
openssl pkcs8 -topk8 -nocrypt -in "$made/server.key" -outform DER | sha256sum | cut -c 1-8
