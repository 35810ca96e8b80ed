// How the database's own password came from the user's before there were unlock slots
// (lib/database/unlock_text.h). Such a line is read for ever, and no longer made.
//
//     scrypt ln=17 r=8 p=1 salt=<64 digits> digest=<32 digits>
//     raw digest=<32 digits>
//     none
//
// The first makes P, the database's own password, from the user's; P is 64 hexadecimal digits.
// "raw" is a password that is used as it is, "none" means no password: databases that this library
// did not create have these until their password is changed. The digest is what the record "key"
// holds for P, so it shows without the password whether the line is in force; "none" is in force
// while there is no record "key".
//
// All functions are pure and any thread may call them.
#ifndef LIB_DATABASE_SLOTS_H
#define LIB_DATABASE_SLOTS_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "format/layout.h"
#include "lib/base/secret.h"

namespace fstore {

using Digest = std::array<unsigned char, layout::kDigestSize>;  // what the record "key" holds

struct Slot {
    enum class Form { kScrypt, kRaw, kNone };

    // Bounds for reading: below them a guess is cheap; above them a hostile record takes the
    // reader's memory and time, before the password shows whether it is right.
    static constexpr unsigned int kLeastLn = 14, kMostLn = 22;
    static constexpr unsigned int kLeastR = 8, kMostR = 32;
    static constexpr unsigned int kLeastP = 1, kMostP = 4;
    static constexpr unsigned int kDefaultLn = 17;
    // As the dearest line that was written takes: ln=22 r=8 p=1.
    static constexpr std::uint64_t kMostMemory = std::uint64_t{4} << 30;
    static constexpr std::uint64_t kMostWork = std::uint64_t{1} << 25;  // N * r * p

    Form form = Form::kScrypt;
    unsigned int ln = kDefaultLn;  // of the cost N = 2^ln
    unsigned int r = 8;
    unsigned int p = 1;
    std::array<unsigned char, 32> salt{};
    Digest digest{};

    bool operator==(const Slot&) const = default;

    // What P of this slot costs: bytes, and N * r * p. Both are 0 unless it is scrypt's.
    std::uint64_t memory() const;
    std::uint64_t work() const;
};

// None unless the text is exactly of a form above, with ln, r and p within their bounds.
std::optional<Slot> parseSlot(std::string_view text);
std::string printSlot(const Slot& slot);

// Why the slot costs more than kMostMemory or kMostWork; none if it does not.
std::optional<std::string> excessOf(const Slot& slot);

// P of this slot for a password, which "none" ignores. Takes 128 * 2^ln * r bytes of memory
// and, at the default cost, about half a second. Throws MemoryFailure.
SecretText deriveP(const Slot& slot, const SecretText& password);

// What the record "key" holds for P.
Digest digestOf(const SecretText& p);

}  // namespace fstore

#endif  // LIB_DATABASE_SLOTS_H
