// The password of the database, of which only a digest is kept.
#include <cstring>

#include "cmn/no_throw.h"
#include "cmn/wipe.h"
#include "format/layout.h"
#include "service/password_digest.h"
#include "service/s_filestore_mm.h"
#include "store/record_disk.h"
#include "store/rw_locker.h"

PasswordDigest::~PasswordDigest() {
    wipe(bytes, sizeof bytes);
}

bool PasswordDigest::compute(const char* password) {
    return rk5_MD5Compute(nullptr, bytes, password,
                          static_cast<unsigned int>(std::strlen(password))) == 1;
}

namespace {

// An interrupted write may have left the record under its saved name: it is put
// back then, before anybody takes the database for one without password. False
// when that cannot be told or not be done.
bool putBackSaved(const aFileStore& record) {
    const os::ReadLock locked(RWLocker::current());
    return tryCorrectName(layout::kLive, record.getFileName()) == kOk;
}

}  // namespace

Status FileStoreSrv::checkPwd(const char* candidate) {
    if (candidate == nullptr) {
        return kInvalid;
    }
    return noThrow([&] {
        aFileStore record;
        if (record.target() == nullptr || record.setFolderName(layout::kLive) != kOk ||
            record.setName(layout::kKeyRecord) != kOk) {
            return kNotOpen;  // whether the database has a password cannot be told
        }
        if (record.isExist() == 0) {
            if (!putBackSaved(record)) {
                return kNotOpen;
            }
            if (record.isExist() == 0) {
                return *candidate == '\0' ? kOk : kWrongPassword;
            }
        }
        if (record.read() != kOk) {
            return kNotOpen;
        }
        const unsigned int index =
            record.findAttr(layout::kDigestType, layout::kDigestId, nullptr, 0);
        PasswordDigest digest;
        if (index >= record.getAttrCount() || record.getAttrSize(index) != sizeof digest.bytes) {
            return kNoDigest;
        }
        if (!digest.compute(candidate)) {
            return kIo;
        }
        return std::memcmp(digest.bytes, record.getAttr(index), sizeof digest.bytes) == 0
                   ? kOk
                   : kWrongPassword;
    });
}
