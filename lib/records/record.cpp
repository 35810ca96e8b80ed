#include "lib/records/record.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "format/record_name.h"
#include "lib/base/conflict_copy.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/records/attributes.h"
#include "lib/records/descriptor.h"
#include "lib/records/lookup.h"
#include "os/files.h"
#include "os/fs.h"

namespace fstore {
namespace {

unsigned int sizeOf(std::span<const unsigned char> bytes) {
    return static_cast<unsigned int>(bytes.size());
}

const unsigned char* dataOf(std::span<const unsigned char> bytes) {
    static constexpr unsigned char kEmpty = 0;  // null would be refused
    return bytes.empty() ? &kEmpty : bytes.data();
}

std::span<const unsigned char> asBytes(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// Whether a descriptor holds this text as it is. What was written as a text of old is no
// escape of anything else, so what does not fit needs another type.
bool fitsInLine(unsigned int id, std::string_view text) {
    DscLine written{kTypeText, id, std::string(text)};
    DscLine read;
    std::string line;
    return printDscLine(written, line) == kOk && parseDscLine(line.c_str(), read) == kOk &&
           line.find('\n') == std::string::npos && read.data == text;
}

void checkText(unsigned int id, std::string_view text) {
    constexpr std::string_view kBlanks = " \t\v\f\r";
    if (text.find_first_of(std::string_view("\n\0", 2)) != std::string_view::npos ||
        (!text.empty() && kBlanks.find(text[0]) != std::string_view::npos)) {
        throw Failure(kMalformed,
                      fmt::format("cannot store the text of attribute 0x{:x}: it contains a line "
                                  "feed or a NUL, or begins with a blank",
                                  id));
    }
}

// Two readable records hold the same.
bool sameContents(const Record& a, const Record& b) {
    if (a.count() != b.count() || a.hasBody() != b.hasBody() ||
        !std::ranges::equal(a.body(), b.body())) {
        return false;
    }
    for (unsigned int i = 0; i < a.count(); ++i) {
        if (a.type(i) != b.type(i) || a.id(i) != b.id(i) || a.isEncrypted(i) != b.isEncrypted(i) ||
            !std::ranges::equal(a.bytes(i), b.bytes(i))) {
            return false;
        }
    }
    return true;
}

// That there is one; and not so large that the store, which takes memory for all of it, must not
// see it.
void requireModest(const Address& address) {
    const std::string path = descriptorPath(address);
    struct stat status {};
    if (os::lstat(path.c_str(), &status) != 0 && errno != ENOENT && errno != ENOTDIR) {
        failWithErrno("examine", path);
    }
    if (!S_ISREG(status.st_mode)) {
        throw NoRecord(address.print());
    }
    if (const auto size = static_cast<std::uint64_t>(status.st_size); size > kMostDescriptor) {
        throw tooLarge(path, size);
    }
}

// Two states of a record go only one after the other: that somebody wants to be rid of one need not
// mean both.
void refuseMerge(const std::string& path) {
    SecretBytes bytes;
    try {
        bytes = readDescriptorBytes(path);
    } catch (const Failure&) {
        return;  // what cannot be read, the store refuses or removes
    }
    if (mergeSidesOf({reinterpret_cast<const char*>(bytes.data()), bytes.size()})) {
        throw Failure(kMalformed,
                      fmt::format("{} has two states in it, with the marks of a merge", path),
                      Advice{fmt::format("keep one first: `fstore check --settle {} --keep ours`, "
                                         "or theirs",
                                         path)},
                      path);
    }
}

const char* shapeOf(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "is a folder";
    }
    if (S_ISLNK(mode)) {
        return "is a link";
    }
    return S_ISFIFO(mode) ? "is a FIFO" : "is a special file";
}

// Why it is no file to read; null if it is one. Throws when it cannot be opened now: the store has
// one status for that and for a file that is missing.
const char* obstacleAt(const std::string& path) {
    struct stat status {};
    if (os::lstat(path.c_str(), &status) != 0 && errno == ENOENT) {
        return "is missing";
    }
    if (status.st_mode != 0 && !S_ISREG(status.st_mode)) {
        return shapeOf(status.st_mode);
    }
    os::File file;
    off_t size = 0;
    const os::Opened opened = os::openRegular(path.c_str(), file, size, os::Links::kRefuse);
    if (opened == os::Opened::kFailed) {
        failWithErrno("open", path);
    }
    return nullptr;
}

// Says which of the record's files is none, if one is.
void requireFilesOf(const Address& address, Status status) {
    const auto require = [&](const char* what, const std::string& path) {
        if (const char* const obstacle = obstacleAt(path)) {
            throw Failure(status,
                          fmt::format("cannot read {}: its {} {} {}; run `fstore check`",
                                      address.print(), what, path, obstacle),
                          address.print());
        }
    };
    const std::string path = descriptorPath(address);
    require("descriptor", path);
    if (const auto body = bodyNameOf(readDescriptor(path)); body && isBodyName(*body)) {
        require("body file", joined(folderPath(address.folder), *body));
    }
}

}  // namespace

Record::Record(Address address) : address_(std::move(address)) {
    if (store_.target() == nullptr) {
        throw noService();
    }
    const auto accept = [&](Status status) {
        if (status != kOk) {  // a listing makes many, and none of them needs the sentence
            check(status, fmt::format("cannot create {}", address_.print()), address_.print());
        }
    };
    accept(changing().setFolderName(folderPath(address_.folder).c_str()));
    accept(changing().setName(address_.name.c_str()));
}

Record Record::read(const Address& address) {
    requireModest(address);
    Record record(address);
    checkRead(record.changing().read(), address);
    record.readable_ = !record.hasSecrets();
    return record;
}

bool Record::isThere(const Address& address) {
    return isA(os::EntryType::kFile, descriptorPath(address));
}

Record::Contents Record::Proxy::contents() const {
    return call(Contents(), [](TFileStore& store) {
        Contents seen;
        const unsigned int count = store.getAttrCount();
        seen.attributes.reserve(count);
        for (unsigned int i = 0; i < count; ++i) {
            seen.attributes.push_back({store.getAttrType(i),
                                       store.getAttrID(i),
                                       store.getAttrFlag(i) != 0,
                                       {store.getAttr(i), store.getAttrSize(i)}});
        }
        seen.hasBody = store.hasBody() != 0;
        seen.bodyEncrypted = store.getBodyFlag() != 0;
        if (seen.hasBody) {
            seen.body = {store.getBody(), store.getBodySize()};
        }
        return seen;
    });
}

aFileStore& Record::changing() noexcept {
    seen_.reset();
    errno = 0;
    return store_;
}

const Record::Contents& Record::contents() const {
    if (!seen_) {
        seen_ = store_.contents();
    }
    return *seen_;
}

bool Record::hasSecrets() const {
    return isBodyEncrypted() ||
           std::ranges::any_of(contents().attributes, &Contents::Attribute::encrypted);
}

void Record::decrypt() {
    if (readable_) {
        return;
    }
    const Status status = changing().decrypt();
    if (status == kOk) {
        readable_ = true;
        return;
    }
    const std::string what = fmt::format("cannot decrypt {}", address_.print());
    if (status == kIo) {
        throw Failure(kIo, what + ": it is damaged, or was encrypted with another password",
                      address_.print());
    }
    check(status, what, address_.print());
}

std::optional<unsigned int> Record::find(unsigned int type, unsigned int id) const {
    for (unsigned int i = 0; i < count(); ++i) {
        if (this->type(i) == type && this->id(i) == id && isKnown(i)) {
            return i;
        }
    }
    return std::nullopt;
}

std::optional<std::uint32_t> Record::number(unsigned int id) const {
    const auto index = find(kTypeNumber, id);
    return index ? asNumber(kTypeNumber, bytes(*index)) : std::nullopt;
}

std::optional<std::string> Record::text(unsigned int id) const {
    auto index = find(kTypeText, id);
    if (!index) {
        index = find(kTypeBinary, id);
    }
    return index ? std::optional(std::string(asText(bytes(*index)))) : std::nullopt;
}

std::vector<std::string> Record::texts(unsigned int id) const {
    std::vector<std::string> found;
    for (unsigned int i = 0; i < count(); ++i) {
        const bool isOne = type(i) == kTypeText || type(i) == kTypeBinary;
        if (isOne && this->id(i) == id && isKnown(i)) {
            found.emplace_back(asText(bytes(i)));
        }
    }
    return found;
}

std::optional<std::vector<unsigned char>> Record::binary(unsigned int id) const {
    const auto index = find(kTypeBinary, id);
    if (!index) {
        return std::nullopt;
    }
    return std::vector<unsigned char>(bytes(*index).begin(), bytes(*index).end());
}

void Record::set(unsigned int type, unsigned int id, std::span<const unsigned char> bytes) {
    check(changing().setAttr(type, id, dataOf(bytes), sizeOf(bytes)),
          fmt::format("cannot set attribute 0x{:x} of {}", id, address_.print()), address_.print());
}

void Record::setNumber(unsigned int id, std::uint32_t value) {
    unsigned char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    set(kTypeNumber, id, bytes);
}

void Record::setText(unsigned int id, std::string_view text) {
    setOrRemove(kTypeText, id, text);
}

void Record::setString(unsigned int id, std::string_view text) {
    setOrRemove(kTypeString, id, text);
}

void Record::setLabel(std::string_view label) {
    const unsigned int type = fitsInLine(attr::kLabel, label) ? kTypeText : kTypeBinary;
    for (unsigned int i = count(); i-- > 0;) {
        if (id(i) == attr::kLabel && this->type(i) != type) {
            check(changing().removeAttr(i), "cannot remove an attribute", address_.print());
        }
    }
    if (type == kTypeText) {
        setText(attr::kLabel, label);
    } else {
        setBinary(attr::kLabel, asBytes(label));
    }
}

void Record::setOrRemove(unsigned int type, unsigned int id, std::string_view text) {
    checkText(id, text);
    if (text.empty()) {
        if (const unsigned int index = store_.findAttr(type, id, nullptr, 0);
            index != kNoAttribute) {
            check(changing().removeAttr(index), "cannot remove an attribute", address_.print());
        }
        return;
    }
    // A string is read up to its NUL, whatever the size.
    const std::string terminated(text);
    set(type, id, asBytes({terminated.c_str(), text.size() + (type == kTypeString ? 1 : 0)}));
}

void Record::setBinary(unsigned int id, std::span<const unsigned char> bytes, bool encrypted) {
    set(kTypeBinary, id, bytes);
    const unsigned int index = store_.findAttr(kTypeBinary, id, nullptr, 0);
    check(changing().setAttrFlag(index, encrypted ? 1 : 0), "cannot set an attribute",
          address_.print());
}

void Record::addText(unsigned int id, std::string_view text) {
    checkText(id, text);
    if (!text.empty()) {
        add(kTypeText, id, asBytes(text));
    }
}

void Record::addBinary(unsigned int id, std::span<const unsigned char> bytes, bool encrypted) {
    add(kTypeBinary, id, bytes);
    check(changing().setAttrFlag(count() - 1, encrypted ? 1 : 0), "cannot add an attribute",
          address_.print());
}

void Record::add(unsigned int type, unsigned int id, std::span<const unsigned char> bytes) {
    check(changing().addAttr(type, id, dataOf(bytes), sizeOf(bytes)),
          fmt::format("cannot add attribute 0x{:x} to {}", id, address_.print()), address_.print());
}

Record Record::copyTo(Address address) const {
    Record copy(std::move(address));
    for (unsigned int i = 0; i < count(); ++i) {
        copy.add(type(i), id(i), bytes(i));
        check(copy.changing().setAttrFlag(i, isEncrypted(i) ? 1 : 0), "cannot copy an attribute",
              copy.address_.print());
    }
    if (hasBody()) {
        copy.setBody(body(), isBodyEncrypted());
    }
    return copy;
}

unsigned int Record::removeAll(unsigned int id) {
    unsigned int removed = 0;
    for (unsigned int i = count(); i-- > 0;) {
        if (this->id(i) == id) {
            check(changing().removeAttr(i), "cannot remove an attribute", address_.print());
            ++removed;
        }
    }
    return removed;
}

void Record::setBody(std::span<const unsigned char> bytes, bool encrypted) {
    const std::string what = fmt::format("cannot set the body of {}", address_.print());
    if (bytes.size() > kMostBody) {
        throw Failure(kInvalid, what + ": it is larger than a record can hold", address_.print());
    }
    check(changing().setBody(bytes.data(), sizeOf(bytes)), what, address_.print());
    check(changing().setBodyFlag(encrypted ? 1 : 0), what, address_.print());
}

// What the descriptor takes at most: each line has two numbers, the data and three more bytes.
std::uint64_t Record::descriptorSize() const {
    constexpr std::uint64_t kNumber = 8;
    constexpr std::uint64_t kLine = 2 * kNumber + 3;
    std::uint64_t size = kLine + kNumber;  // the name of the body
    for (unsigned int i = 0; i < count(); ++i) {
        const std::uint64_t bytes = this->bytes(i).size() + (isEncrypted(i) ? kMostOverhead : 0);
        size += kLine + (type(i) == kTypeNumber   ? kNumber
                         : type(i) == kTypeBinary ? 2 * bytes
                                                  : bytes);
    }
    return size;
}

// The store writes what nobody here would read.
void Record::requireReadable() const {
    if (const std::uint64_t size = descriptorSize(); size > kMostDescriptor) {
        throw Failure(kInvalid,
                      fmt::format("cannot write {}: its attributes would take {} bytes, and a "
                                  "descriptor has at most {}; keep large data in bodies of records",
                                  address_.print(), size, kMostDescriptor),
                      address_.print());
    }
}

void Record::write() {
    requireReadable();
    const RecordChangeNotice notice(address_);
    check(changing().write(), fmt::format("cannot write {}", address_.print()), address_.print());
    if (hasSecrets()) {
        verifyWritten();
    }
}

void Record::verifyWritten() const {
    Record stored = Record::read(address_);
    stored.decrypt();
    if (!sameContents(*this, stored)) {
        throw Failure(
            kIo,
            fmt::format("{} reads back differently from what was written; keep the original",
                        address_.print()),
            address_.print());
    }
}

void Record::write(BodyOwners& owners) {
    owners.requireOwn(address_);
    write();
}

std::optional<std::string> Record::remove(BodyOwners& owners) {
    refuseMerge(descriptorPath(address_));
    std::optional<std::string> doubt = owners.doubtAbout(address_);
    const RecordChangeNotice notice(address_);
    if (doubt) {
        removeDescriptors();
    } else {
        check(changing().remove(), fmt::format("cannot remove {}", address_.print()),
              address_.print());
    }
    return doubt;
}

// A saved descriptor goes first, and for good: left alone, a reader would put it back.
void Record::removeDescriptors() const {
    const std::string path = descriptorPath(address_);
    for (const std::string& each : {path + std::string(kOldMarker), path}) {
        if (!exists(each)) {
            continue;
        }
        requireLock();
        if (os::remove(each.c_str()) != 0) {
            failWithErrno("remove", each);
        }
        syncFolder(folderPath(address_.folder));
    }
}

void checkRead(Status status, const Address& address) {
    if (status == kOk) {
        return;
    }
    if (status == kMissing && !exists(descriptorPath(address))) {
        throw NoRecord(address.print());
    }
    if (status == kMissing || status == kIo) {
        requireFilesOf(address, status);
    }
    if (status == kMissing) {
        throw Failure(kMissing,
                      fmt::format("cannot read {}: its descriptor or its body file is missing or "
                                  "cannot be opened; run `fstore check`",
                                  address.print()),
                      address.print());
    }
    check(status, fmt::format("cannot read {}", address.print()), address.print());
}

Failure noService() {
    return {kNoObject, "the store's modules cannot create a record"};
}

NoRecord::NoRecord(std::string_view address)
    : Failure(kMissing, fmt::format("there is no record {}", address),
              Advice{"`fstore ls` lists all"}, std::string(address)) {}

}  // namespace fstore
