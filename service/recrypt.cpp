// The change of the database password.
//
// The live database is never changed: a copy of it is re-encrypted and swapped in
// when it is complete and durable. Until then, any failure leaves the database and
// its ciphers as they were.
#include <fcntl.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/s_filestoreC.h"
#include "cmn/no_throw.h"
#include "format/layout.h"
#include "format/record_name.h"
#include "os/files.h"
#include "service/password_digest.h"
#include "service/s_filestore_mm.h"
#include "store/context.h"
#include "store/file_store.h"
#include "store/filefunc.h"
#include "store/record_names.h"

namespace {

using layout::kCopy;
using layout::kLive;
using layout::kPrevious;

// What the handles made here hold is always this module's own.
FileStore& ownRecord(const aFileStore& handle) {
    return static_cast<FileStore&>(*handle.target());
}

bool isEncrypted(FileStore& record) {
    if ((record.getBodyFlag() & 1) != 0) {
        return true;
    }
    for (unsigned int index = 0; index < record.getAttrCount(); ++index) {
        if (record.getAttrFlag(index) != 0) {
            return true;
        }
    }
    return false;
}

// The longest part with the encrypted flag, in whatever form it is.
std::span<const unsigned char> largestSecret(FileStore& record) {
    std::span<const unsigned char> largest;
    const auto consider = [&](unsigned int flag, const unsigned char* bytes, unsigned int size) {
        if ((flag & 1) != 0 && size > largest.size()) {
            largest = {bytes, size};
        }
    };
    consider(record.getBodyFlag(), record.getBody(), record.getBodySize());
    for (unsigned int i = 0; i < record.getAttrCount(); ++i) {
        consider(record.getAttrFlag(i), record.getAttr(i), record.getAttrSize(i));
    }
    return largest;
}

Status writePasswordRecord(const char* password) {
    PasswordDigest digest;
    if (!digest.compute(password)) {
        return kIo;
    }
    const aFileStore handle;
    if (handle.target() == nullptr) {
        return kNoObject;
    }
    FileStore& record = ownRecord(handle);
    (void)record.setLockType(RWLocker::kNoLock);
    if (const Status status = record.setFolderName(kCopy); status != kOk) {
        return status;
    }
    if (const Status status = record.setName(layout::kKeyRecord); status != kOk) {
        return status;
    }
    if (const Status status = record.addAttr(layout::kDigestType, layout::kDigestId, digest.bytes,
                                             sizeof digest.bytes);
        status != kOk) {
        return status;
    }
    return record.store(FileStore::Sync::kLater);
}

// Those the store replaces, and never changes in place. Into others their owners may write.
bool isOfRecord(std::string_view file) {
    return hasMarker(file, kDscSuffix) || isUniqueName(file);
}

bool removeIfThere(const char* folder) {
    return os::presence(folder) == os::Presence::kAbsent || removeFolder(folder) == kOk;
}

// One call for the whole tree: the records of the copy were written without a sync
// of their own, as nothing could see them.
bool makeDurable(const char* folder) {
    const os::File opened = os::openFile(folder, O_RDONLY | O_DIRECTORY);
    return opened && os::syncfs(opened.get()) == 0;
}

// Calls use(folder) for the folder and all in it, each before those in it.
//
// As deep as folders are: a path cannot grow for ever.
template <class Use>
// NOLINTNEXTLINE(misc-no-recursion)
Status visitFolders(const char* folder, Use& use) {
    if (const Status status = use(folder); status != kOk) {
        return status;
    }
    FileList entries;
    if (const Status status = entries.setRootFolder(folder); status != kOk) {
        return status;
    }
    Status listing = entries.readFirst();
    for (; listing == kOk; listing = entries.readNext()) {
        const std::string entry = entries.getName();
        if (entries.isFolder() == 0 || entry == "." || entry == "..") {
            continue;
        }
        if (const Status status = visitFolders(joinPath(folder, entry).c_str(), use);
            status != kOk) {
            return status;
        }
    }
    return listing == kEnd ? kOk : listing;
}

}  // namespace

// NOLINTNEXTLINE(bugprone-reserved-identifier)
Status _getFullStoreList(const char* folder, aFileStoreList& list) {
    auto append = [&list](const char* each) {
        aFileStoreList found;
        (void)aFileStoreListExt(found).setLockType(RWLocker::kNoLock);
        if (const Status status = found.readFromFolder(each); status != kOk) {
            return status;
        }
        for (aFileStore record = found.getFirst(); record.target() != nullptr;
             record = found.getNext()) {
            if (const Status status = list.pushBack(record); status != kOk) {
                return status;
            }
        }
        return kOk;
    };
    return visitFolders(folder, append);
}

class CMN_HIDDEN FileStoreSrv::Recryption {
public:
    Recryption(OpenState& state, const char* oldPassword, const char* newPassword)
        : state_(state), newPassword_(newPassword), oldKey_(oldPassword), newKey_(newPassword) {}

    Status run() {
        // A cipher given no buffer drops its key, and succeeds.
        if (oldKey_.target() == nullptr || newKey_.target() == nullptr) {
            return kIo;
        }
        if (!removeIfThere(kCopy) || duplicateFolder(kLive, kCopy, isOfRecord) != kOk) {
            return kIo;
        }
        if (state_.ownDecoder().setKey(oldKey_) != kOk) {
            return kIo;
        }
        if (const Status status = convert(); status != kOk) {
            return status;
        }
        if (const Status status = writePasswordRecord(newPassword_); status != kOk) {
            return status;
        }
        if (!makeDurable(kCopy)) {
            return kIo;
        }
        return swap();
    }

private:
    // Records take the database's encoder, so it carries the new key while the copy is
    // converted.
    Status convert() {
        (void)state_.ownEncoder();  // there is one to be kept, also before the first open
        aCryptoEncoder fresh;
        if (fresh.setKey(newKey_) != kOk) {
            return kIo;
        }
        const aCryptoEncoder kept = state_.setEncoder(fresh);
        const Status status = noThrow([&] { return convertRecords(); });
        (void)state_.setEncoder(kept);
        return status;
    }

    // All names are there before the first record changes: a folder that cannot be listed fails
    // alone. The records are made one by one, as there may be more than memory can hold.
    Status convertRecords() {
        struct Folder {
            std::string path;
            RecordNames names;
        };
        std::vector<Folder> folders;
        auto list = [&folders](const char* path) {
            return folders.emplace_back(Folder{path, {}}).names.readFrom(path);
        };
        if (const Status status = visitFolders(kCopy, list); status != kOk) {
            return status;
        }
        for (Folder& folder : folders) {
            while (!folder.names.empty()) {
                const Status status = convertFile(folder.path, folder.names.takeFirst());
                if (status != kOk) {
                    return status;
                }
            }
        }
        return kOk;
    }

    Status convertFile(const std::string& folder, const std::string& name) {
        const aFileStore handle;
        if (handle.target() == nullptr) {
            return kNoObject;
        }
        FileStore& record = ownRecord(handle);
        if (const Status status = record.setFolderName(folder.c_str()); status != kOk) {
            return status;
        }
        if (const Status status = record.setFileName(name.c_str()); status != kOk) {
            return status;
        }
        return convertRecord(record);
    }

    // A record that does not decrypt with the old key was not encrypted with it; it
    // stays as copied. One that could not be decrypted for another reason would be lost
    // that way. Want of memory has a status of its own, if the cipher's module tells; in
    // case it does not, the record is tried again when the cipher has proved to work with
    // as many bytes.
    Status convertRecord(FileStore& record) {
        (void)record.setLockType(RWLocker::kNoLock);  // the lock is held
        if (const Status status = record.read(); status != kOk) {
            return status;
        }
        if (!isEncrypted(record)) {
            return kOk;
        }
        (void)record.setLoginCheck(0);  // the database may be closed
        Status status = record.decrypt();
        if (status == kIo) {
            if (!decoderWorks(largestSecret(record))) {
                return kIo;
            }
            status = record.decrypt();
            if (status == kIo) {
                return kOk;
            }
        }
        return status == kOk ? record.store(FileStore::Sync::kLater) : status;
    }

    // Whether what the old key has encrypted decrypts, of the size of this sample. It takes
    // no less memory than the decryption of a record's part: the sample is kept in place of
    // what the record would keep.
    bool decoderWorks(std::span<const unsigned char> sample) {
        aCryptoEncoder sealing;
        if (sealing.setKey(oldKey_) != kOk) {
            return false;
        }
        aBuf plain("some bytes");
        if (!sample.empty() &&
            plain.set(sample.data(), static_cast<unsigned int>(sample.size())) != kOk) {
            return false;
        }
        aBuf cipher = sealing.encrypt(plain);
        const aBuf decrypted = state_.ownDecoder().decrypt(cipher);
        return decrypted.target() != nullptr && !(decrypted != plain);
    }

    // From here on a failure can leave the ciphers and the folders out of step; the
    // folders decide, and the next open brings them together.
    Status swap() {
        if (state_.ownEncoder().setKey(newKey_) != kOk || !removeIfThere(kPrevious)) {
            return kIo;
        }
        if (watched::rename(kLive, kPrevious) != 0 || watched::rename(kCopy, kLive) != 0) {
            return kIo;
        }
        const bool durable = os::syncFolder(".");
        // Decoders that clients took before go on with what they have read so far.
        (void)state_.ownDecoder().setKey(oldKey_);
        aCryptoDecoder fresh;
        state_.setDecoder(fresh);
        if (fresh.setKey(newKey_) != kOk || state_.ownEncoder().setKey(newKey_) != kOk) {
            return kIo;
        }
        return durable ? kOk : kIo;
    }

    OpenState& state_;
    const char* newPassword_;
    aBuf oldKey_;
    aBuf newKey_;
};

Status FileStoreSrv::recrypt(const char* oldPassword, const char* newPassword) {
    return noThrow([&] {
        if (const Status status = checkPwd(oldPassword); status != kOk) {
            return status;
        }
        if (newPassword == nullptr) {
            return kInvalid;
        }
        const os::WriteLock locked(RWLocker::current());
        return Recryption(state(), oldPassword, newPassword).run();
    });
}
