// How a record reaches the disk, comes back and goes.
//
// Whatever call fails and wherever the process dies or the power goes, a record is
// wholly its old or wholly its new one. What keeps that so:
//   I1  a file is complete and durable before a name that readers know leads to it;
//   I2  between the two renames of a replacement the old descriptor is known as
//       ".$o$", from where every reader puts it back;
//   I3  nothing that the old state needs is deleted before the names of the new
//       state are durable, and nothing that the new state needs while a power loss
//       could still bring the new names back;
//   I4  no saved descriptor outlives the removal of its record: it would bring the
//       record back.
#include "store/record_disk.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "client/s_filestoreC.h"
#include "cmn/no_throw.h"
#include "os/files.h"
#include "store/context.h"
#include "store/context_objects.h"
#include "store/file_store.h"
#include "store/fresh_number.h"

namespace {

// Never stored: names that are taken are found by looking.
std::atomic<unsigned int> static_num{1};

NumberLook lookIn(const char* folder, const char* suffix) {
    return [folder, suffix](unsigned int number) {
        std::string path = uniqueName(number);
        if (folder != nullptr) {
            path = joinPath(folder, path);
        }
        path += suffix == nullptr ? "" : suffix;
        return os::presence(path.c_str());
    };
}

// Renames, also over something that cannot be replaced but deleted.
bool moveAside(const std::string& from, const std::string& to) {
    if (watched::rename(from.c_str(), to.c_str()) == 0) {
        return true;
    }
    (void)watched::remove(to.c_str());  // whether that helped, the second rename tells
    return watched::rename(from.c_str(), to.c_str()) == 0;
}

// Gives a descriptor that is to go the name of the saved one. A saved descriptor that
// is there, or that an earlier write has deleted and a power loss could bring back, is
// replaced by it: whichever of the two names reaches the disk leads to the same state,
// and no older one comes back (I4). Without a descriptor the saved one is the record.
bool moveOverSaved(const std::string& descriptor, const std::string& saved) {
    if (watched::rename(descriptor.c_str(), saved.c_str()) == 0 || errno == ENOENT) {
        return true;
    }
    return os::presence(descriptor.c_str()) == os::Presence::kPresent &&
           moveAside(descriptor, saved);
}

bool deleteFile(const std::string& path) {
    return watched::remove(path.c_str()) == 0;
}

std::string marked(const std::string& name, std::string_view marker) {
    return std::string(name).append(marker);
}

// A record of its own must not take the place of another, nor of one that a repair
// will put back there. Empty when that cannot be told.
std::string freshRecordName(const std::string& folder) {
    for (;;) {
        FreshNumber fresh = takeFarAhead(static_num, lookIn(folder.c_str(), kDscSuffix.data()));
        std::string name = uniqueName(fresh.number);
        if (fresh.taken == os::Presence::kAbsent) {
            const std::string descriptor = joinPath(folder, descriptorName(name));
            fresh.taken = os::presence(marked(descriptor, kOldMarker).c_str());
        }
        switch (fresh.taken) {
            case os::Presence::kAbsent:
                return name;
            case os::Presence::kUnknown:
                return {};
            case os::Presence::kPresent:
                break;
        }
    }
}

// The path of the body that a descriptor names; empty when it names none, or one
// that is not the record's to touch.
Status findBody(const std::string& folder, const std::string& descriptor, std::string& path) {
    std::vector<FileStore::Attr> attrs;
    if (const Status status = FileStore::readDSC(descriptor.c_str(), attrs); status != kOk) {
        return status;
    }
    const FileStore::Attr* const reference = findBodyReference(attrs);
    const std::string_view name = reference == nullptr ? "" : bodyNameIn(reference->bytes());
    path = isBodyName(name) ? joinPath(folder, name) : std::string();
    return kOk;
}

// A file that no memory will ever be asked for.
bool isTooLargeToRead(const std::string& path) {
    os::File file;
    off_t size = 0;
    return os::openRegular(path.c_str(), file, size, os::Links::kRefuse) == os::Opened::kRegular &&
           size >= std::numeric_limits<unsigned int>::max();
}

// As findBody(), of the record whose descriptor is the saved one where there is no other.
// False when memory was short, and may not be the next time.
bool learnBody(const std::string& folder, const std::string& descriptor, const std::string& saved,
               std::string& path) {
    const std::string* source = &descriptor;
    Status status = findBody(folder, descriptor, path);
    if (status == kMissing && os::presence(descriptor.c_str()) == os::Presence::kAbsent) {
        source = &saved;
        status = findBody(folder, saved, path);
    }
    return status != kNoMemory || isTooLargeToRead(*source);
}

void removeBody(const std::string& path) {
    if (!path.empty()) {
        (void)watched::remove(path.c_str());  // a body that stays is an orphan, not an error
    }
}

// Deletes a descriptor and the body that it names, unless that is `kept`.
Status removeRecord(const std::string& folder, const std::string& descriptor,
                    std::string_view kept = {}) {
    return noThrow([&] {
        std::string body;
        if (const Status status = findBody(folder, descriptor, body); status != kOk) {
            return status;
        }
        if (!deleteFile(descriptor)) {
            return kIo;
        }
        if (body != kept) {
            removeBody(body);
        }
        return kOk;
    });
}

bool finish(os::File file, FileStore::Sync sync) {
    return sync == FileStore::Sync::kNow ? os::closeDurably(std::move(file)) : file.close();
}

}  // namespace

std::string getUniqueName(const char* folder, const char* suffix) {
    constexpr unsigned int kMostAttempts = 100000;
    return uniqueName(takeInOrder(static_num, lookIn(folder, suffix), kMostAttempts).number);
}

int syncClose(std::FILE* stream) {
    if (std::fflush(stream) != 0 || os::fsync(fileno(stream)) != 0) {
        return -1;
    }
    return std::fclose(stream);
}

// Readers repair side by side: a name that is gone when it is to be changed was
// changed by one of them.
Status tryCorrectName(const char* folder, const char* fileName) {
    return noThrow([&] {
        const std::string current = joinPath(folder, fileName);
        const std::string saved = marked(current, kOldMarker);
        const os::Presence hasSaved = os::presence(saved.c_str());
        if (hasSaved == os::Presence::kAbsent) {
            return kOk;
        }
        const os::Presence hasCurrent = os::presence(current.c_str());
        if (hasSaved == os::Presence::kUnknown || hasCurrent == os::Presence::kUnknown) {
            return kIo;
        }
        const bool done = hasCurrent == os::Presence::kPresent
                              ? watched::remove(saved.c_str()) == 0
                              : watched::rename(saved.c_str(), current.c_str()) == 0;
        if (!done && errno != ENOENT) {
            return kIo;
        }
        return os::syncFolder(folder) ? kOk : kIo;
    });
}

// What a write has made so far. Files that are not in place when it ends in failure
// are removed; where nothing may be changed any more, they stay: others may have made
// theirs under these names since.
struct CMN_HIDDEN FileStore::NewFiles {
    NewFiles() = default;
    NewFiles(const NewFiles&) = delete;
    NewFiles& operator=(const NewFiles&) = delete;
    ~NewFiles() {
        if (!isInPlace && !Context::mayChange()) {
            for (auto* const path : {&bodyPath, &newDescriptor}) {
                if (*path) {
                    (*path)->commit();
                }
            }
        }
    }

    // They are the record's now.
    void keep() {
        if (bodyPath) {
            bodyPath->commit();
        }
        isInPlace = true;
    }

    // The path of the new body, if there is one. An old record whose body was lost may name
    // the same file.
    std::string_view body() const { return bodyPath ? bodyPath->path() : std::string_view(); }

    bool isInPlace = false;
    std::string bodyName;  // empty: the record has no body
    std::optional<os::TempPath> bodyPath;
    os::File bodyFile;
    std::string recordName;  // of the descriptor, without extension
    std::string fileName;
    std::string descriptor;                     // the path that readers know
    std::string saved;                          // where the old one waits
    std::optional<os::TempPath> newDescriptor;  // where the new one is made
};

Status FileStore::write() {
    return store(Sync::kNow);
}

Status FileStore::store(Sync sync) {
    if (isElsewhere(*this)) {
        return kInvalid;
    }
    const Status status = noThrow([&] {
        if (const Status plain = decrypt(); plain != kOk) {
            return plain;
        }
        const os::WriteLock locked(RWLocker::lockFor(lockType));
        return replaceRecord(sync);
    });
    return status == kOk ? kOk : kIo;  // clients know one failure of a write
}

Status FileStore::replaceRecord(Sync sync) {
    encoder = CMN_FILESTORE_S.getEncoder();
    NewFiles files;
    if (const Status status = writeNewFiles(files, sync); status != kOk) {
        return status;
    }
    if (const Status status = sync == Sync::kNow ? publish(files) : replaceUnseen(files);
        status != kOk) {
        return status;
    }
    name = std::move(files.recordName);
    fileName = std::move(files.fileName);
    return kOk;
}

// Both files are written, and their write-back is started, before either is synced: their
// bytes travel side by side, a journal takes both in at the first sync, and the second
// finds its work done. The start is a hint that promises nothing; each file is synced and
// closed before any rename (I1).
Status FileStore::writeNewFiles(NewFiles& files, Sync sync) {
    if (bodyPresent != 0) {
        if (const Status status = createBodyFile(files); status != kOk) {
            return status;
        }
        if (sync == Sync::kNow) {
            (void)os::startWriteback(files.bodyFile.get());
        }
    }
    files.recordName = name.empty() ? freshRecordName(folderName) : name;
    if (files.recordName.empty()) {
        return kIo;
    }
    files.fileName = name.empty() ? descriptorName(files.recordName) : fileName;
    files.descriptor = joinPath(folderName, files.fileName);
    files.saved = marked(files.descriptor, kOldMarker);
    const std::string path = marked(files.descriptor, kNewMarker);
    if (!Context::mayChange()) {
        return kIo;  // who has the lock now makes its own under this name
    }
    os::File descriptor;
    if (const Status status = writeDscFile(path.c_str(), files.bodyName.c_str(), descriptor);
        status != kOk) {
        return status;
    }
    files.newDescriptor.emplace(path);
    if (files.bodyFile && sync == Sync::kNow) {
        (void)os::startWriteback(descriptor.get());
    }
    if (files.bodyFile && !finish(std::move(files.bodyFile), sync)) {
        return kIo;
    }
    if (!finish(std::move(descriptor), sync)) {
        files.newDescriptor->commit();  // stays behind, as after writeDSC(); nobody reads it
        return kIo;
    }
    return kOk;
}

// The name was free when it was chosen, or nobody looked; only creating it
// exclusively makes sure that no other record's body is overwritten.
Status FileStore::createBodyFile(NewFiles& files) {
    const aBuf bytes = bodyOnDisk();
    if (bytes.target() == nullptr) {
        return kIo;
    }
    do {
        files.bodyName =
            uniqueName(takeFarAhead(static_num, lookIn(folderName.c_str(), nullptr)).number);
        const std::string path = joinPath(folderName, files.bodyName);
        files.bodyPath.emplace(path);
        files.bodyFile = os::openFile(path.c_str(), O_WRONLY | O_CREAT | O_EXCL);
        if (!files.bodyFile) {
            files.bodyPath->commit();  // not ours
        }
    } while (!files.bodyFile && errno == EEXIST);
    return files.bodyFile && writeBytes(files.bodyFile, bytes) ? kOk : kIo;
}

// The old descriptor goes aside, the new one takes its place, and the names become
// durable (I2, I3). Then the old record is deleted.
Status FileStore::publish(NewFiles& files) {
    const os::Presence old = os::presence(files.descriptor.c_str());
    if (old == os::Presence::kUnknown) {
        return kIo;  // taken for absent, it would be overwritten
    }
    const bool replaces = old == os::Presence::kPresent;
    if (replaces && !moveAside(files.descriptor, files.saved)) {
        return kIo;
    }
    if (watched::rename(files.newDescriptor->c_str(), files.descriptor.c_str()) != 0) {
        if (replaces) {
            // Should this fail too, every reader does it.
            (void)watched::rename(files.saved.c_str(), files.descriptor.c_str());
        }
        return kIo;
    }
    files.newDescriptor->commit();
    if (!os::syncFolder(folderName.c_str())) {
        undoPublish(files, replaces);
        return kIo;
    }
    files.keep();
    // kMissing when this was the first write. Should it fail, the saved descriptor is
    // replaced by the next write and deleted by the next removal.
    (void)removeRecord(folderName, files.saved, files.body());
    return kOk;
}

// Where nobody looks, no state in between needs a name.
Status FileStore::replaceUnseen(NewFiles& files) {
    std::string oldBody;
    if (findBody(folderName, files.descriptor, oldBody) == kNoMemory) {
        return kIo;  // the body would stay behind
    }
    if (watched::rename(files.newDescriptor->c_str(), files.descriptor.c_str()) != 0) {
        return kIo;
    }
    files.newDescriptor->commit();
    files.keep();
    if (oldBody != files.body()) {
        removeBody(oldBody);
    }
    return kOk;
}

// The new names may have reached the disk all the same. Unless it is certain that
// they are gone from there, the new body stays: better an orphan than a record
// without its body (I3).
void FileStore::undoPublish(NewFiles& files, bool replaced) {
    const bool undone = replaced
                            ? watched::rename(files.saved.c_str(), files.descriptor.c_str()) == 0
                            : deleteFile(files.descriptor);
    if (files.bodyPath && !(undone && os::syncFolder(folderName.c_str()))) {
        files.bodyPath->commit();
    }
}

Status FileStore::read() {
    if (isElsewhere(*this)) {
        return kInvalid;
    }
    if (fileName.empty()) {
        return kMissing;
    }
    return noThrow([&] {
        const std::string path = joinPath(folderName, fileName);
        attrs.clear();
        const os::ReadLock locked(RWLocker::lockFor(lockType));
        const Status status = readFiles(path);
        if (status == kOk) {
            decoder = CMN_FILESTORE_S.getDecoder();
        }
        return status;
    });
}

Status FileStore::readFiles(const std::string& path) {
    Status status = readDSC(path.c_str(), attrs);
    if (status == kMissing) {
        // A repair that failed may still have been done by another reader.
        if (tryCorrectName(folderName.c_str(), fileName.c_str()) != kOk &&
            os::presence(path.c_str()) != os::Presence::kPresent) {
            return kMissing;
        }
        status = readDSC(path.c_str(), attrs);
    }
    // Also those before a bad line: the record may be written although it did not read.
    for (Attr& attr : attrs) {
        attr.pending = (attr.type & kFlagEncrypted) != 0 ? 1 : 0;
    }
    if (status == kOk) {
        bodyFlag = 0;
        bodyPending = 0;
        bodyPresent = 0;
        if (const Attr* const reference = findBodyReference(attrs); reference != nullptr) {
            status = adoptBody(*reference);
        }
    }
    std::erase_if(attrs, [](const Attr& attr) { return (attr.type & kFlagBody) != 0; });
    return status;
}

Status FileStore::adoptBody(const Attr& reference) {
    bodyPresent = 1;
    if ((reference.type & kFlagEncrypted) != 0) {
        bodyFlag = 1;
        bodyPending = 1;
    }
    const std::string_view bodyName = bodyNameIn(reference.bytes());
    if (!isBodyName(bodyName)) {
        body.clear();
        return kMalformed;  // a file elsewhere, or a descriptor, is not this record's
    }
    return readBody(joinPath(folderName, bodyName).c_str());
}

Status FileStore::removeObj(const char* folder, const char* fileName) {
    if (folder == nullptr || fileName == nullptr) {
        return kInvalid;
    }
    return noThrow([&] { return removeRecord(folder, joinPath(folder, fileName)); });
}

Status FileStore::remove() {
    if (isElsewhere(*this)) {
        return kInvalid;
    }
    if (fileName.empty()) {
        return kMissing;
    }
    return noThrow([&] {
        const os::WriteLock locked(RWLocker::lockFor(lockType));
        return removeFiles();
    });
}

// The record is gone once the sync has returned, whatever becomes of its files. Before
// that nothing is deleted that the record needs (I3). The deletions need no sync: no
// reader knows the names that a power loss could bring back, and what they take up is
// found by those names.
//
// The body's name comes first: a removal that found no memory for it afterwards would
// leave the body behind, and its bytes may be secret. A descriptor that is damaged or
// cannot be read goes alone, since nothing tells which body is its own.
Status FileStore::removeFiles() {
    const std::string path = joinPath(folderName, fileName);
    const std::string saved = marked(path, kOldMarker);
    const std::string deleted = marked(path, kDeletedMarker);
    std::string bodyPath;
    if (!learnBody(folderName, path, saved, bodyPath)) {
        return kNoMemory;
    }
    if (!moveOverSaved(path, saved)) {
        return kIo;
    }
    if (!moveAside(saved, deleted)) {
        (void)watched::rename(saved.c_str(), path.c_str());
        return kIo;
    }
    if (!os::syncFolder(folderName.c_str())) {
        (void)watched::rename(deleted.c_str(), path.c_str());
        return kIo;
    }
    (void)deleteFile(deleted);  // one that stays is nobody's record
    removeBody(bodyPath);
    return kOk;
}

int FileStore::isExist() {
    if (fileName.empty()) {
        return 0;
    }
    if (isElsewhere(*this)) {
        return 1;  // absence cannot be told from here
    }
    int found = 1;
    (void)noThrow([&] {
        const os::ReadLock locked(RWLocker::lockFor(lockType));
        const os::Presence descriptor = os::presence(joinPath(folderName, fileName).c_str());
        found = descriptor == os::Presence::kAbsent ? 0 : 1;
        return kOk;
    });
    return found;
}
