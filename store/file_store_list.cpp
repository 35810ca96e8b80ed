#include "store/file_store_list.h"

#include <utility>

#include "client/s_filestoreC.h"
#include "cmn/no_throw.h"
#include "store/context_objects.h"
#include "store/file_store.h"
#include "store/record_names.h"
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
    RecordNames names;
    {
        const os::WriteLock locked(RWLocker::lockFor(lockType));
        if (const Status status = names.readFrom(folder); status != kOk) {
            return status;
        }
    }
    records.clear();
    cursor = records.end();
    if (!names.empty() && FileStoreSrvC.service() == nullptr) {
        return kNoObject;  // without the service there are no records
    }
    while (!names.empty()) {
        if (const Status status = append(none, folder, names.takeFirst()); status != kOk) {
            return status;
        }
    }
    return kOk;
}
