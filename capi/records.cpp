// Records: read, made, changed, written, removed and renamed.
#include <array>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "capi/arguments.h"
#include "capi/border.h"
#include "capi/db.h"
#include "capi/description.h"
#include "capi/filestore.h"
#include "lib/records/catalogue.h"
#include "lib/records/record_copy.h"
#include "lib/records/record_head.h"
#include "lib/work/get.h"
#include "lib/work/put.h"
#include "lib/work/remove.h"
#include "lib/work/rename.h"

using capi::bytesOf;
using capi::requireFlags;
using capi::requireText;
using fstore::Address;
using fstore::AttributeChange;
using fstore::Record;
using fstore::RecordChange;
using fstore::RecordCopy;
using fstore::RecordHead;

struct filestore_record {
    explicit filestore_record(RecordCopy contents)
        : copy(std::move(contents)), address(copy.address().print()) {}

    RecordCopy copy;
    std::string address;
    bool isNew = false;
    // What was set since, in the order of the calls. The body is the copy's.
    bool bodyIsSet = false;
    std::vector<AttributeChange> changes;
    mutable std::optional<capi::Description> description;  // made when it is asked for
};

namespace {

SecretBytes copyOf(std::span<const unsigned char> bytes) {
    return {bytes.begin(), bytes.end()};
}

// A step of readNamed().
RecordCopy readCopy(fstore::Database& database, const std::string& address, std::uint32_t flags) {
    const Address place = database.resolveToRead(address);
    if ((flags & FILESTORE_NO_BODY) != 0) {
        return RecordCopy(RecordHead::read(place));
    }
    if ((flags & FILESTORE_PLAIN_ONLY) != 0) {
        return RecordCopy(Record::read(place));
    }
    return RecordCopy(fstore::readWhole(database, place));
}

filestore_status tellAttribute(const RecordCopy& copy, unsigned int index,
                               filestore_attribute* attribute) {
    filestore_attribute values = FILESTORE_ATTRIBUTE_INIT;
    values.type = copy.type(index);
    values.id = copy.id(index);
    values.flags = copy.isEncrypted(index) ? FILESTORE_ENCRYPTED : 0;
    if (copy.isKnown(index)) {
        static constexpr unsigned char kNothing = 0;  // null would mean that it cannot be read
        values.bytes = copy.bytes(index).empty() ? &kNothing : copy.bytes(index).data();
        values.length = copy.bytes(index).size();
    }
    return capi::fill(attribute, values);
}

void requireEditable(std::uint32_t id) {
    if (!fstore::isEditable(id)) {
        throw fstore::Failure(
            kInvalid, fmt::format("attribute 0x{:x} describes the record; set the label, or "
                                  "one from 0x8000 on",
                                  id));
    }
}

void requireType(std::uint32_t type, std::size_t length) {
    capi::require(type >= kTypeNumber && type <= kTypeText, "no such type of attribute");
    capi::require(type != kTypeNumber || length == sizeof(std::uint32_t), "a number has 4 bytes");
}

// As it will be read: a string ends with a NUL, which callers may leave out.
SecretBytes shownAs(std::uint32_t type, SecretBytes value) {
    if (type == kTypeString && !value.empty() && value.back() != 0) {
        value.push_back(0);
    }
    return value;
}

// Makes the change in memory and notes it, or throws and does neither: what fails comes first.
void addChange(filestore_record& record, AttributeChange change, SecretBytes shown) {
    record.changes.reserve(record.changes.size() + 1);
    if (change.isRemoval) {
        (void)record.copy.removeAll(change.id);
    } else {
        record.copy.setAttribute(change.encrypted ? kTypeBinary : change.type, change.id,
                                 std::move(shown), change.encrypted);
    }
    record.changes.push_back(std::move(change));
    record.description.reset();
}

RecordChange changeOf(const filestore_record& record, std::uint32_t flags) {
    RecordChange change;
    if (record.bodyIsSet) {
        change.body = *record.copy.body();
        change.plain = !record.copy.isBodyEncrypted();
    }
    change.attributes = record.changes;
    if ((flags & FILESTORE_NEW) != 0) {
        change.presence = RecordChange::Presence::kNew;
    } else if (!record.isNew) {
        change.presence = RecordChange::Presence::kThere;
    }
    return change;
}

}  // namespace

extern "C" {

filestore_status filestore_get(filestore_db* db, const char* address, uint32_t flags,
                               filestore_record** record, filestore_error* error) {
    return capi::operation(error, [&] {
        capi::require(record != nullptr, "record is null");
        *record = nullptr;
        requireFlags(flags, FILESTORE_PLAIN_ONLY | FILESTORE_NO_BODY);
        const std::string text = requireText(address, "the address is null");
        capi::Lease lease(capi::handleOf(db), nullptr);
        *record = new filestore_record(fstore::readNamed(
            lease.database(), {&text, 1}, [&] { return readCopy(lease.database(), text, flags); }));
        return FILESTORE_OK;
    });
}

filestore_status filestore_record_new(const char* address, filestore_record** record,
                                      filestore_error* error) {
    return capi::border(error, [&] {
        capi::require(record != nullptr, "record is null");
        *record = nullptr;
        RecordCopy copy(fstore::parseNewAddress(requireText(address, "the address is null")));
        *record = new filestore_record(std::move(copy));
        (*record)->isNew = true;
        return FILESTORE_OK;
    });
}

void filestore_record_free(filestore_record* record) {
    delete record;
}

filestore_status filestore_record_info(const filestore_record* record, filestore_info* info) {
    return capi::border(nullptr, [&] {
        capi::require(record != nullptr, "record is null");
        if (!record->description) {
            record->description.emplace(infoOf(record->copy), record->copy.isReadable());
        }
        return record->description->copyTo(info);
    });
}

const char* filestore_record_address(const filestore_record* record) {
    return record != nullptr ? record->address.c_str() : "";
}

const void* filestore_record_body(const filestore_record* record, size_t* size) {
    static constexpr unsigned char kNothing = 0;
    const bool hasBody = record != nullptr && record->copy.body();
    if (size != nullptr) {
        *size = hasBody ? record->copy.body()->size() : 0;
    }
    if (!hasBody) {
        return nullptr;
    }
    return record->copy.body()->empty() ? &kNothing : record->copy.body()->data();
}

size_t filestore_record_attribute_count(const filestore_record* record) {
    return record != nullptr ? record->copy.count() : 0;
}

filestore_status filestore_record_attribute(const filestore_record* record, size_t index,
                                            filestore_attribute* attribute) {
    if (record == nullptr) {
        return FILESTORE_INVALID;
    }
    if (index >= record->copy.count()) {
        return FILESTORE_NOT_FOUND;
    }
    return tellAttribute(record->copy, static_cast<unsigned int>(index), attribute);
}

filestore_status filestore_record_find_attribute(const filestore_record* record, uint32_t type,
                                                 uint32_t id, filestore_attribute* attribute) {
    if (record == nullptr) {
        return FILESTORE_INVALID;
    }
    const RecordCopy& copy = record->copy;
    for (unsigned int i = 0; i < copy.count(); ++i) {
        if (copy.type(i) == type && copy.id(i) == id && copy.isKnown(i)) {
            return tellAttribute(copy, i, attribute);
        }
    }
    return FILESTORE_NOT_FOUND;
}

filestore_status filestore_record_set_body(filestore_record* record, const void* bytes, size_t size,
                                           uint32_t flags, filestore_error* error) {
    return capi::border(error, [&] {
        capi::require(record != nullptr, "record is null");
        requireFlags(flags, FILESTORE_PLAIN);
        const bool plain = (flags & FILESTORE_PLAIN) != 0;
        capi::require(size != 0 || !plain, "an empty body cannot be stored in plain form");
        capi::require(size <= Record::kMostBody, "the body is larger than a record can hold");
        record->copy.setBody(copyOf(bytesOf(bytes, size)), !plain);
        record->bodyIsSet = true;
        record->description.reset();
        return FILESTORE_OK;
    });
}

filestore_status filestore_record_set_attribute(filestore_record* record, uint32_t type,
                                                uint32_t id, const void* bytes, size_t length,
                                                uint32_t flags, filestore_error* error) {
    return capi::border(error, [&] {
        capi::require(record != nullptr, "record is null");
        requireFlags(flags, FILESTORE_ENCRYPTED);
        requireEditable(id);
        requireType(type, length);
        const SecretBytes value = copyOf(bytesOf(bytes, length));
        const bool encrypted = (flags & FILESTORE_ENCRYPTED) != 0;
        addChange(*record, {id, type, value, encrypted}, encrypted ? value : shownAs(type, value));
        return FILESTORE_OK;
    });
}

filestore_status filestore_record_remove_attribute(filestore_record* record, uint32_t id,
                                                   filestore_error* error) {
    return capi::border(error, [&] {
        capi::require(record != nullptr, "record is null");
        requireEditable(id);
        if (!record->copy.hasAttribute(id)) {
            throw fstore::Failure(kEnd,
                                  fmt::format("{} has no attribute 0x{:x}", record->address, id),
                                  record->address);
        }
        AttributeChange removal;
        removal.id = id;
        removal.isRemoval = true;
        addChange(*record, std::move(removal), {});
        return FILESTORE_OK;
    });
}

filestore_status filestore_put(filestore_db* db, filestore_record* record, uint32_t flags,
                               filestore_error* error) {
    return capi::operation(error, [&] {
        capi::require(record != nullptr, "record is null");
        requireFlags(flags, FILESTORE_NEW);
        capi::Handle& handle = capi::handleOf(db);
        handle.requireWritable();
        const RecordChange change = changeOf(*record, flags);
        capi::Lease lease(handle, nullptr);
        const Address& place = record->copy.address();
        const std::array named{fstore::AddressText::of(place)};
        RecordCopy written = changeNamed(lease.database(), named, [&] {
            return RecordCopy(changeRecord(lease.database(), place, change));
        });
        record->copy = std::move(written);
        record->isNew = record->bodyIsSet = false;
        record->changes.clear();
        record->description.reset();
        return FILESTORE_OK;
    });
}

filestore_status filestore_remove(filestore_db* db, const char* address, filestore_error* error) {
    return capi::operation(error, [&] {
        const std::string text = requireText(address, "the address is null");
        capi::Handle& handle = capi::handleOf(db);
        handle.requireWritable();
        capi::Lease lease(handle, nullptr);
        const auto named = fstore::namesIn({&text, 1});
        const fstore::Hold hold =
            lease.database().enter(accessToChange(named), fstore::Need::kRecords, named);
        for (const fstore::Removal& removal : fstore::removeRecords(fstore::resolveAll({text}))) {
            if (removal.failure) {
                throw fstore::Failure(*removal.failure);
            }
            if (removal.bodyKept) {
                lease.observer().warn(fmt::format("removed {}; its body file stays: it {}",
                                                  removal.address.print(), *removal.bodyKept));
            }
        }
        return FILESTORE_OK;
    });
}

filestore_status filestore_rename(filestore_db* db, const char* from, const char* to,
                                  filestore_error* error) {
    return capi::operation(error, [&] {
        const std::string text = requireText(from, "from is null");
        const Address place = fstore::parseNewAddress(requireText(to, "to is null"));
        capi::Handle& handle = capi::handleOf(db);
        handle.requireWritable();
        capi::Lease lease(handle, nullptr);
        const auto named = fstore::namesForRenaming(text, place);
        const fstore::Renaming done = changeNamed(
            lease.database(), named, [&] { return renameRecord(lease.database(), text, place); });
        if (done.bodyKept) {
            lease.observer().warn(fmt::format("renamed {}; its body file stays: it {}",
                                              done.from.print(), *done.bodyKept));
        }
        return FILESTORE_OK;
    });
}

}  // extern "C"
