#include "lib/work/object_record.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <variant>

#include <fmt/format.h>

#include "lib/base/bytes.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/printable.h"
#include "lib/base/time.h"
#include "lib/records/record_info.h"
#include "lib/work/get.h"

namespace fstore {
namespace {

using Octets = std::vector<unsigned char>;

constexpr std::array kObjectKinds = {Kind::kCertificate, Kind::kCrl, Kind::kKey, Kind::kRequest};

bool isOfObject(Kind kind) {
    return std::ranges::find(kObjectKinds, kind) != kObjectKinds.end();
}

// What nobody notes about bytes that are not such an object.
constexpr std::array kTelling = {attr::kSerial,       attr::kSubjectSha256,  attr::kKeySha256,
                                 attr::kSubjectKeyId, attr::kAuthorityKeyId, attr::kCrlNumber};

std::span<const unsigned char> valueOf(const PkiAttribute& attribute) {
    if (const auto* const text = std::get_if<std::string>(&attribute.value)) {
        return bytesOf(*text);
    }
    return std::get<Octets>(attribute.value);
}

void add(Record& record, const PkiAttribute& attribute, bool encrypt) {
    if (const auto* const number = std::get_if<std::uint32_t>(&attribute.value)) {
        if (!encrypt) {  // a number cannot be kept encrypted, and this one can be derived
            record.setNumber(attribute.id, *number);
        }
    } else if (encrypt || std::holds_alternative<Octets>(attribute.value)) {
        record.addBinary(attribute.id, valueOf(attribute), encrypt);
    } else {
        record.addText(attribute.id, std::get<std::string>(attribute.value));
    }
}

// The indices of the attributes with this id.
std::vector<unsigned int> storedIn(const Record& record, unsigned int id) {
    std::vector<unsigned int> indices;
    for (unsigned int i = 0; i < record.count(); ++i) {
        if (record.id(i) == id) {
            indices.push_back(i);
        }
    }
    return indices;
}

std::vector<const PkiAttribute*> saidBy(const PkiObject& object, unsigned int id) {
    std::vector<const PkiAttribute*> said;
    for (const PkiAttribute& attribute : object.attributes) {
        if (attribute.id == id) {
            said.push_back(&attribute);
        }
    }
    return said;
}

// Another program may have written the same time in another way, and another version of OpenSSL the
// name of an algorithm that this one does not know, or its identifier.
bool isSameText(unsigned int id, std::string_view stored, const std::string& said,
                const PkiObject& object) {
    if (stored == said) {
        return true;
    }
    if (id == attr::kNotBefore || id == attr::kNotAfter) {
        const auto time = parseTime(stored);
        return time && time == parseTime(said);
    }
    return id == attr::kKeyAlgorithm && !object.keyAlgorithmId.empty() &&
           (stored == object.keyAlgorithmId || said == object.keyAlgorithmId);
}

bool isSameAttribute(const Record& record, unsigned int index, const PkiAttribute& said,
                     const PkiObject& object) {
    const unsigned int type = record.type(index);
    const auto bytes = record.bytes(index);
    if (const auto* const number = std::get_if<std::uint32_t>(&said.value)) {
        return asNumber(type, bytes) == *number;
    }
    if (const auto* const text = std::get_if<std::string>(&said.value)) {
        return (type == kTypeText || type == kTypeBinary) &&
               isSameText(said.id, asText(bytes), *text, object);
    }
    return type == kTypeBinary && std::ranges::equal(bytes, valueOf(said));
}

std::string print(unsigned int id, std::uint32_t number) {
    return id == attr::kKind ? fmt::format("{} ({})", number, nameOf(static_cast<Kind>(number)))
                             : std::to_string(number);
}

std::string print(const Record& record, unsigned int index) {
    const auto bytes = record.bytes(index);
    if (const auto number = asNumber(record.type(index), bytes)) {
        return print(record.id(index), *number);
    }
    const bool isText = record.type(index) != kTypeBinary || attr::isText(record.id(index));
    return isText ? printable(asText(bytes)) : toHex(bytes);
}

std::string print(const PkiAttribute& said) {
    if (const auto* const number = std::get_if<std::uint32_t>(&said.value)) {
        return print(said.id, *number);
    }
    return attr::isText(said.id) ? printable(asText(valueOf(said))) : toHex(valueOf(said));
}

template <class Values, class Print>
std::string printAll(const Values& values, Print printOne) {
    constexpr std::size_t kMost = 200;  // of a long list of names
    std::string all;
    for (const auto& value : values) {
        all += (all.empty() ? "" : ", ") + printOne(value);
    }
    return clipped(all, kMost);
}

std::string remedyFor(const Record& record) {
    return fmt::format("; `fstore import --replace{}` of the object sets it right",
                       hidesItsDescription(record) ? " --encrypt" : "");
}

std::string contradictionOf(const Record& record, const PkiObject& object, unsigned int id,
                            const std::vector<unsigned int>& stored,
                            const std::vector<const PkiAttribute*>& said) {
    const std::string_view name = attributeName(id);
    const char* const kind = nameOf(object.kind);
    if (hidesItsDescription(record)) {  // then no message tells of it
        return fmt::format("has another {} than the {} in its body", name, kind);
    }
    const std::string is =
        printAll(stored, [&](unsigned int index) { return print(record, index); });
    if (said.empty()) {
        return fmt::format("has the {} {}, but the {} in its body has none", name, is, kind);
    }
    const std::string shouldBe =
        printAll(said, [](const PkiAttribute* attribute) { return print(*attribute); });
    return is == shouldBe ? fmt::format("has its {} as an attribute of another type", name)
                          : fmt::format("has the {} {}, but the {} in its body says {}", name, is,
                                        kind, shouldBe);
}

std::vector<std::string> compare(const Record& record, const PkiObject& object) {
    std::vector<std::string> found;
    for (const unsigned int id : object.described) {
        const auto stored = storedIn(record, id);
        const auto said = saidBy(object, id);
        const auto isSameHere = [&](unsigned int index, const PkiAttribute* attribute) {
            return isSameAttribute(record, index, *attribute, object);
        };
        if (id != attr::kSchema && !stored.empty() &&
            !std::ranges::equal(stored, said, isSameHere)) {
            found.push_back(contradictionOf(record, object, id, stored, said) + remedyFor(record));
        }
    }
    return found;
}

std::optional<PkiObject> objectIn(const Record& record, Kind kind) {
    SecretBytes der(record.body().begin(), record.body().end());
    return findPkiObject(kind, der);
}

// The object in the body of a record of this kind, when it is one of another kind.
std::optional<PkiObject> findOther(const Record& record, Kind kind) {
    for (const Kind other : kObjectKinds) {
        try {
            if (auto object = other != kind ? objectIn(record, other) : std::nullopt) {
                return object;
            }
        } catch (const Failure&) {
            continue;  // too large for one of this kind
        }
    }
    return std::nullopt;
}

std::string wrongKind(Kind kind, Kind other) {
    return fmt::format("has the kind {} ({}), but its body is a {}",
                       static_cast<unsigned int>(kind), nameOf(kind), nameOf(other));
}

// A record that does not say that it is an object, but has the digests of one.
std::vector<std::string> contradictionsOfOther(const Record& record, Kind kind) {
    const auto object = findOther(record, kind);
    const auto isSaid = [&](unsigned int id) {
        const auto stored = storedIn(record, id);
        const auto said = saidBy(*object, id);
        return stored.size() == 1 && said.size() == 1 &&
               isSameAttribute(record, stored[0], *said[0], *object);
    };
    if (!object || std::ranges::none_of(kTelling, isSaid)) {
        return {};
    }
    return {wrongKind(kind, object->kind) + remedyFor(record)};
}

}  // namespace

void describe(Record& record, const PkiObject& object, bool encrypt) {
    for (const PkiAttribute& attribute : object.attributes) {
        add(record, attribute, encrypt && attr::find(attribute.id)->isOfBody);
    }
}

bool describesObject(const RecordHead& head) {
    bool hasKind = false;
    bool isTelling = false;
    for (unsigned int i = 0; i < head.count(); ++i) {
        hasKind = hasKind || head.id(i) == attr::kKind;
        isTelling = isTelling || std::ranges::find(kTelling, head.id(i)) != kTelling.end();
    }
    return head.hasBody() && (isOfObject(infoOf(head).kind) || (hasKind && isTelling));
}

std::vector<std::string> contradictionsIn(const Record& record) {
    const Kind kind = infoOf(record).kind;
    if (!record.hasBody() || storedIn(record, attr::kKind).empty()) {
        return {};
    }
    if (!isOfObject(kind)) {
        return contradictionsOfOther(record, kind);
    }
    std::optional<PkiObject> object;
    try {
        object = objectIn(record, kind);
    } catch (const Failure& failure) {
        return {fmt::format("has the kind {}, but its body is not one that can be read: {}",
                            nameOf(kind), failure.what())};
    }
    if (object) {
        return compare(record, *object);
    }
    if (const auto other = findOther(record, kind)) {
        return {wrongKind(kind, other->kind) + remedyFor(record)};
    }
    if (kind == Kind::kKey && isKeyOfUnknownAlgorithm(record.body())) {
        return {};
    }
    return {
        fmt::format("has the kind {}, but its body is not one, or a damaged one; `fstore rm` "
                    "removes the record",
                    nameOf(kind))};
}

void checkObject(const Record& record) {
    const auto found = contradictionsIn(record);
    if (!found.empty()) {
        const std::string address = record.address().print();
        throw Failure(kMalformed, fmt::format("{} {}", address, found.front()), address);
    }
}

Record readObject(Database& database, const Address& address) {
    Record record = readWhole(database, address);
    checkObject(record);
    return record;
}

const Examiner& objectExaminer() {
    static const Examiner examiner{describesObject, contradictionsIn};
    return examiner;
}

}  // namespace fstore
