#!/bin/sh
# Makes the corpus of import_file_fuzz anew: one small file of every form.
#
#     fuzz/make_import_file_corpus.sh
set -eu
here=$(cd "$(dirname "$0")" && pwd)
made=$(mktemp -d)
trap 'rm -rf "$made"' EXIT
sh "$here/../tests/lib/pki/make_pki.sh" "$made"
corpus=$here/corpus/import_file_fuzz
rm -rf "$corpus"
mkdir -p "$corpus"
cd "$made"
for file in leaf.der leaf.pem leaf.trusted.pem crl.der crl.pem request.der request.pem \
    ed25519.key ed25519.key.der p256.old.pem p256.old.der p256.parameters.pem koblitz.key \
    explicit.key nameless.der unsealed.p12; do
    cp "$file" "$corpus/$(echo "$file" | tr . _)"
done
# Few rounds: a fuzzer's time is better spent on other bytes.
openssl pkcs8 -topk8 -in p256.key -passout pass:secret -iter 1 -out "$corpus/sealed_pem"
openssl pkcs8 -topk8 -in p256.key -passout pass:secret -iter 1 -outform DER \
    -out "$corpus/sealed_der"
openssl ec -in p256.key -aes128 -passout pass:secret -out "$corpus/sealed_old_pem" 2>&1
openssl pkcs12 -export -inkey p256.key -in leaf.pem -name Server -iter 1 -passout pass:secret \
    -out "$corpus/sealed_p12"
openssl pkcs12 -export -inkey p256.key -in leaf.pem -legacy -iter 1 -passout pass:secret \
    -out "$corpus/old_p12"
cat leaf.pem crl.pem ed25519.key >"$corpus/several_pem"
head -c 300 leaf.pem >"$corpus/cut_off_pem"
head -c 200 leaf.der >"$corpus/cut_off_der"
printf 'neither' >"$corpus/neither"
: >"$corpus/empty"
