#include "lib/database/store_service.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/counting_service.h"
#include "os/files.h"
#include "os/fs.h"

namespace fstore {

namespace {

// The store reports only that it could not make a folder.
void requireFolderOrNone(const char* path) {
    const os::EntryType type = typeOf(path);
    if (type == os::EntryType::kFile || type == os::EntryType::kOther) {
        throw Failure(kInvalid,
                      fmt::format("{} is a file, and the database needs a folder of this name; "
                                  "move the file elsewhere",
                                  path),
                      path);
    }
}

}  // namespace

StoreService::StoreService(const Place& place) : place_(place) {}

void StoreService::start(const os::File& folder, HeldLock& lock) {
    if (!context_) {
        context_ = std::make_unique<StoreContext>(StoreModules::get(), folder.get(), lock);
    }
}

void StoreService::open(SecretText p) {
    close();
    const Status status = service_.open(p.c_str());
    if (status == kWrongPassword) {
        throw Failure(kWrongPassword,
                      fmt::format("wrong password for the database in {}", place_.describe()),
                      place_.folder);
    }
    check(status, fmt::format("cannot open the database in {}", place_.describe()), place_.folder);
    p_ = std::move(p);
}

void StoreService::close() {
    (void)service_.close();  // it may be closed
    p_ = SecretText();
}

bool StoreService::decrypts(const SecretText& p, std::span<const unsigned char> bytes) {
    aBuf decrypted;
    return service_.decode(aBuf(p.c_str()),
                           aBuf(bytes.data(), static_cast<unsigned int>(bytes.size())),
                           decrypted) == kOk;
}

void StoreService::makeFolders() {
    for (const layout::Folder& folder : layout::kFolders) {
        requireFolderOrNone(folder.path);
    }
    // The store goes on after a folder that it could not make, so errno tells of another.
    if (service_.prepareDBFolders() != kOk) {
        requireNoLoss();
        failOnFolders();
    }
    syncFolder(".");
}

// With the system's reason, which the first one that is missing gets once more.
void StoreService::failOnFolders() const {
    for (const layout::Folder& folder : layout::kFolders) {
        if (!exists(folder.path) && os::mkdir(folder.path, S_IRWXU) != 0) {
            failWithErrno("create the folder", joined(place_.folder, folder.path));
        }
    }
    throw Failure(kIo,
                  fmt::format("cannot create the folders of the database in {}", place_.describe()),
                  place_.folder);
}

Status StoreService::recrypt(const SecretText& p, Observer& observer) {
    const CountingService::Counting counting(observer);
    errno = 0;
    const Status status = service_.recrypt(p_.c_str(), p.c_str());
    requireNoLoss();
    return counting.wasCancelled() ? kInterrupted : status;
}

}  // namespace fstore
