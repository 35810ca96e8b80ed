// A command's way into the database: its folder, the lock that keeps other processes
// out, the store's modules, what a crash left behind, and the password.
//
// The store does not coordinate processes, and its readers repair too. So the folder
// that holds "db" is locked (the folder itself: nothing is left behind), exclusively
// for what may change files, and shared for readers once leftovers are repaired. The
// password is asked for, and P derived from it, while nothing is locked.
//
// Open the command's own files first: enter() changes the folder.
#ifndef FSTORE_SESSION_H
#define FSTORE_SESSION_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/s_filestoreC.h"
#include "fstore/commands/globals.h"
#include "lib/base/observer.h"
#include "lib/base/secret.h"
#include "lib/database/kdf_record.h"
#include "os/handles.h"
#include "os/process.h"

namespace fstore {

enum class Access { kRead, kChange };

// What the records "kdf" and "key" say about the password.
struct Protection {
    enum class State {
        kNone,   // no password: the store opens with the empty one
        kRaw,    // a password that the store is given as it is
        kScrypt  // a password that only this tool can turn into the store's
    };
    State state = State::kNone;
    std::vector<Slot> slots;  // of the record "kdf"; two of them during a change
    Slot inForce;             // also without a record "kdf"
    bool keepOld = false;     // the unfinished change keeps the database as it was

    // A change of the password was broken off.
    bool isUnfinished() const { return slots.size() == 2; }
};

class Session {
public:
    Session(const Globals& globals, Observer& observer);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    // Enters the database without opening it: what is kept plain can be read, and
    // written with kChange. Throws kMissing when there is none, kAlreadyOpen when
    // another process holds it for longer than the user would wait. Opens it all the
    // same when a change of the password was broken off in its last steps and `access`
    // is kChange: nothing may change before these are done.
    void enter(Access access);

    // Enters and opens it. Throws kWrongPassword, and what gives no password.
    void open(Access access);

    // As enter(kChange), in a folder that may have no database yet: makes its folders,
    // and the folder itself.
    void enterNew();

    // Only locks the folder, exclusively, and makes it if there is none: what is in it
    // may be no database.
    void enterFolder();

    // Lets other processes in, until the next enter...() or open(). What was read before
    // may have changed then.
    void release();

    // Locks, and repairs nothing, so that what a crash left behind can be looked at.
    // There may be no folder "db" but only the one before it.
    void look(Access access);

    // Throws kNotOpen when the open database has no password, so that nothing in it can
    // be kept secret.
    void requireSecrecy() const;

    // As it was when the database was entered.
    const Protection& protection() const noexcept { return protection_; }

    // The store's service, and the password that it was opened with.
    aFileStoreSrv& service() noexcept { return service_; }
    const SecretText& p() const noexcept { return p_; }

    Observer& observer() noexcept { return observer_; }
    // The folder that holds "db": its name, and words for messages.
    const std::string& folderName() const noexcept { return globals_.folder; }
    std::string folder() const { return globals_.folder == "." ? "this folder" : globals_.folder; }

    // Reads the two records anew, and throws kNoDigest or kMalformed when they do not
    // go together.
    void readProtection();

    // With the exclusive lock held: brings back what stood before a command that was
    // broken off, or what stands after it, and reads the protection. May itself be
    // broken off anywhere.
    void recover();

    // Closes the service, if it is open, and opens it with another P.
    void reopen(SecretText p);

    // Has the store re-encrypt everything, each encryption and decryption a step of the
    // observer's work; kInterrupted when that was cancelled. After any failure the folders
    // tell what has become of it.
    Status recrypt(const SecretText& p);

private:
    class Host;

    void goToFolder();
    void lock(os::LockKind kind);
    void startHost();
    void requireDatabase() const;
    bool needsRepair() const;
    void enterLocked(Access access);
    void enterShared();
    SecretText deriveForSlot();

    const Globals& globals_;
    Observer& observer_;
    os::File locked_;  // the folder that holds "db"
    std::unique_ptr<Host> host_;
    aFileStoreSrv service_{nullptr};
    Protection protection_;
    SecretText p_;
};

// Writes the record "kdf" with these slots; removes it when there are none.
void writeKdf(const std::vector<Slot>& slots, bool keepOld);

}  // namespace fstore

#endif  // FSTORE_SESSION_H
