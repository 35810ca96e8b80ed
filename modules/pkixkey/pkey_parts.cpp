#include "modules/pkixkey/pkey_parts.h"

#include <array>
#include <iterator>
#include <utility>

#include <openssl/core_names.h>

#include "modules/pkixkey/ed25519_point.h"

namespace {

constexpr int kLeastRsaBits = 1024;  // smaller ones are broken
constexpr int kMostRsaBits = 16384;  // larger ones only cost time
// Larger ones only cost time as well, and OpenSSL does not use them with a large modulus.
constexpr int kMostExponentBits = 64;

// A number in memory that is wiped, as are the copies that OpenSSL makes of it; none
// when it has more bits than any number of a key.
ossl::Number numberOf(Bytes bytes) {
    ossl::Number number(bytes.size() > kMostRsaBits / 8 ? nullptr : BN_secure_new());
    return number != nullptr &&
                   BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), number.get()) != nullptr
               ? std::move(number)
               : nullptr;
}

bool isRsaModulus(const BIGNUM* n) {
    const int bits = n == nullptr ? 0 : BN_num_bits(n);
    return bits >= kLeastRsaBits && bits <= kMostRsaBits && BN_is_odd(n) == 1;
}

// With an exponent of 1 everybody signs, and an even one has no inverse.
bool isRsaExponent(const BIGNUM* e) {
    return e != nullptr && BN_num_bits(e) <= kMostExponentBits && BN_is_odd(e) == 1 &&
           BN_is_one(e) == 0;
}

bool isBelow(const BIGNUM* number, const BIGNUM* limit) {
    return number != nullptr && BN_is_zero(number) == 0 && BN_cmp(number, limit) < 0;
}

// A key of named parts.
class Builder {
public:
    bool number(const char* name, const BIGNUM* value) {
        return OSSL_PARAM_BLD_push_BN(builder_.get(), name, value) == 1;
    }
    bool text(const char* name, const char* value) {
        return OSSL_PARAM_BLD_push_utf8_string(builder_.get(), name, value, 0) == 1;
    }
    bool bytes(const char* name, Bytes value) {
        return OSSL_PARAM_BLD_push_octet_string(builder_.get(), name, value.data(), value.size()) ==
               1;
    }
    explicit operator bool() const { return builder_ != nullptr; }

    Status make(const char* algorithm, int selection, ossl::Pkey& made) {
        const ossl::PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, algorithm, nullptr));
        const ossl::Params params(OSSL_PARAM_BLD_to_param(builder_.get()));
        EVP_PKEY* key = nullptr;
        const bool good = ctx != nullptr && params != nullptr &&
                          EVP_PKEY_fromdata_init(ctx.get()) == 1 &&
                          EVP_PKEY_fromdata(ctx.get(), &key, selection, params.get()) == 1;
        made.reset(key);
        return good ? kOk : kIo;
    }

private:
    ossl::ParamBuilder builder_{OSSL_PARAM_BLD_new()};
};

// A curve's group, and a point of it in uncompressed form.
class CurvePoint {
public:
    explicit CurvePoint(const PkeyType& type)
        : type_(type), group_(EC_GROUP_new_by_curve_name(type.curve)) {
        if (group_ != nullptr) {
            point_.reset(EC_POINT_new(group_.get()));
        }
    }

    const EC_GROUP* group() const { return group_.get(); }

    // False for whatever is no point of the curve. The point at infinity, which makes
    // every signature right, is of neither form.
    bool read(Bytes encoded) {
        const bool whole = encoded.size() == 1 + 2 * type_.scalarBytes &&
                           encoded[0] == POINT_CONVERSION_UNCOMPRESSED;
        const bool compressed = encoded.size() == 1 + type_.scalarBytes &&
                                (encoded[0] & ~1) == POINT_CONVERSION_COMPRESSED;
        return (whole || compressed) && point_ != nullptr &&
               EC_POINT_oct2point(group_.get(), point_.get(), encoded.data(), encoded.size(),
                                  nullptr) == 1;
    }

    bool multiply(const BIGNUM* scalar) {
        return point_ != nullptr &&
               EC_POINT_mul(group_.get(), point_.get(), scalar, nullptr, nullptr, nullptr) == 1;
    }

    // No bytes on failure.
    Bytes uncompressed() {
        return Bytes(bytes_).first(EC_POINT_point2oct(group_.get(), point_.get(),
                                                      POINT_CONVERSION_UNCOMPRESSED, bytes_.data(),
                                                      bytes_.size(), nullptr));
    }

private:
    const PkeyType& type_;
    ossl::Group group_;
    ossl::Point point_;
    std::array<unsigned char, 1 + 2 * 66> bytes_{};
};

Status makeEc(const PkeyType& type, Bytes point, const BIGNUM* scalar, ossl::Pkey& made) {
    Builder builder;
    if (point.empty() || !builder || !builder.text(OSSL_PKEY_PARAM_GROUP_NAME, type.curveName) ||
        !builder.bytes(OSSL_PKEY_PARAM_PUB_KEY, point) ||
        (scalar != nullptr && !builder.number(OSSL_PKEY_PARAM_PRIV_KEY, scalar))) {
        return kIo;
    }
    return builder.make(type.name, scalar == nullptr ? EVP_PKEY_PUBLIC_KEY : EVP_PKEY_KEYPAIR,
                        made);
}

}  // namespace

Status makeRsa(const RsaPublicParts& open, const RsaPrivateParts* secret, ossl::Pkey& made) {
    const ossl::Number n = numberOf(open.modulus);
    const ossl::Number e = numberOf(open.exponent);
    if (!isRsaModulus(n.get()) || !isRsaExponent(e.get())) {
        return kMalformed;
    }
    Builder builder;
    if (!builder || !builder.number(OSSL_PKEY_PARAM_RSA_N, n.get()) ||
        !builder.number(OSSL_PKEY_PARAM_RSA_E, e.get())) {
        return kIo;
    }
    if (secret == nullptr) {
        return builder.make("RSA", EVP_PKEY_PUBLIC_KEY, made);
    }
    const struct {
        const char* name;
        Bytes bytes;
        bool prime;
    } parts[] = {
        {OSSL_PKEY_PARAM_RSA_D, secret->exponent, false},
        {OSSL_PKEY_PARAM_RSA_FACTOR1, secret->primes[0], true},
        {OSSL_PKEY_PARAM_RSA_FACTOR2, secret->primes[1], true},
        {OSSL_PKEY_PARAM_RSA_EXPONENT1, secret->exponents[0], false},
        {OSSL_PKEY_PARAM_RSA_EXPONENT2, secret->exponents[1], false},
        {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, secret->coefficient, false},
    };
    ossl::Number numbers[std::size(parts)];  // the builder does not copy them
    for (std::size_t i = 0; i != std::size(parts); ++i) {
        numbers[i] = numberOf(parts[i].bytes);
        const BIGNUM* const number = numbers[i].get();
        if (!isBelow(number, n.get()) || (parts[i].prime && BN_is_odd(number) == 0)) {
            return kMalformed;
        }
        if (!builder.number(parts[i].name, number)) {
            return kIo;
        }
    }
    return builder.make("RSA", EVP_PKEY_KEYPAIR, made);
}

Status makeEcPublic(const PkeyType& type, Bytes point, ossl::Pkey& made) {
    CurvePoint read(type);
    return read.read(point) ? makeEc(type, read.uncompressed(), nullptr, made) : kMalformed;
}

Status makeEcPrivate(const PkeyType& type, Bytes scalar, Bytes point, ossl::Pkey& made) {
    CurvePoint open(type);
    const ossl::Number secret = numberOf(scalar);
    if (open.group() == nullptr) {
        return kIo;
    }
    if (scalar.size() > type.scalarBytes ||
        !isBelow(secret.get(), EC_GROUP_get0_order(open.group()))) {
        return kMalformed;
    }
    BN_set_flags(secret.get(), BN_FLG_CONSTTIME);
    if (point.empty()) {
        return open.multiply(secret.get()) ? makeEc(type, open.uncompressed(), secret.get(), made)
                                           : kIo;
    }
    return open.read(point) ? makeEc(type, open.uncompressed(), secret.get(), made) : kMalformed;
}

Status makeEd25519Public(Bytes point, ossl::Pkey& made) {
    if (const Status status = checkEd25519Point(point); status != kOk) {
        return status;
    }
    made.reset(
        EVP_PKEY_new_raw_public_key_ex(nullptr, "ED25519", nullptr, point.data(), point.size()));
    return made == nullptr ? kIo : kOk;
}

Status makeEd25519Private(Bytes seed, ossl::Pkey& made) {
    if (seed.size() != 32) {
        return kMalformed;
    }
    made.reset(
        EVP_PKEY_new_raw_private_key_ex(nullptr, "ED25519", nullptr, seed.data(), seed.size()));
    return made == nullptr ? kIo : kOk;
}
