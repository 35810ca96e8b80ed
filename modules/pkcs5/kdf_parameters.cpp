#include "modules/pkcs5/kdf_parameters.h"

#include <algorithm>
#include <utility>

namespace {

bool contains(std::span<const pki_alg_t> algs, pki_alg_t alg) {
    return std::find(algs.begin(), algs.end(), alg) != algs.end();
}

}  // namespace

Status KdfParameters::select(PBES::param selector) {
    if (selector < PBES::kPassword || selector > PBES::kSecondAlg) {
        return kInvalid;
    }
    selected_ = selector;
    return kOk;
}

Status KdfParameters::supply(std::span<const unsigned char> bytes) {
    if (selected_ != PBES::kPassword && selected_ != PBES::kSalt) {
        return kInvalid;
    }
    if (bytes.size() > kMostBytes) {
        return kInvalid;
    }
    WipedBytes copy;
    if (!copy.assign(bytes)) {
        return kNoMemory;
    }
    (selected_ == PBES::kPassword ? password_ : salt_) = std::move(copy);
    return kOk;
}

Status KdfParameters::supply(unsigned int number) {
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

Status KdfParameters::supply(pki_alg_t alg) {
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
    return password_ && salt_ && iterations_ && keyLength_ && firstAlg_ &&
           (secondAlg_ || limits_.secondAlgs.empty());
}
