#include "store/file_store_list.h"

#include <cerrno>
#include <utility>

#include "client/s_filestoreC.h"
#include "cmn/no_throw.h"
#include "format/record_name.h"
#include "os/files.h"
#include "store/context.h"
#include "store/context_objects.h"
#include "store/file_store.h"
#include "store/rw_locker.h"

FileStoreList::FileStoreList() : TFileStoreList(0) {}

FileStoreList::~FileStoreList() = default;

Status FileStoreList::init() {
    return kOk;
}

Status FileStoreList::fini() {
    return kOk;
}

namespace {

aFileStore noRecord() {
    return aFileStore(static_cast<TFileStore*>(nullptr));
}

}  // namespace

aFileStore FileStoreList::getFirst() {
    cursor = records.begin();
    return cursor == records.end() ? noRecord() : *cursor;
}

aFileStore FileStoreList::getNext() {
    if (cursor != records.end()) {
        ++cursor;
    }
    return cursor == records.end() ? noRecord() : *cursor;
}

void FileStoreList::erase(Records::iterator element) {
    const bool current = element == cursor;
    const auto following = records.erase(element);
    if (current) {
        cursor = following;
    }
}

Status FileStoreList::removeCurrent() {
    if (cursor != records.end()) {
        erase(cursor);
    }
    return kOk;
}

unsigned int FileStoreList::isEmpty() {
    return records.empty() ? 1 : 0;
}

unsigned int FileStoreList::isTail() {
    return cursor == records.end() ? 1 : 0;
}

Status FileStoreList::pushFront(aFileStore& item) {
    return noThrow([&] {
        records.emplace_front(item);
        return kOk;
    });
}

Status FileStoreList::pushBack(aFileStore& item) {
    return noThrow([&] {
        records.emplace_back(item);
        return kOk;
    });
}

Status FileStoreList::remove(aFileStore& item) {
    const unsigned int id = item.getUniqueID();
    if (id == 0) {
        return kIo;
    }
    for (auto element = records.begin(); element != records.end(); ++element) {
        if (element->getUniqueID() == id) {
            erase(element);
            return kOk;
        }
    }
    return kEnd;
}

Status FileStoreList::setLockType(int newType) {
    lockType = newType;
    return kOk;
}

namespace {

bool concernsRecord(const char* name) {
    return hasMarker(name, kDscSuffix) || hasMarker(name, kOldMarker);
}

// The names of the folder's regular files that tell of a record, in its order.
Status getFileNameList(const char* folder, std::vector<std::string>& names) {
    if (folder == nullptr) {
        return kInvalid;
    }
    const os::Dir dir = os::openFolder(folder);
    if (!dir) {
        return kIo;
    }
    while (const dirent* const entry = os::nextEntry(dir.get())) {
        if (!concernsRecord(entry->d_name)) {
            continue;  // a body, most often
        }
        os::EntryType kind = os::entryType(*entry);
        if (kind == os::EntryType::kUnknown) {
            kind = os::entryTypeOf(joinPath(folder, entry->d_name).c_str());
        }
        if (kind == os::EntryType::kUnknown && errno != ENOENT) {
            return kIo;  // it may be a record; one that is gone since is none
        }
        if (kind == os::EntryType::kFile) {
            names.emplace_back(entry->d_name);
        }
    }
    return errno == 0 ? kOk : kIo;  // a listing that breaks off is not a short folder
}

// Puts back every descriptor that is still known by its saved name, as the only one.
Status renameOLDFile(const char* folder, std::vector<std::string>& names) {
    bool renamed = false;
    for (std::string& name : names) {
        if (!hasMarker(name, kOldMarker)) {
            continue;
        }
        std::string restored(withoutMarker(name, kOldMarker));
        if (watched::rename(joinPath(folder, name).c_str(), joinPath(folder, restored).c_str()) !=
            0) {
            return kIo;
        }
        name = std::move(restored);
        renamed = true;
    }
    return !renamed || os::syncFolder(folder) ? kOk : kIo;
}

}  // namespace

// What the service makes of this module's records, without asking it for each. A new
// record gets its names before it gets its holder, the element. Until then the framework
// leaves it alone and nobody else knows it, so that it is called without a guard, and no
// handle takes it up only to let go of it.
Status FileStoreList::append(const aFileStore& none, const char* folder, std::string name) {
    Records fresh;
    Element& element = fresh.emplace_back(none);
    FileStore* const record = newRecord();
    const Status status = noThrow([&] {
        const Status placed = record->setFolderName(folder);
        if (placed == kOk) {
            record->adoptFileName(std::move(name));
        }
        return placed;
    });
    element.hold(record);
    if (status == kOk) {
        records.splice(records.end(), fresh);
    }
    return status;
}

Status FileStoreList::readFromFolder(const char* folder) {
    if (isElsewhere(*this)) {
        return kInvalid;
    }
    // Elements take no use of the service; this handle keeps it while they are made.
    const aFileStore none = noRecord();
    std::vector<std::string> names;
    {
        const os::WriteLock locked(RWLocker::lockFor(lockType));
        if (const Status status = getFileNameList(folder, names); status != kOk) {
            return status;
        }
        correctFileNameList(names);
        if (const Status status = renameOLDFile(folder, names); status != kOk) {
            return status;
        }
    }
    records.clear();
    cursor = records.end();
    if (!names.empty() && FileStoreSrvC.service() == nullptr) {
        return kNoObject;  // without the service there are no records
    }
    for (std::string& name : names) {
        if (const Status status = append(none, folder, std::move(name)); status != kOk) {
            return status;
        }
    }
    return kOk;
}
