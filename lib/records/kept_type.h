// The types of the attributes that users keep encrypted.
//
// On disk such an attribute is binary, since no other can be encrypted. What it was given as is
// kept beside it, in the attribute attr::kTypes: "0x8001:text 0x8002:number".
//
// Any thread may call these, for records of its own.
#ifndef LIB_RECORDS_KEPT_TYPE_H
#define LIB_RECORDS_KEPT_TYPE_H

#include <optional>
#include <span>
#include <string_view>

#include "lib/records/attributes.h"

namespace fstore {

class Record;

// "number", "binary", "string", "text"; empty for any other type.
std::string_view nameOfType(unsigned int type) noexcept;
std::optional<unsigned int> typeNamed(std::string_view name) noexcept;

// What `types`, the contents of attr::kTypes, say of this attribute; kTypeBinary if nothing. Not
// known are the bytes of an attribute that cannot be read now; those that are no value of the type
// that was noted, as after a program that does not know about it has changed them, are binary.
unsigned int keptType(std::string_view types, unsigned int id,
                      std::optional<std::span<const unsigned char>> bytes);

// Whether these bytes are one of this type that can be shown whole.
bool isOfType(unsigned int type, std::span<const unsigned char> bytes) noexcept;

// The type that an attribute was given, of a Record, its head or its copy.
template <class AnyRecord>
unsigned int givenType(const AnyRecord& record, unsigned int index) {
    const unsigned int id = record.id(index);
    if (!record.isEncrypted(index)) {
        return record.type(index);
    }
    if (attr::isText(id)) {
        return kTypeText;
    }
    for (unsigned int i = 0; i < record.count(); ++i) {
        if (record.id(i) == attr::kTypes && record.type(i) == kTypeText) {
            return keptType(
                asText(record.bytes(i)), id,
                record.isKnown(index) ? std::optional(record.bytes(index)) : std::nullopt);
        }
    }
    return kTypeBinary;
}

// Notes the type of an attribute that is kept encrypted; with kTypeBinary, that there is nothing to
// note.
void keepType(Record& record, unsigned int id, unsigned int type);

}  // namespace fstore

#endif  // LIB_RECORDS_KEPT_TYPE_H
