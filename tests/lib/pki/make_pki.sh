#!/bin/sh
# Makes keys, certificates, CRLs, requests and PKCS#12 files of every form that is
# imported, and beside each what the openssl program says about it.
#
#     tests/lib/pki/make_pki.sh FOLDER
set -eu
cd "$1"
exec 2>make_pki.log

cat >openssl.cnf <<'CONFIG'
[req]
distinguished_name = name
prompt = no
utf8 = yes
string_mask = utf8only
[name]
CN = unused
[root]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[leaf]
basicConstraints = CA:FALSE
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = @alternatives
[alternatives]
DNS.1 = www.example.com
DNS.2 = *.example.org
IP.1 = 192.0.2.1
IP.2 = 2001:db8::1
email.1 = admin@example.com
URI.1 = https://example.com/path
RID.1 = 1.2.3.4
otherName.1 = 1.3.6.1.4.1.311.20.2.3;UTF8:user@example.com
dirName.1 = directory
[directory]
O = Elsewhere
[odd]
subjectAltName = DNS:nameless.example.com
[ca]
default_ca = issuer
[issuer]
database = index.txt
crlnumber = crlnumber.txt
default_md = sha256
[crl]
authorityKeyIdentifier = keyid
CONFIG
export OPENSSL_CONF="$PWD/openssl.cnf"

key() { # NAME ALGORITHM [OPTION...]
    name=$1 algorithm=$2
    shift 2
    openssl genpkey -quiet -algorithm "$algorithm" "$@" -out "$name.key"
    openssl pkcs8 -topk8 -nocrypt -in "$name.key" -outform DER -out "$name.key.der"
    openssl pkey -in "$name.key" -pubout -outform DER | sha256sum | cut -c 1-64 >"$name.key.spki"
}
key rsa RSA -pkeyopt rsa_keygen_bits:2048
key pss RSA-PSS -pkeyopt rsa_keygen_bits:2048
key p256 EC -pkeyopt ec_paramgen_curve:P-256
key p384 EC -pkeyopt ec_paramgen_curve:P-384
key koblitz EC -pkeyopt ec_paramgen_curve:secp256k1
key explicit EC -pkeyopt ec_paramgen_curve:P-256 -pkeyopt ec_param_enc:explicit
key ed25519 ED25519
key ed448 ED448
key x25519 X25519

# Other forms of the same two keys.
openssl rsa -in rsa.key -traditional -out rsa.old.pem
openssl rsa -in rsa.key -traditional -outform DER -out rsa.old.der
openssl ec -in p256.key -out p256.old.pem
openssl ec -in p256.key -outform DER -out p256.old.der
{ openssl ecparam -name prime256v1; cat p256.old.pem; } >p256.parameters.pem
openssl rsa -in rsa.key -traditional -aes128 -passout pass:secret -out rsa.encrypted.old.pem
openssl pkcs8 -topk8 -in rsa.key -passout pass:secret -out rsa.encrypted.pem
openssl pkcs8 -topk8 -in rsa.key -passout pass:secret -outform DER -out rsa.encrypted.der
openssl pkcs8 -topk8 -in p256.key -passout pass:secret -scrypt -out p256.encrypted.scrypt.pem

certificate() { # NAME KEY EXTENSIONS DAYS SUBJECT [OPTION...]
    name=$1 with=$2 extensions=$3 days=$4 subject=$5
    shift 5
    openssl req -new -utf8 -multivalue-rdn -key "$with.key" -subj "$subject" -out "$name.csr"
    openssl x509 -req -in "$name.csr" -extfile openssl.cnf -extensions "$extensions" \
        -days "$days" -out "$name.pem" "$@"
    openssl x509 -in "$name.pem" -outform DER -out "$name.der"
}
root="/C=DE/O=Example/CN=Example Root"
certificate root rsa root 3650 "$root" -signkey rsa.key -set_serial 0x00ff10
certificate leaf p256 leaf 365 '/C=DE/O=M\/#\\\;ller, "GmbH"/OU=first+L=Kln 東京/CN= www' \
    -CA root.pem -CAkey rsa.key -set_serial 1
certificate nameless p384 odd 365 / -CA root.pem -CAkey rsa.key -set_serial 0
certificate ended ed25519 leaf 1 /CN=ended -CA root.pem -CAkey rsa.key -set_serial 2
certificate middle p384 root 365 /CN=Middle -CA root.pem -CAkey rsa.key -set_serial 3
certificate longer p384 root 900 /CN=Middle -CA root.pem -CAkey rsa.key -set_serial 4
certificate deep ed25519 leaf 365 /CN=deep -CA middle.pem -CAkey p384.key -set_serial 5
certificate impostor p384 root 3650 "$root" -signkey p384.key -set_serial 6
openssl x509 -in leaf.pem -trustout -setalias "my alias" -addtrust serverAuth \
    -out leaf.trusted.pem

openssl req -new -key ed25519.key -subj /CN=asker -addext "subjectAltName=DNS:asker.example.com" \
    -out request.pem
openssl req -in request.pem -outform DER -out request.der

: >index.txt
echo 1000 >crlnumber.txt
openssl ca -revoke leaf.pem -keyfile rsa.key -cert root.pem
openssl ca -gencrl -keyfile rsa.key -cert root.pem -crldays 30 -crlexts crl -out crl.pem
openssl crl -in crl.pem -outform DER -out crl.der

pkcs12() { # NAME OPTION...
    name=$1
    shift
    openssl pkcs12 -export -inkey p256.key -in leaf.pem -certfile root.pem -name "Café Server" \
        -out "$name.p12" "$@"
}
pkcs12 modern -passout pass:secret
pkcs12 empty -passout pass:
pkcs12 unsealed -keypbe NONE -certpbe NONE -nomac -passout pass:
pkcs12 macless -nomac -passout pass:secret
pkcs12 old -legacy -passout pass:secret

for name in root leaf nameless ended; do
    {
        openssl x509 -in $name.pem -noout -subject -issuer -nameopt RFC2253,-esc_msb
        openssl x509 -in $name.pem -noout -serial -fingerprint -sha256
        openssl x509 -in $name.pem -noout -startdate -enddate -dateopt iso_8601
        openssl x509 -in $name.pem -noout -ext subjectKeyIdentifier,authorityKeyIdentifier
    } >$name.said
done
{
    openssl crl -in crl.pem -noout -issuer -nameopt RFC2253,-esc_msb
    openssl crl -in crl.pem -noout -lastupdate -nextupdate -dateopt iso_8601
    openssl crl -in crl.pem -noout -crlnumber -fingerprint -sha256
} >crl.said
openssl req -in request.pem -noout -subject -nameopt RFC2253,-esc_msb >request.said
