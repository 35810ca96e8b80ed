// The change of the database password.
//
// The live database is never changed: a copy of it is re-encrypted and swapped in
// when it is complete and durable. Until then, any failure leaves the database and
// its ciphers as they were.
#include <fcntl.h>

#include <span>
#include <string>

#include "client/s_filestoreC.h"
#include "cmn/no_throw.h"
#include "format/layout.h"
#include "os/files.h"
#include "service/password_digest.h"
#include "service/s_filestore_mm.h"
#include "store/context.h"
#include "store/file_store.h"
#include "store/filefunc.h"

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

bool removeIfThere(const char* folder) {
    return os::presence(folder) == os::Presence::kAbsent || removeFolder(folder) == kOk;
}

// One call for the whole tree: the records of the copy were written without a sync
// of their own, as nothing could see them.
bool makeDurable(const char* folder) {
    const os::File opened = os::openFile(folder, O_RDONLY | O_DIRECTORY);
    return opened && os::syncfs(opened.get()) == 0;
}

}  // namespace

// As deep as folders are: a path cannot grow for ever.
// NOLINTNEXTLINE(misc-no-recursion,bugprone-reserved-identifier)
Status _getFullStoreList(const char* folder, aFileStoreList& list) {
    aFileStoreList found;
    (void)aFileStoreListExt(found).setLockType(RWLocker::kNoLock);
    if (const Status status = found.readFromFolder(folder); status != kOk) {
        return status;
    }
    for (aFileStore record = found.getFirst(); record.target() != nullptr;
         record = found.getNext()) {
        if (const Status status = list.pushBack(record); status != kOk) {
            return status;
        }
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
        if (const Status status = _getFullStoreList(joinPath(folder, entry).c_str(), list);
            status != kOk) {
            return status;
        }
    }
    return listing == kEnd ? kOk : listing;
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
        if (!removeIfThere(kCopy) || copyWholeFolder(kLive, kCopy) != kOk) {
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

    // Takes each record off the list, and so out of memory, when it is done.
    Status convertRecords() {
        aFileStoreList records;
        (void)aFileStoreListExt(records).setLockType(RWLocker::kNoLock);
        if (const Status status = _getFullStoreList(kCopy, records); status != kOk) {
            return status;
        }
        for (aFileStore handle = records.getFirst(); handle.target() != nullptr;
             handle = records.getFirst()) {
            if (const Status status = convertRecord(ownRecord(handle)); status != kOk) {
                return status;
            }
            (void)records.removeCurrent();
        }
        return kOk;
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
