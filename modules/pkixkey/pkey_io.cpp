#include "modules/pkixkey/pkey_io.h"

#include <algorithm>
#include <optional>
#include <utility>

#include <openssl/core_names.h>
#include <openssl/crypto.h>

#include "modules/pkixkey/der.h"
#include "modules/pkixkey/pkey_parts.h"
#include "modules/pkixkey/pkey_type.h"

namespace {

bool equal(Bytes left, Bytes right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

const PkeyType* findPkeyType(Bytes algorithm) {
    for (const PkeyType& known : kPkeyTypes) {
        if (equal(known.algorithm, algorithm)) {
            return &known;
        }
    }
    return nullptr;
}

// Takes a version: 0 or 1, the only ones there are.
bool takeVersion(der::Reader& reader, unsigned int& version) {
    Bytes number;
    if (!reader.takeNumber(number) || number.size() > 1 || (number.size() == 1 && number[0] != 1)) {
        return false;
    }
    version = static_cast<unsigned int>(number.size());
    return true;
}

// Takes an AlgorithmIdentifier; null when it is of no type that we have.
const PkeyType* takeType(der::Reader& reader) {
    Bytes algorithm;
    return reader.take(der::kSequence, algorithm) ? findPkeyType(algorithm) : nullptr;
}

// PrivateKeyInfo of RFC 5208, and its second version, OneAsymmetricKey of RFC 5958.
struct PrivateKeyInfo {
    const PkeyType* type = nullptr;
    Bytes key;
    std::optional<Bytes> publicBits;  // of the second version
};

bool readPrivateKeyInfo(Bytes bytes, PrivateKeyInfo& info) {
    der::Reader outer(bytes);
    Bytes contents;
    if (!outer.takeLast(der::kSequence, contents)) {
        return false;
    }
    der::Reader fields(contents);
    unsigned int version = 0;
    if (!takeVersion(fields, version) || (info.type = takeType(fields)) == nullptr ||
        !fields.take(der::kOctetString, info.key)) {
        return false;
    }
    Bytes attributes;
    if (fields.nextIs(der::kConstructed0) &&
        (!fields.take(der::kConstructed0, attributes) || !der::isAttributes(attributes))) {
        return false;
    }
    // The version says whether the public key follows.
    return (version == 0 || fields.takeBits(der::kPrimitive1, info.publicBits.emplace())) &&
           fields.done();
}

// RSAPublicKey of RFC 8017.
Status readRsaPublic(Bytes bytes, AnyPkey& key) {
    der::Reader outer(bytes);
    Bytes contents;
    if (!outer.takeLast(der::kSequence, contents)) {
        return kMalformed;
    }
    der::Reader numbers(contents);
    RsaPublicParts open;
    const bool read =
        numbers.takeNumber(open.modulus) && numbers.takeNumber(open.exponent) && numbers.done();
    return read ? makeRsa(open, nullptr, key.pkey) : kMalformed;
}

// RSAPrivateKey of RFC 8017, of two primes.
Status readRsaPrivate(Bytes bytes, AnyPkey& key) {
    der::Reader outer(bytes);
    Bytes contents;
    if (!outer.takeLast(der::kSequence, contents)) {
        return kMalformed;
    }
    der::Reader numbers(contents);
    unsigned int version = 0;
    RsaPublicParts open;
    RsaPrivateParts secret;
    if (!takeVersion(numbers, version) || version != 0) {
        return kMalformed;
    }
    for (Bytes* const number :
         {&open.modulus, &open.exponent, &secret.exponent, &secret.primes[0], &secret.primes[1],
          &secret.exponents[0], &secret.exponents[1], &secret.coefficient}) {
        if (!numbers.takeNumber(*number)) {
            return kMalformed;
        }
    }
    return numbers.done() ? makeRsa(open, &secret, key.pkey) : kMalformed;
}

// ECPrivateKey of RFC 5915. What was written when leading zeros of the scalar were left
// out is read, too.
Status readEcPrivate(const PkeyType& type, Bytes bytes, AnyPkey& key) {
    der::Reader outer(bytes);
    Bytes contents;
    if (!outer.takeLast(der::kSequence, contents)) {
        return kMalformed;
    }
    der::Reader fields(contents);
    unsigned int version = 0;
    Bytes scalar;
    if (!takeVersion(fields, version) || version != 1 || !fields.take(der::kOctetString, scalar)) {
        return kMalformed;
    }
    Bytes curve;
    if (fields.nextIs(der::kConstructed0) &&
        (!fields.take(der::kConstructed0, curve) || !equal(curve, type.curveId()))) {
        return kMalformed;
    }
    Bytes point;
    if (fields.nextIs(der::kConstructed1)) {
        Bytes tagged;
        if (!fields.take(der::kConstructed1, tagged)) {
            return kMalformed;
        }
        der::Reader inner(tagged);
        if (!inner.takeBits(der::kBitString, point) || !inner.done() || point.empty()) {
            return kMalformed;
        }
    }
    return fields.done() ? makeEcPrivate(type, scalar, point, key.pkey) : kMalformed;
}

// CurvePrivateKey of RFC 8410.
Status readEd25519Private(Bytes bytes, AnyPkey& key) {
    der::Reader outer(bytes);
    Bytes seed;
    return outer.takeLast(der::kOctetString, seed) ? makeEd25519Private(seed, key.pkey)
                                                   : kMalformed;
}

// What the private key of a PrivateKeyInfo contains.
Status readPrivate(const PkeyType& type, Bytes bytes, AnyPkey& key) {
    key.type = type.type;
    key.isPrivate = true;
    if (type.type == TKey::kRsa) {
        return readRsaPrivate(bytes, key);
    }
    return type.curve != 0 ? readEcPrivate(type, bytes, key) : readEd25519Private(bytes, key);
}

// What the bits of a SubjectPublicKeyInfo contain.
Status readPublic(const PkeyType& type, Bytes bytes, AnyPkey& key) {
    key.type = type.type;
    key.isPrivate = false;
    if (type.type == TKey::kRsa) {
        return readRsaPublic(bytes, key);
    }
    return type.curve != 0 ? makeEcPublic(type, bytes, key.pkey)
                           : makeEd25519Public(bytes, key.pkey);
}

// Whether the public key that came beside a private one is its own. Nobody could find a
// difference later, for it is not kept.
Status checkPublicBits(const PkeyType& type, const AnyPkey& key, Bytes bits) {
    AnyPkey beside;
    if (const Status status = readPublic(type, bits, beside); status != kOk) {
        return status;
    }
    WipedBytes own;
    if (const Status status = publicBits(key, own); status != kOk) {
        return status;
    }
    WipedBytes others;
    if (const Status status = publicBits(beside, others); status != kOk) {
        return status;
    }
    return equal(own.view(), others.view()) ? kOk : kMalformed;
}

bool isWanted(const PkeyType& found, TKey::key_type_t wanted) {
    return wanted == TKey::kNone || wanted == found.type;
}

Status readPrivateKeyInfo(TKey::key_type_t wanted, Bytes bytes, AnyPkey& key) {
    PrivateKeyInfo info;
    if (!readPrivateKeyInfo(bytes, info) || !isWanted(*info.type, wanted)) {
        return kMalformed;
    }
    const Status status = readPrivate(*info.type, info.key, key);
    return status == kOk && info.publicBits ? checkPublicBits(*info.type, key, *info.publicBits)
                                            : status;
}

Status readPublicKeyInfo(TKey::key_type_t wanted, Bytes bytes, AnyPkey& key) {
    der::Reader outer(bytes);
    Bytes contents;
    if (!outer.takeLast(der::kSequence, contents)) {
        return kMalformed;
    }
    der::Reader fields(contents);
    const PkeyType* const type = takeType(fields);
    Bytes bits;
    if (type == nullptr || !isWanted(*type, wanted) || !fields.takeBits(der::kBitString, bits) ||
        !fields.done()) {
        return kMalformed;
    }
    return readPublic(*type, bits, key);
}

Status readRaw(TKey::key_type_t wanted, Bytes bytes, AnyPkey& key) {
    const PkeyType* const type = findPkeyType(wanted);
    if (type == nullptr) {
        return kInvalid;
    }
    key.type = wanted;
    key.isPrivate = true;
    if (type->type == TKey::kRsa) {
        const Status status = readRsaPrivate(bytes, key);
        return status == kMalformed ? readPublic(*type, bytes, key) : status;
    }
    if (type->curve == 0) {
        return makeEd25519Private(bytes, key.pkey);
    }
    if (bytes.size() == type->scalarBytes) {
        return makeEcPrivate(*type, bytes, {}, key.pkey);
    }
    // A compressed point could be a scalar with a byte too many.
    return bytes.size() == 1 + 2 * type->scalarBytes ? readPublic(*type, bytes, key) : kMalformed;
}

const char* structureOf(PkeyForm form) {
    switch (form) {
        case PkeyForm::kPrivateKeyInfo:
            return "PrivateKeyInfo";
        case PkeyForm::kPublicKeyInfo:
            return "SubjectPublicKeyInfo";
        default:
            return "type-specific";
    }
}

Status encode(const EVP_PKEY* pkey, int selection, PkeyForm form, WipedBytes& bytes) {
    const ossl::Encoder encoder(
        OSSL_ENCODER_CTX_new_for_pkey(pkey, selection, "DER", structureOf(form), nullptr));
    unsigned char* der = nullptr;
    std::size_t size = 0;
    if (encoder == nullptr || OSSL_ENCODER_to_data(encoder.get(), &der, &size) != 1) {
        return kIo;
    }
    const bool copied = bytes.assign({der, size});
    OPENSSL_clear_free(der, size);
    return copied ? kOk : kNoMemory;
}

Status privateScalar(const EVP_PKEY* pkey, std::size_t size, WipedBytes& bytes) {
    BIGNUM* found = nullptr;
    const bool has = EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_PRIV_KEY, &found) == 1;
    const ossl::Number scalar(found);
    if (!has) {
        return kIo;
    }
    if (!bytes.reset(size)) {
        return kNoMemory;
    }
    return BN_bn2binpad(scalar.get(), bytes.data(), static_cast<int>(size)) < 0 ? kIo : kOk;
}

}  // namespace

Status readPkey(PkeyForm form, TKey::key_type_t type, Bytes bytes, AnyPkey& key) {
    const ossl::QuietErrors quiet;
    AnyPkey read;
    const Status status = form == PkeyForm::kPrivateKeyInfo  ? readPrivateKeyInfo(type, bytes, read)
                          : form == PkeyForm::kPublicKeyInfo ? readPublicKeyInfo(type, bytes, read)
                                                             : readRaw(type, bytes, read);
    if (status == kOk) {
        key = std::move(read);
    }
    return status;
}

Status writePkey(const AnyPkey& key, PkeyForm form, WipedBytes& bytes) {
    const ossl::QuietErrors quiet;
    if (form == PkeyForm::kPrivateKeyInfo && !key.isPrivate) {
        return kEnd;
    }
    if (form == PkeyForm::kRaw && key.type != TKey::kRsa) {
        if (!key.isPrivate) {
            return publicBits(key, bytes);
        }
        const std::size_t size = findPkeyType(key.type)->scalarBytes;
        if (key.type != TKey::kEd25519) {
            return privateScalar(key.pkey.get(), size, bytes);
        }
        std::size_t given = size;
        if (!bytes.reset(size)) {
            return kNoMemory;
        }
        return EVP_PKEY_get_raw_private_key(key.pkey.get(), bytes.data(), &given) == 1 ? kOk : kIo;
    }
    const bool whole = form != PkeyForm::kPublicKeyInfo && key.isPrivate;
    return encode(key.pkey.get(), whole ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY, form, bytes);
}

Status publicBits(const AnyPkey& key, WipedBytes& bytes) {
    const ossl::QuietErrors quiet;
    if (key.type == TKey::kRsa) {
        return encode(key.pkey.get(), EVP_PKEY_PUBLIC_KEY, PkeyForm::kRaw, bytes);
    }
    std::size_t size = 1 + 2 * findPkeyType(key.type)->scalarBytes;  // the most it can be
    if (!bytes.reset(size)) {
        return kNoMemory;
    }
    if (EVP_PKEY_get_octet_string_param(key.pkey.get(), OSSL_PKEY_PARAM_PUB_KEY, bytes.data(),
                                        bytes.size(), &size) != 1) {
        return kIo;
    }
    bytes.dropBack(bytes.size() - size);
    return kOk;
}
