#include "lib/database/folder_lock.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/folders.h"
#include "os/base.h"
#include "os/files.h"
#include "os/fs.h"

namespace fstore {

void FolderLock::open() {
    makes_ = false;
    openFolder();
}

void FolderLock::openFolder() {
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
    makes_ = true;
    if (folder_) {
        return;
    }
    const bool isNew = place_.descriptor < 0 && !exists(place_.folder);
    if (isNew && os::mkdir(place_.folder.c_str(), S_IRWXU) != 0) {
        failWithErrno("create the folder", place_.folder);
    }
    openFolder();
    // A loss of power that took the folder's name would take the database. One that was there may
    // be what a run before this made, which did not get as far; if not, its sync may fail.
    const os::Base base(folder_.get());
    if (!os::syncFolder("..") && isNew) {
        failWithErrno("sync the folder that contains", place_.folder);
    }
}

void FolderLock::take(os::LockKind kind) {
    constexpr double kForever = 1e9;  // thirty years; the clock cannot count to infinity
    if (kind == os::LockKind::kExclusive && !quiet_) {
        quiet_.emplace();
    }
    until_ =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(std::min(place_.lockSeconds, kForever)));
    hasTold_ = false;
    examineFileSystem();
    const os::Base base(folder_.get());
    if (held_ && held_ != kind) {
        unlock();  // two who each kept one of the locks and waited for the other would wait for
                   // ever
    }
    bool hasFile = false;
    do {
        hasFile = takeFile(kind);
        requireReach(hasFile);
        wait(What::kFolder, kind);
        // One without a file came before the database. Whoever made that has the file.
    } while (!hasFile && kind == os::LockKind::kExclusive && folderState().hasDatabase());
    held_ = kind;
}

bool FolderLock::takeFile(os::LockKind kind) {
    constexpr int kAttempts = 100;
    const bool writes = kind == os::LockKind::kExclusive;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (!file_.open(makes_   ? LockFile::Use::kMake
                        : writes ? LockFile::Use::kWrite
                                 : LockFile::Use::kRead)) {
            return false;
        }
        wait(What::kFile, kind);
        if (file_.isCurrent()) {
            if (writes && token_.empty()) {
                sign();
            }
            return true;
        }
        // Whoever comes next opens another one.
        file_.close();
        token_.clear();
    }
    throw Failure(kIo, fmt::format("{} is replaced again and again", layout::kLockFile),
                  layout::kLockFile);
}

// Elsewhere than on a disk of one host the line is what tells its owner that another had the lock.
// There it only tells others whom they wait for, which no work fails for.
void FolderLock::sign() {
    const LockHolder holder = LockHolder::make();
    if (!file_.write(holder) && asks()) {
        failWithErrno("write the lock file", layout::kLockFile);
    }
    if (asks() && os::fsync(file_.file().get()) != 0) {
        failWithErrno("sync the lock file", layout::kLockFile);
    }
    token_ = holder.token;
}

void FolderLock::examineFileSystem() {
    if (fileSystem_) {
        return;
    }
    fileSystem_ = fileSystemOf(folder_);
    if (fileSystem_->reach == LockReach::kUnsure && !place_.requireSharedLock &&
        observer_ != nullptr) {
        observer_->warn(warningOf(*fileSystem_));
    }
}

void FolderLock::requireReach(bool hasFile) const {
    if (!place_.requireSharedLock) {
        return;
    }
    if (fileSystem_->reach == LockReach::kUnsure) {
        throw Failure(kUsage, warningOf(*fileSystem_), place_.folder);
    }
    if (!hasFile && !file_.fault().empty()) {
        throw Failure(kUsage,
                      fmt::format("{} cannot be locked, and the lock of the folder alone does not "
                                  "hold between hosts: {}",
                                  layout::kLockFile, file_.fault()),
                      layout::kLockFile);
    }
}

bool FolderLock::asks() const noexcept {
    return fileSystem_->reach != LockReach::kHost || place_.requireSharedLock;
}

const std::string& FolderLock::whyLost() noexcept {
    if (lost_.empty() && held_ == os::LockKind::kExclusive && !token_.empty() && asks()) {
        try {
            lost_ = askWhyLost();
        } catch (const std::bad_alloc&) {
            lost_ = "out of memory";  // short enough to need none
        }
    }
    return lost_;
}

// In this order: that it is locked now, and then that nobody else had it until now.
std::string FolderLock::askWhyLost() const {
    const os::Base base(folder_.get());
    switch (os::lockFile(file_.file(), os::LockKind::kExclusive, 0)) {
        case os::Locked::kBusy:
            return "another process has it";
        case os::Locked::kFailed:
            return fmt::format("{}: {}", layout::kLockFile, std::generic_category().message(errno));
        case os::Locked::kYes:
            break;
    }
    const std::optional<LockHolder> holder = readHolder();
    if (!holder) {
        return errno != 0 ? fmt::format("{}: {}", layout::kLockFile,
                                        std::generic_category().message(errno))
                          : fmt::format("{} no longer says who has it", layout::kLockFile);
    }
    return holder->token == token_ ? std::string()
                                   : fmt::format("another process took it: {}", holder->describe());
}

void FolderLock::wait(What what, os::LockKind kind) {
    constexpr std::chrono::duration<double> kQuiet(1);
    const os::File& file = fileOf(what);
    const auto left = [&] {
        return std::max(std::chrono::duration<double>(until_ - Clock::now()).count(), 0.0);
    };
    os::Locked locked = os::lockFile(file, kind, hasTold_ ? 0 : std::min(left(), kQuiet.count()));
    if (locked == os::Locked::kBusy && left() > 0) {
        tellWait(what);
        locked = os::lockFile(file, kind, left());
    }
    switch (locked) {
        case os::Locked::kYes:
            return;
        case os::Locked::kBusy:
            failBusy(what);
        case os::Locked::kFailed:
            failWithErrno(what == What::kFile ? "lock" : "lock the folder",
                          what == What::kFile ? layout::kLockFile : place_.folder);
    }
}

void FolderLock::tellWait(What what) {
    if (!hasTold_ && observer_ != nullptr) {
        hasTold_ = true;
        observer_->note("waiting for another process" + describeWriter(what));
    }
}

void FolderLock::failBusy(What what) const {
    throw Failure(kAlreadyOpen,
                  fmt::format("another process is using the database in {}{}", place_.describe(),
                              describeWriter(what)),
                  Advice{"try again later, or wait longer with --lock-timeout"}, place_.folder);
}

const os::File& FolderLock::fileOf(What what) const noexcept {
    return what == What::kFile ? file_.file() : folder_;
}

// The lock of the folder is waited for with the other one in hand: who has it knows no lock file.
std::string FolderLock::describeWriter(What what) const {
    const std::optional<LockHolder> found = what == What::kFile ? writer() : std::nullopt;
    return found ? fmt::format(" ({})", found->describe()) : std::string();
}

// Readers write nothing: what the file says is then about somebody who has gone.
std::optional<LockHolder> FolderLock::writer() const {
    const os::Base base(folder_.get());
    const os::File file = os::openFile(layout::kLockFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    return file && os::lockFile(file, os::LockKind::kShared, 0) == os::Locked::kBusy ? readHolder()
                                                                                     : std::nullopt;
}

void FolderLock::unlock() noexcept {
    (void)os::unlockFile(folder_);  // cannot fail for a folder that is open
    if (file_.file()) {
        (void)os::unlockFile(file_.file());
    }
    held_.reset();
    token_.clear();
}

void FolderLock::release() noexcept {
    unlock();
    lost_.clear();
    quiet_.reset();
}

}  // namespace fstore
