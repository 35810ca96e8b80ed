// The record in memory. Descriptor, body and disk have files of their own.
#include "store/file_store.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

#include "client/s_filestoreC.h"
#include "cmn/no_throw.h"
#include "cmn/wipe.h"
#include "store/context_objects.h"

namespace {

constexpr unsigned int kNotFound = 0xFFFFFFFFU;

// What identifies a record in its process: its address where that has 32 bits, a
// number of its own where it has more.
unsigned int nextUniqueID(const FileStore* record) {
    if constexpr (sizeof(std::uintptr_t) == sizeof(unsigned int)) {
        return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(record));
    } else {
        static std::atomic<unsigned int> last{0};
        unsigned int next = 0;
        while (next == 0) {  // 0 means "no record", also when the numbers come round
            next = last.fetch_add(1, std::memory_order_relaxed) + 1;
        }
        return next;
    }
}

Status assign(std::string& field, const char* text) {
    return noThrow([&] {
        field = text;
        return kOk;
    });
}

}  // namespace

FileStore::Attr::Attr(Attr&& other) noexcept
    : type(std::exchange(other.type, 0)),
      id(std::exchange(other.id, 0)),
      size(std::exchange(other.size, 0)),
      data(std::exchange(other.data, nullptr)),
      pending(std::exchange(other.pending, 0)) {}

FileStore::Attr& FileStore::Attr::operator=(Attr&& other) noexcept {
    if (this != &other) {
        clear();
        type = std::exchange(other.type, 0);
        id = std::exchange(other.id, 0);
        size = std::exchange(other.size, 0);
        data = std::exchange(other.data, nullptr);
        pending = std::exchange(other.pending, 0);
    }
    return *this;
}

FileStore::Attr::~Attr() {
    clear();
}

Status FileStore::Attr::set(unsigned int newType, unsigned int newId, const unsigned char* newData,
                            unsigned int newSize) {
    if (newData == nullptr) {
        return kInvalid;
    }
    const unsigned int kind = newType & kTypeMask;
    if (kind == kTypeNumber && newSize != sizeof(std::uint32_t)) {
        return kMalformed;
    }
    std::size_t stored = newSize;
    if (kind == kTypeString) {
        stored = std::strlen(reinterpret_cast<const char*>(newData)) + 1;
    }
    if ((kind == kTypeString || kind == kTypeText) &&
        std::memchr(newData, '\n', stored) != nullptr) {
        return kMalformed;
    }
    clear();
    return noThrow([&] {
        auto copy = std::make_unique_for_overwrite<unsigned char[]>(stored);
        std::memcpy(copy.get(), newData, stored);
        adopt(newType, newId, std::move(copy), static_cast<unsigned int>(stored));
        return kOk;
    });
}

void FileStore::Attr::adopt(unsigned int newType, unsigned int newId,
                            std::unique_ptr<unsigned char[]> newData,
                            unsigned int newSize) noexcept {
    clear();
    type = newType;
    id = newId;
    size = newSize;
    data = newData.release();
}

void FileStore::Attr::clear() noexcept {
    wipe(data, size);
    delete[] data;
    type = 0;
    id = 0;
    size = 0;
    data = nullptr;
}

std::string FileStore::Attr::text() const {
    const char* const first = reinterpret_cast<const char*>(data);
    return {first, size == 0 ? 0 : strnlen(first, size)};
}

FileStore::FileStore()
    : TFileStore(0),  // no successor module makes records anew, so they need no type
      encoder(aCryptoEncoder::NoUse{}),
      decoder(aCryptoDecoder::NoUse{}),
      uniqueID(nextUniqueID(this)) {}

FileStore::~FileStore() = default;

Status FileStore::init() {
    return kOk;
}

Status FileStore::fini() {
    return kOk;
}

const char* FileStore::getFolderName() {
    return folderName.c_str();
}

Status FileStore::setFolderName(const char* folder) {
    return folder == nullptr ? kOk : assign(folderName, folder);
}

const char* FileStore::getName() {
    return name.c_str();
}

Status FileStore::setName(const char* newName) {
    return noThrow([&] {
        std::string file = newName == nullptr ? std::string() : descriptorName(newName);
        name = newName == nullptr ? "" : newName;
        fileName = std::move(file);
        return kOk;
    });
}

const char* FileStore::getFileName() {
    return fileName.c_str();
}

Status FileStore::setFileName(const char* newFileName) {
    return noThrow([&] {
        adoptFileName(newFileName == nullptr ? "" : newFileName);
        return kOk;
    });
}

void FileStore::adoptFileName(std::string newFileName) {
    name = recordName(newFileName);
    fileName = std::move(newFileName);
}

Status FileStore::setBody(const unsigned char* bytes, unsigned int size) {
    if (bytes == nullptr && size != 0) {
        return kInvalid;
    }
    return noThrow([&] {
        SecretBytes fresh(bytes, bytes + size);
        body = std::move(fresh);
        bodyPending = 0;
        bodyPresent = 1;
        return kOk;
    });
}

unsigned int FileStore::getBodySize() {
    return static_cast<unsigned int>(body.size());
}

const unsigned char* FileStore::getBody() {
    return bodyPresent == 0 || body.empty() ? nullptr : body.data();
}

Status FileStore::setBodyFlag(unsigned int flag) {
    if (flag > 1) {
        return kInvalid;
    }
    bodyFlag = flag;
    return kOk;
}

unsigned int FileStore::getBodyFlag() {
    return bodyFlag;
}

int FileStore::hasBody() {
    return bodyPresent;
}

Status FileStore::addAttr(unsigned int kind, unsigned int id, const unsigned char* data,
                          unsigned int size) {
    return noThrow([&] {
        Attr attr;
        if (const Status status = attr.set(kind & kTypeMask, id, data, size); status != kOk) {
            return status;
        }
        attrs.push_back(std::move(attr));
        return kOk;
    });
}

Status FileStore::setAttr(unsigned int kind, unsigned int id, const unsigned char* data,
                          unsigned int size) {
    const unsigned int index = findAttr(kind, id, nullptr, 0);
    if (index == kNotFound) {
        return addAttr(kind, id, data, size);
    }
    Attr fresh;
    if (const Status status = fresh.set(attrs[index].type, id, data, size); status != kOk) {
        return status;
    }
    attrs[index] = std::move(fresh);
    return kOk;
}

unsigned int FileStore::getAttrCount() {
    return static_cast<unsigned int>(attrs.size());
}

unsigned int FileStore::getAttrType(unsigned int index) {
    return index < attrs.size() ? attrs[index].dataType() : 0;
}

unsigned int FileStore::getAttrID(unsigned int index) {
    return index < attrs.size() ? attrs[index].id : 0;
}

unsigned int FileStore::getAttrSize(unsigned int index) {
    return index < attrs.size() ? attrs[index].size : 0;
}

const unsigned char* FileStore::getAttr(unsigned int index) {
    return index < attrs.size() ? attrs[index].data : nullptr;
}

Status FileStore::setAttrFlag(unsigned int index, unsigned int flag) {
    if (index >= attrs.size()) {
        return kEnd;
    }
    if (flag > 1) {
        return kInvalid;
    }
    unsigned int& word = attrs[index].type;
    word = flag == 1 ? word | kFlagEncrypted : word & ~kFlagEncrypted;
    return kOk;
}

unsigned int FileStore::getAttrFlag(unsigned int index) {
    return index < attrs.size() && (attrs[index].type & kFlagEncrypted) != 0 ? 1 : 0;
}

unsigned int FileStore::findAttr(unsigned int kind, unsigned int id, const unsigned char* data,
                                 unsigned int size) {
    for (unsigned int index = 0; index < attrs.size(); ++index) {
        const Attr& attr = attrs[index];
        const bool sameBytes =
            data == nullptr ||
            (attr.size == size && (size == 0 || std::memcmp(attr.data, data, size) == 0));
        if (attr.dataType() == (kind & kTypeMask) && attr.id == id && sameBytes) {
            return index;
        }
    }
    return kNotFound;
}

Status FileStore::removeAttr(unsigned int index) {
    if (index >= attrs.size()) {
        return kInvalid;
    }
    attrs.erase(attrs.begin() + static_cast<std::ptrdiff_t>(index));
    return kOk;
}

Status FileStore::removeAttrs() {
    attrs.clear();
    return kOk;
}

unsigned int FileStore::getUniqueID() {
    return uniqueID;
}

Status FileStore::setLockType(int newType) {
    lockType = newType;
    return kOk;
}

Status FileStore::setLoginCheck(int check) {
    loginCheck = check;
    return kOk;
}

bool FileStore::isPending() const {
    return bodyPending != 0 ||
           std::any_of(attrs.begin(), attrs.end(), [](const Attr& a) { return a.pending != 0; });
}

// One buffer takes the cipher bytes of all parts: making one goes through the
// framework's locks some dozen times, which is more than a short part costs to decrypt.
Status FileStore::decrypt() {
    return noThrow([&] {
        if (!isPending()) {
            return kOk;
        }
        if (isElsewhere(*this)) {
            return kInvalid;
        }
        if (decryptionRefused()) {
            return kNotOpen;
        }
        aBuf cipher;
        if (const Status status = decryptBody(cipher); status != kOk) {
            return status;
        }
        for (Attr& attr : attrs) {
            if (const Status status = decryptAttr(attr, cipher); status != kOk) {
                return status;
            }
        }
        return kOk;
    });
}

namespace {

// Clients know one failure of a decryption, and want of memory, which is none: what did
// not decrypt for lack of it is not damaged, nor another key's.
Status outcome(Status status) {
    return status == kOk || status == kNoMemory ? status : kIo;
}

}  // namespace

bool FileStore::decryptionRefused() const {
    return loginCheck != 0 && CMN_FILESTORE_S.isOpen() == 0;
}

Status FileStore::decryptBody(aBuf& cipher) {
    if (bodyPending == 0) {
        return kOk;
    }
    if (const Status status = cipher.set(body.data(), getBodySize()); status != kOk) {
        return outcome(status);
    }
    const aBuf plain = decoder.decrypt(cipher);
    if (plain.target() == nullptr) {
        return outcome(plain.error());
    }
    const std::span<const unsigned char> bytes = plain.view();
    return outcome(setBody(bytes.data(), static_cast<unsigned int>(bytes.size())));
}

Status FileStore::decryptAttr(Attr& attr, aBuf& cipher) {
    if (attr.pending == 0) {
        return kOk;
    }
    if (const Status status = cipher.set(attr.data, attr.size); status != kOk) {
        return outcome(status);
    }
    const aBuf plain = decoder.decrypt(cipher);
    if (plain.target() == nullptr) {
        return outcome(plain.error());
    }
    const std::span<const unsigned char> bytes = plain.view();
    // Attr::set() looks for the end of a string; what decrypts to none must not
    // make it look too far.
    if (attr.dataType() == kTypeString &&
        (bytes.empty() || std::memchr(bytes.data(), 0, bytes.size()) == nullptr)) {
        return kIo;
    }
    Attr fresh;
    if (const Status status =
            fresh.set(attr.type, attr.id, bytes.data(), static_cast<unsigned int>(bytes.size()));
        status != kOk) {
        return outcome(status);
    }
    attr = std::move(fresh);
    return kOk;
}
