// The certificates, CRLs, private keys and requests in a file: PEM with any number of
// them, one in DER, or PKCS#12, told apart by content.
//
// Each part of a file succeeds or fails by itself. Nothing is passed over without a
// word but what stands outside of PEM blocks. Hostile input costs memory in proportion to its size,
// and never more time than a password with kMostIterations does.
#ifndef LIB_PKI_DECODE_H
#define LIB_PKI_DECODE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "lib/base/error.h"
#include "lib/base/secret.h"
#include "lib/pki/object.h"

namespace fstore {

// The largest file that is decoded.
inline constexpr std::uint64_t kMostInput = 64 << 20;

// The most PEM blocks in a file: more than real ones of this size have.
inline constexpr std::size_t kMostParts = 100'000;

// The most rounds that a file may demand to turn its password into a key: ten times
// what cautious programs write, a few seconds.
inline constexpr long kMostIterations = 10'000'000;

// The password of an encrypted key or PKCS#12 file. Called only when one is needed and
// the empty one is not it; the same one is good for all of a file. Throws what the
// user is to be told when there is none.
using InputPassword = std::function<const SecretText&()>;

// What is rightly left out, and why: a sentence for the user without a full stop.
struct Skipped {
    std::string reason;
};

struct PkiPart {
    unsigned int line = 0;  // where its PEM block begins; 0 in a binary file
    std::string label;      // what the file calls it; may be empty
    // A failure is kWrongPassword, kMalformed, or what the password's source threw.
    std::variant<PkiObject, Failure, Skipped> content;
};

// The parts in the order of the file, at least one.
std::vector<PkiPart> decodePki(std::span<const unsigned char> bytes, const InputPassword& password);

}  // namespace fstore

#endif  // LIB_PKI_DECODE_H
