// A database as an object: entered for an operation, opened with its password when the
// operation needs a secret.
//
//     Database database({.folder = "keys"}, observer);
//     const Hold hold = database.enter(Access::kRead);
//     const Record record = Record::read({"settings", "a"});
//
// Its parts are the lock that keeps other processes out, the store's service, the recovery
// from a crash, and the way from the user's secret to the store's password; each has its own
// file. lib/records reads and writes records while a Hold lives: those of the database that
// the thread is in.
//
// A process may have any number of Databases, also of one folder, in any threads; each is for
// one thread at a time. Failures throw.
#ifndef LIB_DATABASE_DATABASE_H
#define LIB_DATABASE_DATABASE_H

#include <exception>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/observer.h"
#include "lib/database/folder_lock.h"
#include "lib/database/hold.h"
#include "lib/database/lost_key.h"
#include "lib/database/place.h"
#include "lib/database/protection.h"
#include "lib/database/stamp.h"
#include "lib/database/store_service.h"
#include "lib/database/unlock.h"
#include "lib/records/address.h"

namespace fstore {

// kRead: other processes may read, too, and nothing changes but what recovery repairs.
// kReadNamed: as kRead, for records whose folder and name the caller knows. What a crash has left
// of
//     other records is not looked for, so that the size of the database makes no difference. A
//     record that is not there may stand aside: who misses one enters again, with kRead. See
//     readNamed().
// kChange: no other process may do anything.
// kChangeNamed: as kChange, for the records that enter() is told by name, and for no others. Those
//     are put back where a crash has left them aside; see changeNamed().
enum class Access { kRead, kReadNamed, kChange, kChangeNamed };

constexpr bool isChange(Access access) {
    return access == Access::kChange || access == Access::kChangeNamed;
}

// What an operation needs of the database that it enters.
enum class Need {
    kFolder,    // only the folder, created if there is none; there may be no database
    kFiles,     // the files as they are, also as a crash left them; nothing is repaired
    kDatabase,  // as kRecords; the database is created if there is none
    kRecords,   // whole records: plain parts can be read, and with kChange written
    kSecrets,   // also encrypted parts: the database is opened
};

constexpr Need needFor(bool secrets) {
    return secrets ? Need::kSecrets : Need::kRecords;
}

// Thrown by Database::needSecrets(); only withSecrets() catches it. Not a Failure: code that
// goes on after a damaged record must not go on after this.
class SecretsNeeded : public std::exception {
public:
    const char* what() const noexcept override { return "the database is not open"; }
};

class Database {
public:
    // Does nothing yet. P comes from `keys`, or, for null, from the password that the observer is
    // asked for while nothing is locked.
    Database(Place place, Observer& observer, KeySource* keys = nullptr);
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    ~Database() = default;

    // The one way in; no other Hold of it lives. While it lives, relative paths of the thread
    // begin at the database's folder, so callers open their own files before.
    //
    // kFolder and kDatabase need kChange; `named` is for kChangeNamed. If a change of the password
    // was interrupted in its last steps, or the record "key" is lost, kChange needs the password
    // for kRecords, too: nothing may change before that change is finished, and that record is
    // there again.
    //
    //   kMissing      there is no database, or no such folder
    //   kAlreadyOpen  another process holds the lock for longer than place().lockSeconds
    //   kWrongPassword, and what Observer::password() throws
    //   kNoDigest, kMalformed   the records of the password are damaged
    Hold enter(Access access, Need need = Need::kRecords, std::span<const AddressText> named = {});

    const Place& place() const noexcept { return place_; }
    Observer& observer() noexcept { return observer_; }
    const FolderLock& lock() const noexcept { return lock_; }

    // While a Hold lives:

    // Another thread that takes part in the operation is in the database while one of its own
    // lives.
    Inside join() const { return Inside(store_.context()); }

    // As it was when the database was entered, for kDatabase and the needs after it.
    const Protection& protection() const noexcept { return protection_; }

    // Whether secrets can be read: entered with kSecrets, now or before. If another process has
    // changed the password since, or the slot that opened it, entering closes the database.
    bool isOpen() { return store_.isOpen(); }

    // The P that it was opened with, for another Database of this place; while it is open.
    const SecretText& p() const noexcept { return store_.p(); }

    // As it is now; also entered with kFiles.
    Protection examineProtection() { return settledProtection(store_); }

    // As fstore::resolveToRead(). Entered with kReadNamed, a folder directly in "./db" is not
    // looked at again while "./db" shows that nothing in it was replaced since.
    Address resolveToRead(std::string_view text);

    // Throws SecretsNeeded unless it is open.
    void needSecrets();

    // Throws kNotOpen when the database has no password and so cannot keep secrets.
    void requireSecrecy() const;

    // The id that boxes are bound to: a new one while the database has no slots.
    DatabaseId idForSlots() const;

    // P by the secret of the caller, for protection() as it is then. Opens and writes nothing, also
    // while the record "key" is lost. No Hold lives.
    Unlocked tryKey();

    // The slot that opened it; 0 for P itself, and for a line from before there were slots.
    unsigned int openedBy() const noexcept { return openedBy_; }

    // Gives the database another P and these slots, and re-encrypts everything. Entered with
    // kChange, and kSecrets unless it has no password yet. The id of `fresh` is the database's,
    // unless that has no slots yet. Throws kFound when a record is
    // damaged, since it would stay behind with the old key; nothing has changed then.
    void changePassword(NewKey fresh, bool keepOld);

    // Writes these slots of the same P. Entered with kChange and kSecrets; the database has slots.
    // Throws kPartial when one copy could not be written.
    void changeSlots(SlotSet slots);

    // Writes what "kdf" says to both copies, which contradict each other. Entered with kChange and
    // kSecrets.
    void settleConflict();

    // What the index of the records says that they do not; none where there is none or it agrees.
    // Entered. Throws kInterrupted.
    std::optional<IndexDoubt> doubtOfIndex();

    // Writes both copies of the slots with these in place of all others. They have the P that the
    // record "key" knows, or, when that is lost or the slots say otherwise, the records that are
    // encrypted. Entered with kChange and kFiles: nothing of the slots need be readable.
    // With a P that no slot can hold the database is left without slots, and P is its password.
    //
    //   kWrongPassword  P is not the one that is in force
    void resetSlots(NewKey fresh);

private:
    void requireDatabase() const;
    void refuseOther() const;
    void refuseFiles() const;
    void enterRecords(Access access);
    void noteNoIndex(const std::string& file);
    IndexSetup indexSetup(bool exclusive);
    void enterShared();
    void enterNamed();
    void enterExclusive();
    void enterExclusiveNamed();
    void enterSecrets(Access access);
    void open(Access access);
    Unlocked obtainP();
    void openWith(Unlocked unlocked);
    void rememberOpener(unsigned int slot);
    bool isOpenerThere() const;
    void undoChange();
    void warnOfLostKey();
    void copyProvenLine();
    void learn(Protection protection);

    const Place place_;
    Observer& observer_;
    KeySource* const keys_;
    FolderLock lock_;
    StoreService store_;
    Protection protection_;
    std::optional<Digest> opened_;  // what "key" holds for P; while the store is open
    unsigned int openedBy_ = 0;
    std::optional<UnlockSlot> opener_;  // of that number, as it was then; none for 0
    bool warnedOfKey_ = false;
    bool notedNoIndex_ = false;
    std::vector<AddressText> named_;  // what the last one who entered was about
    std::optional<Stamp> learned_;    // that of the folder that protection_ was read from
    std::string knownFolder_;         // directly in that folder, and no link; empty for none
};

// Runs step() in the database, entered as `need` says. If the step asks for secrets
// (Database::needSecrets()), opens the database and runs it again from its beginning, since
// other processes had their turn while the user was asked for the password. So a step asks
// before it changes or reports anything.
template <class Step>
auto withSecrets(Database& database, Access access, Step step, Need need = Need::kRecords,
                 std::span<const AddressText> named = {}) {
    try {
        const Hold hold = database.enter(access, need, named);
        return step();
    } catch (const SecretsNeeded&) {
    }
    const Hold hold = database.enter(access, Need::kSecrets, named);
    return step();
}

// What the user's words name; nothing when one of them is a digest, which only a look at all
// records finds.
std::vector<AddressText> namesIn(std::span<const std::string> texts);

// The same for reading the records that the user's words stand for, by step(). When they name them,
// no others are looked at; unless one is not there, since a crash may have moved it aside.
template <class Step>
auto readNamed(Database& database, std::span<const std::string> texts, Step step,
               Need need = Need::kRecords) {
    if (!namesIn(texts).empty()) {
        try {
            return withSecrets(database, Access::kReadNamed, step, need);
        } catch (const Failure& failure) {
            if (failure.status() != kMissing) {
                throw;
            }
        }
    }
    return withSecrets(database, Access::kRead, step, need);
}

// How to enter for changing what is named so: all of it when nothing is.
inline Access accessToChange(std::span<const AddressText> named) {
    return named.empty() ? Access::kChange : Access::kChangeNamed;
}

// withSecrets() for changing the records that are named so, by step(), which looks at no others.
template <class Step>
auto changeNamed(Database& database, std::span<const AddressText> named, Step step,
                 Need need = Need::kRecords) {
    return withSecrets(database, accessToChange(named), step, need, named);
}

}  // namespace fstore

#endif  // LIB_DATABASE_DATABASE_H
