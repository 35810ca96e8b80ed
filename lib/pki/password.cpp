#include "lib/pki/password.h"

#include <algorithm>
#include <limits>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/ossl.h"

namespace fstore {
namespace {

constexpr std::uint64_t kEndless = std::numeric_limits<std::uint64_t>::max();

std::uint64_t valueOf(const ASN1_INTEGER* number) {
    std::uint64_t value = 0;
    return number != nullptr && ASN1_INTEGER_get_uint64(&value, number) == 1 ? value : kEndless;
}

std::uint64_t product(std::uint64_t a, std::uint64_t b) {
    return b != 0 && a > kEndless / b ? kEndless : a * b;
}

// The algorithm's parameters as a structure of their own; null when they are none.
template <class Owned>
Owned parametersOf(const X509_ALGOR& algorithm, const ASN1_ITEM* form) {
    using Structure = typename Owned::element_type;
    return algorithm.parameter == nullptr ? nullptr
                                          : Owned(static_cast<Structure*>(ASN1_TYPE_unpack_sequence(
                                                form, algorithm.parameter)));
}

// What OpenSSL lets the scrypt of an encrypted key take; beyond, it only says that it failed.
constexpr std::uint64_t kMostScryptMemory = 32 << 20;

std::uint64_t roundsOfScrypt(const SCRYPT_PARAMS& scrypt) {
    const std::uint64_t n = valueOf(scrypt.costParameter), r = valueOf(scrypt.blockSize),
                        p = valueOf(scrypt.parallelizationParameter);
    const std::uint64_t memory = product(128 * std::min(r, kEndless >> 8), std::max(n, p));
    if (memory > kMostScryptMemory) {
        throw Failure(kMalformed,
                      fmt::format("its password takes scrypt with {} MiB of memory, and {} MiB is "
                                  "the limit; encrypt it anew with less",
                                  memory >> 20, kMostScryptMemory >> 20));
    }
    return product(n, product(r, p));
}

std::uint64_t roundsOfDerivation(const X509_ALGOR& algorithm) {
    if (const auto pbkdf2 = parametersOf<ossl::Pbkdf2>(algorithm, ASN1_ITEM_rptr(PBKDF2PARAM))) {
        return valueOf(pbkdf2->iter);
    }
    if (const auto scrypt = parametersOf<ossl::Scrypt>(algorithm, ASN1_ITEM_rptr(SCRYPT_PARAMS))) {
        return roundsOfScrypt(*scrypt);
    }
    return 0;
}

}  // namespace

std::uint64_t roundsOf(const X509_ALGOR& algorithm) {
    const ossl::QuietErrors quiet;
    if (OBJ_obj2nid(algorithm.algorithm) == NID_pbes2) {
        const auto pbes2 = parametersOf<ossl::Pbes2>(algorithm, ASN1_ITEM_rptr(PBE2PARAM));
        return pbes2 != nullptr ? roundsOfDerivation(*pbes2->keyfunc) : 0;
    }
    const auto pbes1 = parametersOf<ossl::Pbes1>(algorithm, ASN1_ITEM_rptr(PBEPARAM));
    return pbes1 != nullptr ? valueOf(pbes1->iter) : 0;
}

const SecretText& FilePassword::get(std::uint64_t rounds) {
    spend(rounds);
    return ask_();
}

void FilePassword::spend(std::uint64_t rounds) {
    if (rounds > left_) {
        throw Failure(kMalformed, "its password takes more work than any honest file needs");
    }
    left_ -= rounds;
}

}  // namespace fstore
