#include "lib/database/folder_lock.h"

#include <fcntl.h>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/files.h"
#include "os/base.h"
#include "os/files.h"
#include "os/fs.h"

namespace fstore {

void FolderLock::open() {
    if (folder_) {
        return;
    }
    folder_ = os::openFile(place_.folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (!folder_) {
        failWithErrno("open the folder", place_.folder);
    }
}

void FolderLock::makeAndOpen() {
    if (folder_) {
        return;
    }
    const bool isNew = !exists(place_.folder);
    if (isNew && os::mkdir(place_.folder.c_str(), S_IRWXU) != 0) {
        failWithErrno("create the folder", place_.folder);
    }
    open();
    // A loss of power that took the folder's name would take the database. One that was there may
    // be what a run before this made, which did not get as far; if not, its sync may fail.
    const os::Base base(folder_.get());
    if (!os::syncFolder("..") && isNew) {
        failWithErrno("sync the folder that contains", place_.folder);
    }
}

void FolderLock::take(os::LockKind kind) {
    switch (os::lockFile(folder_, kind, place_.lockSeconds)) {
        case os::Locked::kYes:
            return;
        case os::Locked::kBusy:
            break;
        case os::Locked::kFailed:
            failWithErrno("lock the folder", place_.folder);
    }
    throw Failure(kAlreadyOpen,
                  fmt::format("another process is using the database in {}; try again later, or "
                              "wait longer with --lock-timeout",
                              place_.describe()),
                  place_.folder);
}

void FolderLock::release() noexcept {
    (void)os::unlockFile(folder_);  // cannot fail for a folder that is open
}

}  // namespace fstore
