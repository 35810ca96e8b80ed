// How the database is protected now: which set of slots is in force, whether a change of the
// password is unfinished, and whether both copies of the slots are whole.
//
// The record "key" decides: the set whose key= it holds is in force. Of two copies that both have
// that set, the one with the higher sequence number counts. When that record is lost, a secret and
// the records that are encrypted tell (lib/database/lost_key.h), and it is written again.
#ifndef LIB_DATABASE_PROTECTION_H
#define LIB_DATABASE_PROTECTION_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lib/database/slot_copies.h"

namespace fstore {

// What the record "key" says.
struct KeyRecord {
    std::optional<Digest> digest;  // none without such a record, and of one that is damaged
    std::string fault;             // of one that is damaged
};

struct Protection {
    // What is to be said of the copy that does not count.
    enum class Other {
        kAgrees,
        kBehind,     // missing, damaged or older: it is written again
        kConflicts,  // sound, of the same number, and not the same: a person decides
        kUsers,      // its name is taken by a record of the user's
    };

    // Which set may be in force while the record "key" does not tell.
    struct Candidate {
        SlotSet set;
        DatabaseId db{};  // that its boxes are bound to
    };

    UnlockRecord record;   // of the copy that counts; no sets without one
    bool keepOld = false;  // the unfinished change keeps the old database
    SlotSet inForce;       // also without a copy
    bool kdfCounts = true;
    Other other = Other::kAgrees;
    std::string otherFault;        // of kBehind: "is missing", "is damaged: ..."
    bool otherIsDamaged = false;   // of kBehind
    std::uint32_t highestSeq = 0;  // of both copies

    // While "key" does not tell: why, as "is missing"; and all sets but "none", the likeliest
    // first, which stands in `inForce` as well.
    std::string keyFault;
    std::vector<Candidate> candidates;
    bool keyIsForeign = false;  // it is sound, and fits no set

    bool isKeyLost() const { return !keyFault.empty(); }
    // Without one, the empty password opens the database, and it cannot keep secrets.
    bool hasPassword() const { return !inForce.line || inForce.line->form != Slot::Form::kNone; }
    // It has slots, and no line from before there were any.
    bool hasSlots() const { return !inForce.line; }
    // A change of the password was interrupted.
    bool isUnfinished() const { return record.sets.size() == 2; }
    // It was interrupted before it took effect: the old password is in force.
    bool isUndone() const { return isUnfinished() && inForce == record.sets[0]; }
};

// What the copies and the record "key" mean together. Without copies the key decides.
//
//   kNoDigest    the key is damaged, and there are no slots; or it fits none, and there is only
//                "none"
//   kMalformed   neither copy can be read
Protection protectionOf(const SlotCopies& copies, const KeyRecord& key);

// The same when the record "key" is known to be lost, though "none" stands where it would be in
// force without that record; at least one copy is sound.
Protection protectionWithoutKey(const SlotCopies& copies, std::string fault);

// Throws only when the record may not be read: one that is there must not be taken for a lost one.
KeyRecord readKey();

// Writes the record "key" anew.
void writeKey(const Digest& digest);

// Throws kNoDigest: the record "key" is lost, and nothing tells what it held.
[[noreturn]] void failOnLostKey(const std::string& fault);

// The protection of the database that the thread is in. Statuses as protectionOf().
Protection readProtection();

// The rest changes the records; the caller keeps other processes out.

// Writes both copies with these sets, the worse one first; each has the next number. Afterwards
// they are in force even when the second write failed: kPartial then.
//
//   kInvalid    the name of the copy is taken by a record of the user's
//   kNoDigest   the numbers are used up
void writeSlots(const Protection& before, const DatabaseId& db, std::vector<SlotSet> sets,
                bool keepOld);

// Writes both copies with this set of the P in force, whatever they say and however damaged they
// are, as writeSlots() does: what opened the database opens it until the new set does.
void replaceSlots(const DatabaseId& db, SlotSet set);

// Removes both copies. In between and afterwards P itself opens the database. Throws kInvalid when
// the name of the copy is taken by a record of the user's.
void removeSlots();

// Leaves of two sets only the one in force. A change from a database without slots leaves it as
// it was before that change.
void keepOnlyInForce(const Protection& unfinished);

// Writes the copy that is behind from the one that counts, if there is such a one. Of a database
// without slots only when `opened` says that its line has just opened the database: the line has
// no checksum that would prove it. Whether something was written.
bool repairCopy(const Protection& protection, bool opened);

}  // namespace fstore

#endif  // LIB_DATABASE_PROTECTION_H
