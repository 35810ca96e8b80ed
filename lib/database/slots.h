// How the database's own password comes from the user's.
//
// The store keeps an unsalted digest of its password and derives its key from the
// password alone, so a guess costs next to nothing. It is therefore never given the
// user's password but P: 64 hexadecimal digits of scrypt over password and a random
// salt. Salt and cost stand in the plain record "kdf" beside the record "key", one
// text a slot:
//
//     scrypt ln=17 r=8 p=1 salt=<64 digits> digest=<32 digits>
//     raw digest=<32 digits>
//     none
//
// "raw" is a password that is used as it is, "none" stands for a database without
// password: what was not made by this tool has them until its password is changed.
// The digest is what the record "key" holds for this slot's P, so it tells without
// the password which slot is in force; "none" is while there is no record "key".
//
// Two slots stand there only during a change of the password: the old one first.
#ifndef LIB_DATABASE_SLOTS_H
#define LIB_DATABASE_SLOTS_H

#include <array>
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

    // Bounds of what is read: below, a guess is cheap; above, a hostile record costs
    // the reader its memory.
    static constexpr unsigned int kLeastLn = 14, kMostLn = 22;
    static constexpr unsigned int kLeastR = 8, kMostR = 32;
    static constexpr unsigned int kLeastP = 1, kMostP = 4;
    static constexpr unsigned int kDefaultLn = 17;

    Form form = Form::kScrypt;
    unsigned int ln = kDefaultLn;  // of the cost N = 2^ln
    unsigned int r = 8;
    unsigned int p = 1;
    std::array<unsigned char, 32> salt{};
    Digest digest{};

    bool operator==(const Slot&) const = default;
};

// None for anything but the exact forms above within the bounds.
std::optional<Slot> parseSlot(std::string_view text);
std::string printSlot(const Slot& slot);

// P of this slot for a password, which "none" does not look at. Takes 128 * 2^ln * r bytes of
// memory and, at the default cost, about half a second. Throws MemoryFailure.
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
    std::vector<Slot> slots;  // one, or two during a change; none stands for no record
    bool keepOld = false;     // the unfinished change keeps the database as it was
};

// Throws kMalformed for anything but one or two slots.
KdfRecord readKdf();

// Removes the record when there are no slots.
void writeKdf(const KdfRecord& kdf);

}  // namespace fstore

#endif  // LIB_DATABASE_SLOTS_H
