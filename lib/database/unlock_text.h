// The text of the records "kdf" and "kdf-copy": what wraps P, the database's own password.
//
// P is 32 random bytes, of which the store gets 64 hexadecimal digits. A slot wraps P for one
// secret: a password, a recovery key or a key file. The slots for one P are a set. There is one
// set, or two while P is being changed, the old one first:
//
//     unlock v=1 db=<32 digits> seq=<number>
//     slot n=<number> kind=password made=<time> label=<text> ln=<> r=<> p=<> salt=<64 digits>
//         wrap=aead key=<32 digits> nonce=<24 digits> box=<96 digits>      (all in one line)
//     slot n=<number> kind=recovery ...          the same without ln, r and p; and kind=file
//     end sha256=<of all lines before, each with a line feed>
//
// key= is what the record "key" holds for P; so it shows without a secret which set is in force.
// seq= goes up with each write: of two copies that differ, the higher one is the newer.
//
// In place of a set there may be a line from before there were slots (lib/database/slots.h): the
// old set of a change of the password, or the only one. Without "unlock" and "end", as the record
// "kdf" of such a database, there are one or two of these lines, and nothing else.
//
// All functions are pure and any thread may call them. lib/database/unlock_box.h has what is in a
// box.
#ifndef LIB_DATABASE_UNLOCK_TEXT_H
#define LIB_DATABASE_UNLOCK_TEXT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lib/database/scrypt.h"
#include "lib/database/slots.h"

namespace fstore {

// kUnknown is a kind of a later version: it is listed, and never tried.
enum class SlotKind { kPassword, kRecovery, kFile, kUnknown };

using DatabaseId = std::array<unsigned char, 16>;  // random, for life
using BoxNonce = std::array<unsigned char, 12>;
using Box = std::array<unsigned char, 48>;  // P, encrypted, and the tag

struct UnlockSlot {
    static constexpr unsigned int kMostNumber = 99;
    static constexpr std::size_t kMostLabel = 64;  // bytes
    static constexpr std::size_t kMostKindName = 16;
    static constexpr unsigned int kLeastLn = 14, kMostLn = 20;
    static constexpr unsigned int kR = 8;
    static constexpr unsigned int kMostP = 4;

    unsigned int n = 1;  // unique in its set
    SlotKind kind = SlotKind::kPassword;
    std::string kindName;   // of kUnknown
    std::int64_t made = 0;  // seconds since 1970
    std::string label;      // any bytes; escape it before printing
    ScryptCost cost;        // of kPassword
    Salt salt{};
    Digest key{};
    BoxNonce nonce{};
    Box box{};

    bool operator==(const UnlockSlot&) const = default;
};

// "password", "recovery", "file", or the name of an unknown kind.
std::string nameOfKind(const UnlockSlot& slot);

// What opens one P: slots, or a line from before there were any.
struct SlotSet {
    static constexpr std::size_t kMostSlots = 16;
    static constexpr std::size_t kMostPasswords = 8;
    static constexpr std::uint64_t kMostWork = std::uint64_t{1} << 25;  // of all its scrypts

    std::optional<Slot> line;
    std::vector<UnlockSlot> slots;  // by number; none if there is a line

    bool operator==(const SlotSet&) const = default;

    // What the record "key" holds for its P; none if there is no such record: "none".
    std::optional<Digest> key() const;
};

// What one copy of the record says.
struct UnlockRecord {
    static constexpr std::uint32_t kMostSeq = std::uint32_t{1} << 31;
    static constexpr std::size_t kMostBytes = 64 << 10;

    bool framed = false;    // between "unlock" and "end"
    DatabaseId db{};        // if framed
    std::uint32_t seq = 0;  // 0 unless framed
    std::vector<SlotSet> sets;

    bool operator==(const UnlockRecord&) const = default;
};

// Throws kMalformed, with what is wrong in which line, for anything that printUnlock() does not
// print, and for what exceeds a bound. Allocates nothing that the bounds do not allow.
UnlockRecord parseUnlock(std::span<const std::string> lines);

// The lines of a record. Throws kInvalid for what parseUnlock() would refuse.
std::vector<std::string> printUnlock(const UnlockRecord& record);

// A slot's line up to its box: what the box is bound to.
std::string headOf(const UnlockSlot& slot);

// Why a slot may not have this label, in a sentence: "is longer than 64 bytes"; none if it may.
// Whether another slot has it, in whatever case, is for sameLabel() to tell.
std::optional<std::string> faultOfLabel(std::string_view label);

// Whether two labels are the same to a person: in any case of ASCII letters.
bool sameLabel(std::string_view one, std::string_view other);

}  // namespace fstore

#endif  // LIB_DATABASE_UNLOCK_TEXT_H
