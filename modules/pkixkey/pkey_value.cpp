#include "modules/pkixkey/pkey_value.h"

#include <cstring>

#include <openssl/core_names.h>
#include <openssl/rsa.h>

#include "modules/pkixkey/pkey_type.h"

namespace {

// What OAEP with SHA-256 takes of a block: two digests and two bytes.
constexpr std::size_t kOaepOverhead = 66;

Status give(const WipedBytes& bytes, TBuf& into) {
    return into.append(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

ossl::PkeyCtx contextOf(EVP_PKEY* pkey) {
    return ossl::PkeyCtx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr));
}

using CipherInit = int (*)(EVP_PKEY_CTX*, const OSSL_PARAM*);
using CipherStep = int (*)(EVP_PKEY_CTX*, unsigned char*, std::size_t*, const unsigned char*,
                           std::size_t);

// RSA-OAEP of one block, either way.
Status oaep(EVP_PKEY* pkey, CipherInit init, CipherStep step, Bytes in, TBuf& into) {
    const ossl::QuietErrors quiet;
    char padding[] = OSSL_PKEY_RSA_PAD_MODE_OAEP;
    char digest[] = "SHA256";
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_ASYM_CIPHER_PARAM_PAD_MODE, padding, 0),
        OSSL_PARAM_construct_utf8_string(OSSL_ASYM_CIPHER_PARAM_OAEP_DIGEST, digest, 0),
        OSSL_PARAM_construct_end(),
    };
    const ossl::PkeyCtx ctx = contextOf(pkey);
    WipedBytes out;
    std::size_t size = static_cast<std::size_t>(EVP_PKEY_get_size(pkey));
    if (!out.reset(size)) {
        return kNoMemory;
    }
    if (ctx == nullptr || init(ctx.get(), params) != 1 ||
        step(ctx.get(), out.data(), &size, in.data(), in.size()) != 1) {
        return kIo;
    }
    out.dropBack(out.size() - size);
    return give(out, into);
}

}  // namespace

Status PkeyValue::written(PkeyForm form, TBuf& into) const {
    WipedBytes bytes;
    const Status status = writePkey(key_, form, bytes);
    return status == kOk ? give(bytes, into) : status;
}

Status PkeyValue::encoded(TBuf& into) const {
    return written(key_.isPrivate ? PkeyForm::kPrivateKeyInfo : PkeyForm::kPublicKeyInfo, into);
}

Status PkeyValue::raw(TBuf& into) const {
    return written(PkeyForm::kRaw, into);
}

Status PkeyValue::bigNumber(const char* name, TBuf& into) const {
    if (key_.type != TKey::kRsa) {
        return kEnd;
    }
    const ossl::QuietErrors quiet;
    BIGNUM* found = nullptr;
    const bool has = EVP_PKEY_get_bn_param(key_.pkey.get(), name, &found) == 1;
    const ossl::Number number(found);
    WipedBytes bytes;
    if (!has) {
        return kIo;
    }
    if (!bytes.reset(static_cast<std::size_t>(BN_num_bytes(number.get())))) {
        return kNoMemory;
    }
    BN_bn2bin(number.get(), bytes.data());
    return give(bytes, into);
}

Status PkeyValue::param(TKey::aka_t which, TBuf& into) const {
    const char* const curve = findPkeyType(key_.type)->curveName;
    switch (which) {
        case TKey::kPublicKeyInfo:
            return written(PkeyForm::kPublicKeyInfo, into);
        case TKey::kPrivateKeyInfo:
            return written(PkeyForm::kPrivateKeyInfo, into);
        case TKey::kModulus:
            return bigNumber(OSSL_PKEY_PARAM_RSA_N, into);
        case TKey::kPublicExponent:
            return bigNumber(OSSL_PKEY_PARAM_RSA_E, into);
        case TKey::kPublicPoint: {
            if (key_.type == TKey::kRsa) {
                return kEnd;
            }
            WipedBytes point;
            const Status status = publicBits(key_, point);
            return status == kOk ? give(point, into) : status;
        }
        case TKey::kCurveName:
            return curve == nullptr ? kEnd : into.set(curve);
    }
    return kInvalid;
}

int PkeyValue::number(TKey::bka_t which) const {
    switch (which) {
        case TKey::kBits:
            return EVP_PKEY_get_bits(key_.pkey.get());
        case TKey::kIsPrivate:
            return key_.isPrivate ? 1 : 0;
        case TKey::kOutputSize:
            return EVP_PKEY_get_size(key_.pkey.get());
        default:
            return -1;
    }
}

Status PkeyValue::keyId(TBuf& into) const {
    WipedBytes bits;
    if (const Status status = publicBits(key_, bits); status != kOk) {
        return status;
    }
    const ossl::QuietErrors quiet;
    unsigned char digest[20];
    std::size_t size = 0;
    if (EVP_Q_digest(nullptr, "SHA1", nullptr, bits.data(), bits.size(), digest, &size) != 1) {
        return kIo;
    }
    return into.append(digest, static_cast<unsigned int>(size));
}

Status PkeyValue::sign(Bytes data, TBuf& into) const {
    if (!key_.isPrivate) {
        return kInvalid;
    }
    const ossl::QuietErrors quiet;
    const ossl::MdCtx ctx(EVP_MD_CTX_new());
    WipedBytes signature;
    std::size_t size = static_cast<std::size_t>(EVP_PKEY_get_size(key_.pkey.get()));
    if (ctx == nullptr || !signature.reset(size)) {
        return kNoMemory;
    }
    if (EVP_DigestSignInit_ex(ctx.get(), nullptr, findPkeyType(key_.type)->digest, nullptr, nullptr,
                              key_.pkey.get(), nullptr) != 1 ||
        EVP_DigestSign(ctx.get(), signature.data(), &size, data.data(), data.size()) != 1) {
        return kIo;
    }
    signature.dropBack(signature.size() - size);
    return give(signature, into);
}

Status PkeyValue::verify(Bytes data, Bytes signature) const {
    const ossl::QuietErrors quiet;
    const ossl::MdCtx ctx(EVP_MD_CTX_new());
    if (ctx == nullptr) {
        return kNoMemory;
    }
    const bool right = EVP_DigestVerifyInit_ex(ctx.get(), nullptr, findPkeyType(key_.type)->digest,
                                               nullptr, nullptr, key_.pkey.get(), nullptr) == 1 &&
                       EVP_DigestVerify(ctx.get(), signature.data(), signature.size(), data.data(),
                                        data.size()) == 1;
    return right ? kOk : kIo;
}

Status PkeyValue::encrypt(Bytes plain, TBuf& into) const {
    const auto block = static_cast<std::size_t>(EVP_PKEY_get_size(key_.pkey.get()));
    if (key_.type != TKey::kRsa || plain.size() > block - kOaepOverhead) {
        return kInvalid;
    }
    return oaep(key_.pkey.get(), EVP_PKEY_encrypt_init_ex, EVP_PKEY_encrypt, plain, into);
}

Status PkeyValue::decrypt(Bytes cipher, TBuf& into) const {
    if (key_.type != TKey::kRsa || !key_.isPrivate) {
        return kInvalid;
    }
    return oaep(key_.pkey.get(), EVP_PKEY_decrypt_init_ex, EVP_PKEY_decrypt, cipher, into);
}

Status PkeyValue::check() const {
    const ossl::QuietErrors quiet;
    const ossl::PkeyCtx ctx = contextOf(key_.pkey.get());
    if (ctx == nullptr) {
        return kNoMemory;
    }
    const int good = key_.isPrivate ? EVP_PKEY_check(ctx.get()) : EVP_PKEY_public_check(ctx.get());
    return good == 1 ? kOk : kIo;
}
