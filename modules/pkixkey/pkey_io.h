// Asymmetric keys between bytes and OpenSSL's form. Any thread may call these.
#ifndef MODULES_PKIXKEY_PKEY_IO_H
#define MODULES_PKIXKEY_PKEY_IO_H

#include "api/t_key.h"
#include "cmn/status.h"
#include "modules/common/ossl.h"
#include "modules/common/wiped_bytes.h"
#include "modules/pkixkey/key_value.h"

enum class PkeyForm {
    kPrivateKeyInfo,  // PKCS#8, DER
    kPublicKeyInfo,   // SubjectPublicKeyInfo, DER
    kRaw              // as TKey::getRaw(): private where the bytes can be either
};

struct AnyPkey {
    ossl::Pkey pkey;
    TKey::key_type_t type = TKey::kNone;
    bool isPrivate = false;
};

// Reads a key of the type, or, with kNone and not from kRaw, of any type that we
// have. kMalformed when the bytes are no such key from the first to the last.
Status readPkey(PkeyForm form, TKey::key_type_t type, Bytes bytes, AnyPkey& key);

// The key, or its public part, in the form; kEnd when it has no private part.
Status writePkey(const AnyPkey& key, PkeyForm form, WipedBytes& bytes);

// The bits of the public key: PKCS#1 of RSA, the uncompressed point of EC, the 32
// bytes of Ed25519.
Status publicBits(const AnyPkey& key, WipedBytes& bytes);

#endif  // MODULES_PKIXKEY_PKEY_IO_H
