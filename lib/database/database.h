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

#include "lib/base/observer.h"
#include "lib/database/folder_lock.h"
#include "lib/database/hold.h"
#include "lib/database/place.h"
#include "lib/database/protection.h"
#include "lib/database/store_service.h"

namespace fstore {

// kRead: other processes may read, too, and nothing changes but what recovery repairs.
// kChange: no other process may do anything.
enum class Access { kRead, kChange };

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
    // Does nothing yet. The observer is asked for the password while nothing is locked.
    Database(Place place, Observer& observer);
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    ~Database() = default;

    // The one way in; no other Hold of it lives. While it lives, relative paths of the thread
    // begin at the database's folder, so callers open their own files before.
    //
    // kFolder and kDatabase need kChange. If a change of the password was interrupted in its
    // last steps, kChange needs the password for kRecords, too: nothing may change before
    // that change is finished.
    //
    //   kMissing      there is no database, or no such folder
    //   kAlreadyOpen  another process holds the lock for longer than place().lockSeconds
    //   kWrongPassword, and what Observer::password() throws
    //   kNoDigest, kMalformed   the records of the password are damaged
    Hold enter(Access access, Need need = Need::kRecords);

    const Place& place() const noexcept { return place_; }
    Observer& observer() noexcept { return observer_; }

    // While a Hold lives:

    // Another thread that takes part in the operation is in the database while one of its own
    // lives.
    Inside join() const { return Inside(store_.context()); }

    // As it was when the database was entered, for kDatabase and the needs after it.
    const Protection& protection() const noexcept { return protection_; }

    // Whether secrets can be read: entered with kSecrets, now or before. If another process
    // has changed the password since, entering closes the database.
    bool isOpen() { return store_.isOpen(); }

    // Throws SecretsNeeded unless it is open.
    void needSecrets();

    // Throws kNotOpen when the database has no password and so cannot keep secrets.
    void requireSecrecy() const;

    // Gives the database the password of `fresh`, and re-encrypts everything. Entered with
    // kChange, and kSecrets unless it has no password yet. Throws kFound when a record is
    // damaged, since it would stay behind with the old key; nothing has changed then.
    void changePassword(NewSlot fresh, bool keepOld);

private:
    void requireDatabase() const;
    void refuseOther() const;
    void enterRecords(Access access);
    void enterShared();
    void enterExclusive();
    void enterSecrets(Access access);
    void open(Access access);
    void learn(Protection protection);

    const Place place_;
    Observer& observer_;
    FolderLock lock_;
    StoreService store_;
    Protection protection_;
    Slot opened_;  // the slot that P belongs to; while the store is open
};

// Runs step() in the database, entered as `need` says. If the step asks for secrets
// (Database::needSecrets()), opens the database and runs it again from its beginning, since
// other processes had their turn while the user was asked for the password. So a step asks
// before it changes or reports anything.
template <class Step>
auto withSecrets(Database& database, Access access, Step step, Need need = Need::kRecords) {
    try {
        const Hold hold = database.enter(access, need);
        return step();
    } catch (const SecretsNeeded&) {
    }
    const Hold hold = database.enter(access, Need::kSecrets);
    return step();
}

}  // namespace fstore

#endif  // LIB_DATABASE_DATABASE_H
