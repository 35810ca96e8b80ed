// What is done with the slots of a database: list, add, remove and test them, and change one of
// its passwords.
//
// Each operation enters the database itself, opens it with the secret of its user, and derives
// from new passwords while nothing is locked; when other processes have changed the slots
// meanwhile, it starts over. So no Hold of it lives, and what is given may be used twice. For one
// thread. Failures throw; beside what is named here, those of Database::enter(), and
//
// A slot is named by what the user saw of it. When another command has put something else in its
// place meanwhile, nothing is done: its number may have become somebody else's.
//
//   kInvalid   the database has no slots yet: `fstore passwd` first gives it a key of its own; or
//              a slot is not the one that was named
//   kMissing   there is no such slot, any more
//   kPartial   done, but one of the two copies could not be written; the next command does it
#ifndef LIB_WORK_KEY_SLOTS_H
#define LIB_WORK_KEY_SLOTS_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/database/database.h"
#include "lib/database/slot_sets.h"

namespace fstore {

// The slots of the set in force, by number; none of a database from before there were slots. Needs
// no secret.
std::vector<UnlockSlot> listSlots(Database& database);

// The one of these that the words name: its number, or its label in any case. Throws kMissing when
// there is none.
const UnlockSlot& findSlot(const std::vector<UnlockSlot>& slots, std::string_view words);

// What the next slot will be: for a recovery key that is shown before its slot is written.
struct SlotPlan {
    unsigned int n = 0;
    DatabaseId db{};
};

// The plan for a slot with this label. Fails as addSlot() would, and changes nothing.
SlotPlan planSlot(Database& database, const std::string& label);

// One more slot, which it returns. kInvalid when the secret opens another one.
UnlockSlot addSlot(Database& database, const NewSlot& fresh);

// Removes the slot. Without `force` not the one that opened the database, nor the last one that
// is no recovery slot (kInvalid), and never the last one.
void removeSlot(Database& database, const UnlockSlot& slot, bool force);

// The slot that the secret opens; none for P itself and for a line from before there were slots.
// Changes nothing, also while the record "key" is lost.
std::optional<UnlockSlot> testSecret(Database& database);

// P, for a program that hosts the module alone.
SecretText rawP(Database& database);

// The slot whose password a change of the password changes: the one that opened the database, or,
// when that is not a password's, the only password's; none for a new one. Throws kInvalid when
// there are several, and for a `wanted` slot that is no password's.
std::optional<UnlockSlot> passwordSlot(const std::vector<UnlockSlot>& slots, unsigned int openedBy,
                                       const std::optional<UnlockSlot>& wanted);

// Gives the slot this password and re-encrypts nothing; the other slots stay. With none as
// passwordSlot(). The label is kept. Returns the new slot.
UnlockSlot rewrapSlot(Database& database, const std::optional<UnlockSlot>& slot,
                      const SecretText& password, std::optional<unsigned int> ln);

// A change of the database's key. What becomes of the slots besides the password's:
struct Rotation {
    std::optional<UnlockSlot> slot;  // that gets the password; none as passwordSlot()
    SecretText password;
    std::optional<unsigned int> ln;
    std::vector<UnlockSecret> carried;     // the slots that one of these opens stay
    std::optional<UnlockSecret> recovery;  // the first recovery slot is made anew for this
    std::vector<UnlockSlot> dropped;
    bool dropOthers = false;
    bool keepOld = false;  // keep the old database as ./db-<time>
};

struct RotationReport {
    std::vector<UnlockSlot> carried, anew, dropped;
};

// What rotateKey() would do, before a recovery key is made for it: any stands for the new one.
// Throws what that would.
RotationReport rehearseRotation(Database& database, Rotation rotation);

// A new P, and everything re-encrypted. A slot of an unknown kind is dropped. Works on any
// database that has a password or none, and gives it slots.
//
//   kInvalid  a slot is neither carried, made anew nor dropped: they are named; the slot of the new
//             password is dropped; another slot has this password; or there is no slot for the new
//             recovery key
//   and as Database::changePassword()
RotationReport rotateKey(Database& database, const Rotation& rotation);

// Slots from P alone, when all of them are lost or another program has changed P: one, for this
// password. A P that no slot can hold leaves a database whose password it is.
//
//   kWrongPassword  P is not the one in force
void resetSlots(Database& database, const SecretText& p, const SecretText& password,
                std::optional<unsigned int> ln);

}  // namespace fstore

#endif  // LIB_WORK_KEY_SLOTS_H
