// The parts of a file of certificates and keys, and the password that they share.
#ifndef LIB_PKI_PART_H
#define LIB_PKI_PART_H

#include <cstddef>
#include <functional>
#include <string>
#include <variant>

#include "lib/base/error.h"
#include "lib/base/secret.h"
#include "lib/pki/object.h"

namespace fstore {

// The most rounds that a file may require to turn its password into a key: five times what
// cautious programs write, at most five seconds.
inline constexpr long kMostIterations = 5'000'000;

// The most parts in a file: more than real ones have.
inline constexpr std::size_t kMostParts = 100'000;

// The password of an encrypted key or PKCS#12 file. Called only when one is needed and the
// empty one is not it; all of a file has the same one. If there is none, throws what to report
// to the user.
using InputPassword = std::function<const SecretText&()>;

// What is rightly left out, and why: a sentence for the user, without a full stop.
struct Skipped {
    std::string reason;
};

struct PkiPart {
    unsigned int line = 0;  // where its PEM block begins; 0 in a binary file
    std::string label;      // what the file calls it; may be empty
    // A failure is kWrongPassword, kMalformed, or what InputPassword threw.
    std::variant<PkiObject, Failure, Skipped> content;
};

}  // namespace fstore

#endif  // LIB_PKI_PART_H
