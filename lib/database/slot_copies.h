// The two records that hold the slots: "kdf", and its copy, "kdf-copy".
//
// One that is lost, cut or altered is written again from the other, so no single file locks the
// database. They are never written both at once: the worse one first, then the other; a crash
// leaves at least one whole, and the sequence numbers tell which is the newer.
//
// A database from before there were slots has "kdf" alone, without a checksum. Its line is copied
// once it has opened the database, and not before; "kdf" keeps its form, which older programs read.
//
// For one thread, which keeps other processes out while it writes. Failures throw.
#ifndef LIB_DATABASE_SLOT_COPIES_H
#define LIB_DATABASE_SLOT_COPIES_H

#include <string>

#include "format/layout.h"
#include "lib/database/unlock_text.h"

namespace fstore {

// What a copy says, as it is on disk.
struct SlotCopy {
    enum class State {
        kMissing,
        kDamaged,
        kSound,
        kUsers,  // a record of this name from before the name was taken: never overwritten
    };
    State state = State::kMissing;
    std::string fault;     // of kDamaged
    UnlockRecord record;   // of kSound
    bool keepOld = false;  // the unfinished change keeps the old database

    bool isSound() const noexcept { return state == State::kSound; }
};

struct SlotCopies {
    SlotCopy kdf, copy;
};

// Whether two sound copies say the same. One of them may be a line without its frame.
bool agree(const SlotCopy& one, const SlotCopy& other);

// Those of the database in the folder `root`. Throws when one may not be read: a copy that is
// there must not be taken for a lost one.
SlotCopies readCopies(const char* root = layout::kLive);

// Writes one of them, durably.
void writeCopy(const char* name, const UnlockRecord& record, bool keepOld);

// Writes one of the database in the folder `root`, which is not the live one. The caller syncs.
void writeCopyBeside(const char* root, const char* name, const UnlockRecord& record);

// Removes what the store keeps aside of one that it could not read when it replaced it: of a record
// with a body it would be the only thing to tell which. What stays all the same `check` finds.
void removeSavedCopy(const char* name);

// Removes one of them, if it is there.
void removeCopy(const char* name);

// The form that the record "kdf" has with these contents: a line from before there were slots
// stands there as it always did.
UnlockRecord asKdf(const UnlockRecord& record);

}  // namespace fstore

#endif  // LIB_DATABASE_SLOT_COPIES_H
