// Secrets and the slots that they open: a set is opened, made and changed here, in memory.
//
// Nothing here reads or writes a file. Deriving from a password takes half a second and 128 MiB,
// so callers hold no lock. Any thread may call these. Failures throw.
#ifndef LIB_DATABASE_SLOT_SETS_H
#define LIB_DATABASE_SLOT_SETS_H

#include <optional>
#include <string>
#include <vector>

#include "lib/base/secret.h"
#include "lib/database/unlock_text.h"

namespace fstore {

// What opens a database. Its kind picks the slots that it is tried on, so a key file costs no
// derivation. A text that may be a recovery key is tried as one before it is tried as a password.
struct UnlockSecret {
    enum class Kind {
        kPassword,  // a text, as somebody typed it
        kRecovery,  // the 20 bytes of a recovery key
        kFile,      // the 32 bytes of a key file
        kP,         // P itself
    };
    Kind kind = Kind::kPassword;
    SecretText text;        // of kPassword and kP
    SecretKey bytes;        // of kRecovery and kFile
    unsigned int slot = 0;  // try only the slot of this number; 0 for all
};

// What one set gave.
struct OpenedKey {
    SecretText p;
    // That opened; 0 for P itself and for a line from before there were slots.
    unsigned int slot = 0;
};

struct Unlocked {
    SecretText p;
    unsigned int slot = 0;  // as of OpenedKey
    // What it opened besides, while the record "key" is lost and does not tell the set in force.
    std::vector<OpenedKey> rivals{};
};

// P by this secret; none if it opens no slot. The passwords of slots with the same salt and cost
// take one derivation. Throws kMalformed when a box opens to something that is not P, and no other
// slot opens.
std::optional<Unlocked> openSet(const SlotSet& set, const DatabaseId& db,
                                const UnlockSecret& secret);

// What a new slot is made from.
struct NewSlot {
    UnlockSecret secret;             // not kP
    std::string label;               // may be empty
    std::optional<unsigned int> ln;  // of a password's derivation; none for the usual
};

// The slot for this secret with P in its box, which has been opened again from the secret alone.
// A password takes salt and cost of the dearest password among `staying`, unless that is cheaper
// than the default or `ln` says otherwise: so one derivation serves all of them. Throws kInvalid
// for a label that cannot be, or that one of `staying` has, and when there are too many slots.
UnlockSlot makeSlot(const NewSlot& fresh, unsigned int n, const std::vector<UnlockSlot>& staying,
                    const DatabaseId& db, const SecretText& p);

// The slot as it is, but with another P in its box; none if the secret does not open it. Statuses
// as openSet().
std::optional<UnlockSlot> carriedSlot(const UnlockSlot& slot, const DatabaseId& db,
                                      const UnlockSecret& secret, const SecretText& p);

// The least number that none of these slots has. Throws kInvalid when there is none.
unsigned int freeNumber(const std::vector<UnlockSlot>& slots);

// The set with this slot, in place of the one of its number if there is one.
SlotSet withSlot(SlotSet set, UnlockSlot slot);
SlotSet withoutSlot(SlotSet set, unsigned int n);

// A new key for a database: its P, which nobody else has, and the slots that open it.
struct NewKey {
    SlotSet set;
    DatabaseId db{};
    SecretText p;
    unsigned int slot = 0;  // the one of the new password
};

// The id of a database that has none yet.
DatabaseId makeDatabaseId();

// One with a single password, for the database of this id.
NewKey makeKey(const SecretText& password, std::optional<unsigned int> ln, const DatabaseId& db);

}  // namespace fstore

#endif  // LIB_DATABASE_SLOT_SETS_H
