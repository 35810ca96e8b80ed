// The folder that holds a database, and the lock that keeps other processes out of it.
//
// The store does not coordinate processes, and even its readers repair. So "./db.lock" is locked,
// and then the folder itself, as by programs that know no such file: exclusively for what may
// change files, shared for readers.
//
// For one thread. Failures throw.
#ifndef LIB_DATABASE_FOLDER_LOCK_H
#define LIB_DATABASE_FOLDER_LOCK_H

#include <chrono>
#include <optional>
#include <string>

#include "lib/base/held_lock.h"
#include "lib/base/observer.h"
#include "lib/base/shared_lock.h"
#include "lib/database/lock_file.h"
#include "lib/database/lock_holder.h"
#include "lib/database/place.h"
#include "os/handles.h"
#include "os/process.h"

namespace fstore {

class FolderLock final : public HeldLock {
public:
    // The observer hears once whom a long wait is for; null for nobody.
    explicit FolderLock(const Place& place, Observer* observer = nullptr)
        : place_(place), observer_(observer) {}
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;
    ~FolderLock() override = default;

    // Opens the folder. Later calls do nothing. Throws kMissing when there is none.
    void open();

    // The same; creates the folder when there is none, and the lock file also where there is no
    // database yet.
    void makeAndOpen();

    const os::File& folder() const noexcept { return folder_; }

    // Takes the lock, or changes the kind of the one that is held; in between, it is briefly not
    // held. Throws kAlreadyOpen when another process holds it for longer than `lockSeconds`.
    void take(os::LockKind kind);

    void release() noexcept;

    // Where several hosts can have the file system, or the place requires a shared lock, it asks
    // whether the lock file is still locked and whether it still says what this lock wrote there.
    const std::string& whyLost() noexcept override;
    const std::string& knownLoss() const noexcept override { return lost_; }

    // Why the lock that was taken last is that of the folder alone; empty when it is not.
    const std::string& fileFault() const noexcept { return file_.fault(); }

    // That of the folder, once the lock was taken.
    const FileSystem& fileSystem() const noexcept { return *fileSystem_; }

    // Who holds the lock to change the database, if that is known. While it is not taken.
    std::optional<LockHolder> writer() const;

private:
    using Clock = std::chrono::steady_clock;
    enum class What { kFile, kFolder };

    void openFolder();
    bool takeFile(os::LockKind kind);
    void examineFileSystem();
    void requireReach(bool hasFile) const;
    bool asks() const noexcept;
    void sign();
    std::string askWhyLost() const;
    void wait(What what, os::LockKind kind);
    void tellWait(What what);
    [[noreturn]] void failBusy(What what) const;
    const os::File& fileOf(What what) const noexcept;
    std::string describeWriter(What what) const;
    void unlock() noexcept;

    const Place& place_;
    Observer* const observer_;
    bool makes_ = false;  // a database where there may be none
    os::File folder_;
    LockFile file_;
    std::optional<os::LockKind> held_;
    std::optional<FileSystem> fileSystem_;
    std::string token_;        // of the line that was written; empty for none
    std::string lost_;         // why, once it is
    Clock::time_point until_;  // when a wait ends
    bool hasTold_ = false;
    // Of whoever may change files: a limit of their sizes is a failure and kills no program.
    std::optional<os::QuietWrites> quiet_;
};

}  // namespace fstore

#endif  // LIB_DATABASE_FOLDER_LOCK_H
