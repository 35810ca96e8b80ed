// The parameters of password-based key derivation, handed in one by one, and the
// derivations themselves.
#ifndef MODULES_PKCS5_KDF_PARAMETERS_H
#define MODULES_PKCS5_KDF_PARAMETERS_H

#include <optional>
#include <span>

#include "api/pkcs5_i.h"
#include "api/pki_alg.h"
#include "cmn/status.h"
#include "modules/common/wiped_bytes.h"

// What a scheme takes. The tables outlive whoever uses them.
struct KdfLimits {
    std::span<const pki_alg_t> firstAlgs;
    std::span<const pki_alg_t> secondAlgs;  // empty: the scheme has no second algorithm
    unsigned int leastKeyLength;
    unsigned int mostKeyLength;
    unsigned int keyLengthStep;  // lengths are multiples of this
};

// One thread's at a time while it is changed; any number may read.
class KdfParameters {
public:
    static constexpr unsigned int kMostIterations = 10'000'000;
    static constexpr unsigned int kMostBytes = 1U << 20;  // of a password or a salt

    explicit KdfParameters(const KdfLimits& limits) : limits_(limits) {}

    // Each is kInvalid when the selector is none of a scheme's, or the value, null
    // among them, does not fit the selector set last. A parameter that was refused is
    // missing until a value of it is taken; an unknown one is missing for good.
    Status select(PBES::param selector);
    Status supply(TBuf* bytes);  // kNoMemory too
    Status supply(unsigned int number);
    Status supply(pki_alg_t alg);

    // Whether every parameter of the scheme was supplied, and the last value of each
    // was taken. Empty ones count.
    bool complete() const noexcept;

    // The values. Only what was supplied may be asked for.
    std::span<const unsigned char> password() const { return password_->view(); }
    std::span<const unsigned char> salt() const { return salt_->view(); }
    unsigned int iterations() const { return *iterations_; }
    unsigned int keyLength() const { return *keyLength_; }
    pki_alg_t firstAlg() const { return *firstAlg_; }

private:
    static constexpr unsigned int kNothing = 0;  // no selector has this number

    Status noted(Status taken) noexcept;
    Status take(TBuf* bytes);
    Status take(unsigned int number);
    Status take(pki_alg_t alg);

    KdfLimits limits_;
    unsigned int selected_ = kNothing;
    unsigned int refused_ = 0;  // a bit for each selector whose last value was refused
    std::optional<WipedBytes> password_;
    std::optional<WipedBytes> salt_;
    std::optional<unsigned int> iterations_;
    std::optional<unsigned int> keyLength_;
    std::optional<pki_alg_t> firstAlg_;
    std::optional<pki_alg_t> secondAlg_;
};

#endif  // MODULES_PKCS5_KDF_PARAMETERS_H
