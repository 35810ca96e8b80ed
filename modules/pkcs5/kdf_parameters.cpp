#include "modules/pkcs5/kdf_parameters.h"

#include <algorithm>
#include <utility>

#include "cmn/cmn_stub.h"

namespace {

bool contains(std::span<const pki_alg_t> algs, pki_alg_t alg) {
    return std::find(algs.begin(), algs.end(), alg) != algs.end();
}

}  // namespace

// A value that follows an unknown selector must not go to the one before it.
Status KdfParameters::select(PBES::param selector) {
    const PBES::param last = limits_.secondAlgs.empty() ? PBES::kKeyLength : PBES::kSecondAlg;
    const bool known = selector >= PBES::kPassword && selector <= last;
    selected_ = known ? selector : kNothing;
    return known ? kOk : noted(kInvalid);
}

Status KdfParameters::supply(TBuf* bytes) {
    return noted(take(bytes));
}

Status KdfParameters::supply(unsigned int number) {
    return noted(take(number));
}

Status KdfParameters::supply(pki_alg_t alg) {
    return noted(take(alg));
}

// Who does not look at the status still gets no key that he did not ask for.
Status KdfParameters::noted(Status taken) noexcept {
    const unsigned int bit = 1U << selected_;
    refused_ = taken == kOk ? refused_ & ~bit : refused_ | bit;
    return taken;
}

Status KdfParameters::take(TBuf* bytes) {
    if (bytes == nullptr || (selected_ != PBES::kPassword && selected_ != PBES::kSalt)) {
        return kInvalid;
    }
    const GuardLock inUse(bytes->getGuard());
    if (bytes->length() > kMostBytes) {
        return kInvalid;
    }
    WipedBytes copy;
    if (!copy.assign({bytes->data(), bytes->length()})) {
        return kNoMemory;
    }
    (selected_ == PBES::kPassword ? password_ : salt_) = std::move(copy);
    return kOk;
}

Status KdfParameters::take(unsigned int number) {
    if (selected_ == PBES::kIterations && number >= 1 && number <= kMostIterations) {
        iterations_ = number;
        return kOk;
    }
    if (selected_ == PBES::kKeyLength && number >= limits_.leastKeyLength &&
        number <= limits_.mostKeyLength && number % limits_.keyLengthStep == 0) {
        keyLength_ = number;
        return kOk;
    }
    return kInvalid;
}

Status KdfParameters::take(pki_alg_t alg) {
    if (selected_ == PBES::kFirstAlg && contains(limits_.firstAlgs, alg)) {
        firstAlg_ = alg;
        return kOk;
    }
    if (selected_ == PBES::kSecondAlg && contains(limits_.secondAlgs, alg)) {
        secondAlg_ = alg;
        return kOk;
    }
    return kInvalid;
}

bool KdfParameters::complete() const noexcept {
    return refused_ == 0 && password_ && salt_ && iterations_ && keyLength_ && firstAlg_ &&
           (secondAlg_ || limits_.secondAlgs.empty());
}
