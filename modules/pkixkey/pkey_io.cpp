#include "modules/pkixkey/pkey_io.h"

#include <memory>
#include <utility>

#include <openssl/core_names.h>
#include <openssl/crypto.h>

#include "modules/pkixkey/pkey_type.h"

namespace {

constexpr int kLeastRsaBits = 1024;  // smaller ones are broken
constexpr int kMostRsaBits = 16384;  // larger ones only cost time

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

// Each reads all of the bytes or nothing.
ossl::Pkcs8 pkcs8Of(Bytes bytes) {
    const unsigned char* next = bytes.data();
    ossl::Pkcs8 read(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &next, static_cast<long>(bytes.size())));
    return next == bytes.data() + bytes.size() ? std::move(read) : nullptr;
}

ossl::PublicKeyInfo publicKeyInfoOf(Bytes bytes) {
    const unsigned char* next = bytes.data();
    ossl::PublicKeyInfo read(d2i_X509_PUBKEY(nullptr, &next, static_cast<long>(bytes.size())));
    return next == bytes.data() + bytes.size() ? std::move(read) : nullptr;
}

// PKCS#1. The decoder takes other structures too, which are ruled out before.
ossl::Pkey rsaKey(Bytes bytes, int selection) {
    if (pkcs8Of(bytes) != nullptr || publicKeyInfoOf(bytes) != nullptr) {
        return nullptr;
    }
    EVP_PKEY* decoded = nullptr;
    const ossl::Decoder decoder(OSSL_DECODER_CTX_new_for_pkey(
        &decoded, "DER", structureOf(PkeyForm::kRaw), "RSA", selection, nullptr, nullptr));
    const unsigned char* next = bytes.data();
    std::size_t left = bytes.size();
    const bool good =
        decoder != nullptr && OSSL_DECODER_from_data(decoder.get(), &next, &left) == 1 && left == 0;
    ossl::Pkey pkey(decoded);
    return good ? std::move(pkey) : nullptr;
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

// An EC key from its parts: the public point, and the private scalar or null.
ossl::Pkey ecKey(const PkeyType& type, Bytes point, const BIGNUM* scalar) {
    const ossl::ParamBuilder builder(OSSL_PARAM_BLD_new());
    const ossl::PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, type.name, nullptr));
    if (builder == nullptr || ctx == nullptr ||
        OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, type.curveName,
                                        0) != 1 ||
        OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                         point.size()) != 1 ||
        (scalar != nullptr &&
         OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar) != 1)) {
        return nullptr;
    }
    const ossl::Params params(OSSL_PARAM_BLD_to_param(builder.get()));
    EVP_PKEY* made = nullptr;
    if (params == nullptr || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &made,
                          scalar == nullptr ? EVP_PKEY_PUBLIC_KEY : EVP_PKEY_KEYPAIR,
                          params.get()) != 1) {
        return nullptr;
    }
    return ossl::Pkey(made);
}

// The scalar's key with its public point, which OpenSSL does not work out itself.
ossl::Pkey ecKeyOfScalar(const PkeyType& type, Bytes bytes) {
    const ossl::Group group(EC_GROUP_new_by_curve_name(type.curve));
    const ossl::Number scalar(BN_secure_new());  // copies of a secure one are wiped, too
    if (group == nullptr || scalar == nullptr ||
        BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), scalar.get()) == nullptr ||
        BN_is_zero(scalar.get()) == 1 ||
        BN_cmp(scalar.get(), EC_GROUP_get0_order(group.get())) >= 0) {
        return nullptr;
    }
    BN_set_flags(scalar.get(), BN_FLG_CONSTTIME);
    const ossl::Point point(EC_POINT_new(group.get()));
    unsigned char encoded[1 + 2 * 66];
    if (point == nullptr ||
        EC_POINT_mul(group.get(), point.get(), scalar.get(), nullptr, nullptr, nullptr) != 1) {
        return nullptr;
    }
    const std::size_t size = EC_POINT_point2oct(
        group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded, sizeof encoded, nullptr);
    return size == 0 ? nullptr : ecKey(type, {encoded, size}, scalar.get());
}

void readRaw(const PkeyType& type, Bytes bytes, AnyPkey& key) {
    key.isPrivate = true;
    if (type.type == TKey::kRsa) {
        key.pkey = rsaKey(bytes, EVP_PKEY_KEYPAIR);
        if (key.pkey == nullptr) {
            key.isPrivate = false;
            key.pkey = rsaKey(bytes, EVP_PKEY_PUBLIC_KEY);
        }
    } else if (bytes.size() != type.scalarBytes) {
        key.isPrivate = false;
        if (type.curve != 0 && bytes.size() == 1 + 2 * type.scalarBytes &&
            bytes[0] == POINT_CONVERSION_UNCOMPRESSED) {
            key.pkey = ecKey(type, bytes, nullptr);
        }
    } else if (type.curve != 0) {
        key.pkey = ecKeyOfScalar(type, bytes);
    } else {
        key.pkey.reset(EVP_PKEY_new_raw_private_key_ex(nullptr, type.name, nullptr, bytes.data(),
                                                       bytes.size()));
    }
}

bool isCurve(const EVP_PKEY* pkey, int curve) {
    char name[32];
    std::size_t size = 0;
    int explicitly = 0;
    // A curve spelled out is refused: it may differ from the one that it resembles.
    return EVP_PKEY_get_group_name(pkey, name, sizeof name, &size) == 1 &&
           OBJ_txt2nid(name) == curve &&
           (EVP_PKEY_get_int_param(pkey, OSSL_PKEY_PARAM_EC_DECODED_FROM_EXPLICIT_PARAMS,
                                   &explicitly) != 1 ||
            explicitly == 0);
}

bool isOf(const PkeyType& type, const EVP_PKEY* pkey) {
    if (EVP_PKEY_is_a(pkey, type.name) != 1) {
        return false;
    }
    if (type.type == TKey::kRsa) {
        const int bits = EVP_PKEY_get_bits(pkey);
        return bits >= kLeastRsaBits && bits <= kMostRsaBits;
    }
    return type.curve == 0 || isCurve(pkey, type.curve);
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
    if (form == PkeyForm::kPrivateKeyInfo) {
        const ossl::Pkcs8 info = pkcs8Of(bytes);
        read.pkey.reset(info == nullptr ? nullptr : EVP_PKCS82PKEY(info.get()));
        read.isPrivate = true;
    } else if (form == PkeyForm::kPublicKeyInfo) {
        const ossl::PublicKeyInfo info = publicKeyInfoOf(bytes);
        read.pkey.reset(info == nullptr ? nullptr : X509_PUBKEY_get(info.get()));
    } else if (const PkeyType* const wanted = findPkeyType(type)) {
        readRaw(*wanted, bytes, read);
    } else {
        return kInvalid;
    }
    if (read.pkey == nullptr) {
        return kMalformed;
    }
    for (const PkeyType& known : kPkeyTypes) {
        if ((type == TKey::kNone || type == known.type) && isOf(known, read.pkey.get())) {
            read.type = known.type;
            // Points may have come compressed; what we give is always the same.
            if (known.curve != 0 && EVP_PKEY_set_utf8_string_param(
                                        read.pkey.get(), OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT,
                                        OSSL_PKEY_EC_POINT_CONVERSION_FORMAT_UNCOMPRESSED) != 1) {
                return kIo;
            }
            key = std::move(read);
            return kOk;
        }
    }
    return kMalformed;
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
