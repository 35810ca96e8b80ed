#include "modules/pkixkey/ed25519_point.h"

#include <algorithm>

#include "modules/common/ossl.h"

namespace {

// Integers modulo p = 2^255 - 19. A result is null when there was no memory for it, and
// so is what is made of null.
class Field {
public:
    const BIGNUM* p() const { return p_.get(); }
    BN_CTX* ctx() const { return ctx_.get(); }

    ossl::Number plus(const ossl::Number& a, const ossl::Number& b) const {
        return with(BN_mod_add, a, b);
    }
    ossl::Number minus(const ossl::Number& a, const ossl::Number& b) const {
        return with(BN_mod_sub, a, b);
    }
    ossl::Number times(const ossl::Number& a, const ossl::Number& b) const {
        return with(BN_mod_mul, a, b);
    }

    static ossl::Number number(const char* hex) {
        BIGNUM* parsed = nullptr;
        return ossl::Number(BN_hex2bn(&parsed, hex) == 0 ? nullptr : parsed);
    }

private:
    using Operation = int (*)(BIGNUM*, const BIGNUM*, const BIGNUM*, const BIGNUM*, BN_CTX*);

    ossl::Number with(Operation operation, const ossl::Number& a, const ossl::Number& b) const {
        ossl::Number result(BN_new());
        const bool good = a != nullptr && b != nullptr && p_ != nullptr && ctx_ != nullptr &&
                          result != nullptr &&
                          operation(result.get(), a.get(), b.get(), p_.get(), ctx_.get()) == 1;
        return good ? std::move(result) : nullptr;
    }

    ossl::Owner<BN_CTX, BN_CTX_free> ctx_{BN_CTX_new()};
    ossl::Number p_ = number("7FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFED");
};

}  // namespace

// The curve is -x^2 + y^2 = 1 + d x^2 y^2. The bytes are y, little-endian, and in the
// highest bit the sign of x. With w = y^2 the curve says x^2 = u / v for u = w - 1 and
// v = d w + 1.
Status checkEd25519Point(Bytes encoded) {
    unsigned char bigEndian[32];
    if (encoded.size() != sizeof bigEndian) {
        return kMalformed;
    }
    std::reverse_copy(encoded.begin(), encoded.end(), bigEndian);
    bigEndian[0] &= 0x7F;

    const Field field;
    const ossl::Number one = Field::number("1");
    const ossl::Number d =
        Field::number("52036CEE2B6FFE738CC740797779E89800700A4D4141D8AB75EB4DCA135978A3");
    const ossl::Number y(BN_bin2bn(bigEndian, sizeof bigEndian, nullptr));
    const ossl::Number w = field.times(y, y);
    const ossl::Number u = field.minus(w, one);
    const ossl::Number v = field.plus(field.times(d, w), one);
    const ossl::Number uv = field.times(u, v);
    const ossl::Number ofOrder8 = field.times(w, field.plus(v, one));
    if (uv == nullptr || ofOrder8 == nullptr) {
        return kIo;
    }
    // Order 1 and 2: x = 0, so u = 0. Order 4: y = 0. Order 8: the double has y = 0, which
    // makes x^2 = -y^2, and with the curve w (v + 1) = 1.
    const bool small =
        BN_is_zero(u.get()) == 1 || BN_is_zero(w.get()) == 1 || BN_is_one(ofOrder8.get()) == 1;
    if (small || BN_cmp(y.get(), field.p()) >= 0) {
        return kMalformed;
    }
    // u / v has a root exactly when u v has one.
    switch (BN_kronecker(uv.get(), field.p(), field.ctx())) {
        case 1:
            return kOk;
        case -1:
            return kMalformed;
        default:
            return kIo;
    }
}
