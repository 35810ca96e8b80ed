// What an inspection of the database's folders finds besides whole records.
#ifndef LIB_DATABASE_FINDING_H
#define LIB_DATABASE_FINDING_H

#include <string>

namespace fstore {

struct Finding {
    enum class Kind {
        // Left over by a crash, and repaired:
        kUnnamedBody,       // a body file that no descriptor names
        kNewDescriptor,     // ".$n$": a write that did not get as far as its first rename
        kSavedDescriptor,   // ".$o$": the descriptor before a write
        kRemoved,           // ".$d$": a record that was being removed
        kUnfinishedCopy,    // "./new_db"
        kMissingFolder,     // one of those that a database has
        kMovedAside,        // "./old_db" while there is no "./db"
        kUnfinishedChange,  // of the password; found by the caller, who knows the records
        kUnlockCopy,        // one of the two copies of the slots is lost or older
        kUnlockConflict,    // they contradict each other
        kKeyRecord,         // "key" is lost: the password and the records tell what it held
        // Reported, and left to the user:
        kConflict,  // a conflict copy, or a descriptor with the marks of a merge
        // Reported, and never touched:
        kDamaged,       // a record that cannot be read, or that cannot be what was written
        kContradicted,  // an attribute that says something else than the object in the body
        kIndex,         // the index of the records says something else than they do
        kUnreadable,    // a file that the user may not read, or what that leaves open
        kUnknownFile,   // nothing that the store would have made
        kPrevious,      // "./old_db", with the password before
    };
    enum class Repair {
        kNone,
        kDelete,    // for good
        kMoveAway,  // to "./db.lost", from where it can be put back
        kPutBack,
        kDropCopy,
        kMakeFolder,
        kMoveBack,
        kFinish,
        kUndo,  // a change that did not take effect
        kWriteCopy,
        kSettleCopies,
        kWriteKey
    };

    Kind kind;
    std::string path;
    std::string message;  // one sentence without the path
    Repair repair = Repair::kNone;
    // It may be the only copy of something, and cannot be told: it stays, and a person decides.
    bool isDoubtful = false;

    bool isDamage() const noexcept {
        return kind == Kind::kDamaged || kind == Kind::kContradicted ||
               kind == Kind::kUnlockConflict || kind == Kind::kKeyRecord || kind == Kind::kIndex ||
               isDoubtful;
    }
    bool isUnread() const noexcept { return kind == Kind::kUnreadable; }
    bool isRepairable() const noexcept { return repair != Repair::kNone; }
};

// The same word in every version: "unnamed-body", "damaged", ...
const char* nameOf(Finding::Kind kind);

// The same for what a repair does: "delete", "move-away", ...; "none".
const char* nameOf(Finding::Repair repair);

// What a repair does, in a sentence about the file: "will be deleted". Empty for kNone.
std::string planOf(Finding::Repair repair);

}  // namespace fstore

#endif  // LIB_DATABASE_FINDING_H
