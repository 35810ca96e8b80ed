// What stands in the database's folders besides whole records: what a crash left
// over, what is damaged, and what does not belong there. Found by name, never by
// guessing: while it cannot be told which body files a folder's descriptors name,
// none of them counts as left over.
#ifndef LIB_DATABASE_INSPECT_H
#define LIB_DATABASE_INSPECT_H

#include <string>
#include <vector>

namespace fstore {

struct Finding {
    enum class Kind {
        // Left over by a crash, and repaired:
        kUnnamedBody,       // a body file that no descriptor names
        kNewDescriptor,     // ".$n$": a write that did not get as far as its first rename
        kSavedDescriptor,   // ".$o$": the descriptor before a write that was broken off
        kRemoved,           // ".$d$": a record that was being removed
        kUnfinishedCopy,    // "./new_db"
        kMissingFolder,     // one of those that a database has
        kMovedAside,        // "./old_db" while there is no "./db"
        kUnfinishedChange,  // of the password; found by the caller, who knows the records
        // Reported, and never touched:
        kDamaged,      // a record that cannot be read, or that cannot be what was written
        kUnknownFile,  // nothing that the store would have made
        kPrevious,     // "./old_db", with the password before
    };
    enum class Repair { kNone, kDelete, kPutBack, kDropCopy, kMakeFolder, kMoveBack, kFinish };

    Kind kind;
    std::string path;
    std::string message;  // one sentence without the path
    Repair repair = Repair::kNone;

    bool isDamage() const noexcept { return kind == Kind::kDamaged; }
    bool isRepairable() const noexcept { return repair != Repair::kNone; }
};

// The same word in every version: "unnamed-body", "damaged", ...
const char* nameOf(Finding::Kind kind);

// What a repair does: "it will be deleted". Empty for kNone.
const char* planOf(Finding::Repair repair);

// What is found below the current folder. Reads every record, decrypts nothing and
// changes nothing. No other process changes anything meanwhile.
std::vector<Finding> inspect();

// Repairs, but for kFinish, what one inspection found, as far as that can be: what a deletion
// leaves without a name is found by the next one. May be broken off anywhere and run again. Throws
// kIo.
void repair(const std::vector<Finding>& findings);

}  // namespace fstore

#endif  // LIB_DATABASE_INSPECT_H
