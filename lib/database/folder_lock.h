// The folder that holds a database, and the lock that keeps other processes out of it.
//
// The store does not coordinate processes, and even its readers repair. So the folder itself
// is locked (which leaves nothing behind in it): exclusively for what may change files, shared
// for readers.
//
// For one thread. Failures throw.
#ifndef LIB_DATABASE_FOLDER_LOCK_H
#define LIB_DATABASE_FOLDER_LOCK_H

#include <optional>

#include "lib/database/place.h"
#include "os/handles.h"
#include "os/process.h"

namespace fstore {

class FolderLock {
public:
    explicit FolderLock(const Place& place) : place_(place) {}
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;
    ~FolderLock() = default;

    // Opens the folder. Later calls do nothing. Throws kMissing when there is none.
    void open();

    // The same; creates the folder when there is none.
    void makeAndOpen();

    const os::File& folder() const noexcept { return folder_; }

    // Takes the lock, or changes the kind of the one that is held. Throws kAlreadyOpen when
    // another process holds it for longer than `lockSeconds`.
    void take(os::LockKind kind);

    void release() noexcept;

private:
    const Place& place_;
    os::File folder_;
    // Of whoever may change files: a limit of their sizes is a failure and kills no program.
    std::optional<os::QuietWrites> quiet_;
};

}  // namespace fstore

#endif  // LIB_DATABASE_FOLDER_LOCK_H
