// How the database's own password comes from the user's.
//
// The store keeps an unsalted digest of its password and derives its key from the password
// alone, so a guess costs next to nothing. So it never gets the user's password but P, 64
// hexadecimal digits of scrypt over the password and a random salt. The plain record "kdf"
// beside the record "key" holds salt and cost, one text a slot:
//
//     scrypt ln=17 r=8 p=1 salt=<64 digits> digest=<32 digits>
//     raw digest=<32 digits>
//     none
//
// "raw" is a password that is used as it is, "none" means no password: databases that this
// library did not create have these until their password is changed. The digest is what the
// record "key" holds for this slot's P, so it shows without the password which slot is in
// force; "none" is in force while there is no record "key".
//
// There are two slots only during a change of the password: the old one first.
#ifndef LIB_DATABASE_SLOTS_H
#define LIB_DATABASE_SLOTS_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
    // Of one slot, as the dearest that the tool writes takes: ln=22 r=8 p=1. A record has at
    // most two, so all of it is bounded, and a change of the password never adds a slot that is
    // too dear for its reader.
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

// A slot with fresh salt for a password, and its P.
struct NewSlot {
    Slot slot;
    SecretText p;
};
NewSlot makeSlot(const SecretText& password, unsigned int ln);

// What the record "kdf" holds.
struct KdfRecord {
    std::vector<Slot> slots;  // one, or two during a change; none if there is no record
    bool keepOld = false;     // the unfinished change keeps the old database
};

// Throws kMalformed for anything but one or two slots, and for slots that cost too much.
KdfRecord readKdf();

// Removes the record when there are no slots.
void writeKdf(const KdfRecord& kdf);

}  // namespace fstore

#endif  // LIB_DATABASE_SLOTS_H
