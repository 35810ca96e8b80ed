#include "lib/records/record_info.h"

#include "lib/base/digits.h"
#include "lib/base/time.h"
#include "lib/records/record.h"
#include "lib/records/record_copy.h"
#include "lib/records/record_head.h"

namespace fstore {
namespace {

// Each of these takes an attribute of its form. The first of an id counts.

void addNumber(RecordInfo& info, unsigned int id, std::uint32_t value) {
    if (id == attr::kBits) {
        info.isCa = info.isCa || (value & attr::kIsCa) != 0;
    } else if (id == attr::kKind && info.kind == Kind::kUnknown &&
               value <= static_cast<std::uint32_t>(Kind::kRaw)) {
        info.kind = static_cast<Kind>(value);
    }
}

void addText(RecordInfo& info, unsigned int id, std::string_view text) {
    const auto set = [text](std::string& field) {
        if (field.empty()) {
            field = text;
        }
    };
    const auto setTime = [text](std::optional<std::int64_t>& field) {
        if (!field) {
            field = parseTime(text);
        }
    };
    switch (id) {
        case attr::kLabel:
            return set(info.label);
        case attr::kSubject:
            return set(info.subject);
        case attr::kIssuer:
            return set(info.issuer);
        case attr::kKeyAlgorithm:
            return set(info.keyAlgorithm);
        case attr::kNotBefore:
            return setTime(info.notBefore);
        case attr::kNotAfter:
            return setTime(info.notAfter);
        case attr::kImported:
            return setTime(info.imported);
        case attr::kAltName:
            info.altNames.emplace_back(text);
            return;
        default:
            return;
    }
}

void addBytes(RecordInfo& info, unsigned int id, std::span<const unsigned char> bytes) {
    const auto set = [bytes](std::string& field) {
        if (field.empty()) {
            field = toHex(bytes);
        }
    };
    switch (id) {
        case attr::kSerial:
            return set(info.serial);
        case attr::kSha256:
            return set(info.sha256);
        case attr::kKeySha256:
            return set(info.keySha256);
        case attr::kAuthorityKeyId:
            return set(info.authorityKeyId);
        default:
            return addText(info, id, asText(bytes));  // so a text is kept encrypted
    }
}

void addTo(RecordInfo& info, unsigned int type, unsigned int id,
           std::span<const unsigned char> bytes) {
    if (const auto number = asNumber(type, bytes)) {
        addNumber(info, id, *number);
    } else if (type == kTypeText) {
        addText(info, id, asText(bytes));
    } else if (type == kTypeBinary) {
        addBytes(info, id, bytes);
    }
}

// Of a Record, its head or its copy.
template <class AnyRecord>
RecordInfo describe(const AnyRecord& record) {
    RecordInfo info;
    info.address = record.address();
    info.hasBody = record.hasBody();
    info.bodyEncrypted = record.isBodyEncrypted();
    const unsigned int count = record.count();
    for (unsigned int i = 0; i < count; ++i) {
        if (record.isKnown(i)) {
            addTo(info, record.type(i), record.id(i), record.bytes(i));
        }
    }
    return info;
}

template <class AnyRecord>
bool hidesDescription(const AnyRecord& record) {
    for (unsigned int i = 0; i < record.count(); ++i) {
        const auto* const known = attr::find(record.id(i));
        if (known != nullptr && known->isOfBody && record.isEncrypted(i)) {
            return true;
        }
    }
    return false;
}

}  // namespace

RecordInfo infoOf(const Record& record) {
    RecordInfo info = describe(record);
    info.bodySize = record.body().size();
    return info;
}

RecordInfo infoOf(const RecordHead& head) {
    RecordInfo info = describe(head);
    info.bodySize = head.bodySize();
    return info;
}

RecordInfo infoOf(const RecordCopy& copy) {
    RecordInfo info = describe(copy);
    info.bodySize = copy.bodySize();
    return info;
}

bool hidesItsDescription(const Record& record) {
    return hidesDescription(record);
}

bool hidesItsDescription(const RecordHead& head) {
    return hidesDescription(head);
}

bool hidesKind(const RecordHead& head) {
    for (unsigned int i = 0; i < head.count(); ++i) {
        if (head.id(i) == attr::kKind && head.isEncrypted(i)) {
            return true;
        }
    }
    return false;
}

}  // namespace fstore
