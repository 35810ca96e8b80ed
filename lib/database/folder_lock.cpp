#include "lib/database/folder_lock.h"

#include <fcntl.h>

#include <optional>

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
    // Opened again, since the locks of two descriptors that are copies of one another are one.
    std::optional<os::Base> base;
    if (place_.descriptor >= 0) {
        base.emplace(place_.descriptor);
    }
    folder_ = os::openFile(base ? "." : place_.folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (!folder_) {
        failWithErrno("open the folder", place_.folder);
    }
}

void FolderLock::makeAndOpen() {
    if (folder_) {
        return;
    }
    const bool isNew = place_.descriptor < 0 && !exists(place_.folder);
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
    if (kind == os::LockKind::kExclusive && !quiet_) {
        quiet_.emplace();
    }
    switch (os::lockFile(folder_, kind, place_.lockSeconds)) {
        case os::Locked::kYes:
            return;
        case os::Locked::kBusy:
            break;
        case os::Locked::kFailed:
            failWithErrno("lock the folder", place_.folder);
    }
    throw Failure(kAlreadyOpen,
                  fmt::format("another process is using the database in {}", place_.describe()),
                  Advice{"try again later, or wait longer with --lock-timeout"}, place_.folder);
}

void FolderLock::release() noexcept {
    (void)os::unlockFile(folder_);  // cannot fail for a folder that is open
    quiet_.reset();
}

}  // namespace fstore
