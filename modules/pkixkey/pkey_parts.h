// Asymmetric keys made of their numbers.
//
// What is no key is refused here, whoever brings it: a number out of its range, a
// modulus or an exponent that makes of RSA something else, a point that is not on its
// curve or that everybody has the secret of. Whether the parts of a key fit each other
// is not looked at; EVP_PKEY_check() tells.
//
// Any thread may call these. Numbers are big-endian without leading zeros. Each gives
//   kMalformed  the parts are none of a key
//   kIo         OpenSSL does not make a key of them
#ifndef MODULES_PKIXKEY_PKEY_PARTS_H
#define MODULES_PKIXKEY_PKEY_PARTS_H

#include "cmn/status.h"
#include "modules/common/bytes.h"
#include "modules/common/ossl.h"
#include "modules/pkixkey/pkey_type.h"

struct RsaPublicParts {
    Bytes modulus;   // odd, of 1024 to 16384 bits
    Bytes exponent;  // odd, from 3, of up to 64 bits
};

// Each above 0 and below the modulus; the primes odd.
struct RsaPrivateParts {
    Bytes exponent;
    Bytes primes[2];
    Bytes exponents[2];
    Bytes coefficient;
};

// `secret` is null for a public key.
[[nodiscard]] Status makeRsa(const RsaPublicParts& open, const RsaPrivateParts* secret,
                             ossl::Pkey& made);

// The point as 4, x and y, or compressed as 2 or 3 and x.
[[nodiscard]] Status makeEcPublic(const PkeyType& type, Bytes point, ossl::Pkey& made);

// The scalar of up to the type's size, from 1 to below the curve's order; leading zeros
// do not matter. Without a point, which is empty then, it is worked out.
[[nodiscard]] Status makeEcPrivate(const PkeyType& type, Bytes scalar, Bytes point,
                                   ossl::Pkey& made);

// 32 bytes each, of the private key its seed.
[[nodiscard]] Status makeEd25519Public(Bytes point, ossl::Pkey& made);
[[nodiscard]] Status makeEd25519Private(Bytes seed, ossl::Pkey& made);

#endif  // MODULES_PKIXKEY_PKEY_PARTS_H
