#include "lib/records/filter.h"

#include <algorithm>

#include <fmt/format.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/glob.h"
#include "lib/base/time.h"
#include "lib/records/kept_type.h"

namespace fstore {
namespace {

[[noreturn]] void refuseFilter(const std::string& value, const char* what, const char* expected) {
    throw Failure(kUsage, fmt::format("\"{}\" is not {}: {}", value, what, expected));
}

// Digits without colons and without zeros in front, which number and text may differ in.
std::string digitsOfNumber(std::string_view text) {
    std::string digits(text);
    std::erase(digits, ':');
    digits = hexDigits(digits).value_or(std::string());
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
    return digits.empty() ? "0" : digits;
}

template <class AnyRecord>
bool has(const AnyRecord& record, unsigned int id) {
    for (unsigned int i = 0; i < record.count(); ++i) {
        if (record.id(i) == id) {
            return true;
        }
    }
    return false;
}

// lacksExpiry() of either.
template <class AnyRecord>
bool isUndated(const AnyRecord& record, bool isUnread, const RecordInfo& info) {
    if (info.notAfter) {
        return false;
    }
    switch (info.kind) {
        case Kind::kCertificate:
            return true;
        case Kind::kCrl:
            return has(record, attr::kNotAfter);  // some CRLs name no next update
        case Kind::kUnknown:
            return isUnread || has(record, attr::kKind) || has(record, attr::kNotAfter);
        case Kind::kKey:
        case Kind::kRequest:
        case Kind::kRaw:
            break;
    }
    return false;
}

}  // namespace

bool lacksExpiry(const RecordHead& head, const RecordInfo& info) {
    return isUndated(head, head.hasSecrets(), info);
}

bool isAlgorithm(const std::string& pattern, std::string_view algorithm) {
    return matchesGlob(pattern, algorithm) || matchesGlob(pattern + "-*", algorithm);
}

Filter::Filter(const Filters& filters, std::int64_t now) : filters_(filters), now_(now) {
    if (filters.expiresWithin) {
        const auto period = parsePeriod(*filters.expiresWithin);
        if (!period) {
            refuseFilter(*filters.expiresWithin, "a period",
                         "that is a number with s, m, h, d, w or y, as in 30d");
        }
        expiresBefore_ = now + *period;
    }
    if (filters.serial) {
        std::string digits = *filters.serial;
        std::erase(digits, ':');
        if (digits.empty() || !hexDigits(digits)) {
            refuseFilter(*filters.serial, "a serial number", "that consists of hexadecimal digits");
        }
        serial_ = digitsOfNumber(digits);
    }
    if (filters.sha256) {
        const auto digits = hexDigits(*filters.sha256);
        if (!digits || digits->empty()) {
            refuseFilter(*filters.sha256, "a digest", "that consists of hexadecimal digits");
        }
        sha256_ = *digits;
    }
    for (const std::string& text : filters.attributes) {
        const std::size_t equals = text.find('=');
        const auto id = parseAttributeId(std::string_view(text).substr(0, equals));
        if (!id) {
            refuseFilter(text, "an attribute", "that is a number or a name, as in 0x8001=red");
        }
        attributes_.push_back({*id, equals == std::string::npos
                                        ? std::nullopt
                                        : std::optional(text.substr(equals + 1))});
    }
}

template <class AnyRecord>
bool Filter::matchesAttribute(const AnyRecord& record, const Attribute& wanted) {
    for (unsigned int i = 0; i < record.count(); ++i) {
        if (record.id(i) != wanted.id) {
            continue;
        }
        if (!wanted.value) {
            return true;
        }
        if (!record.isKnown(i)) {
            continue;
        }
        const auto bytes = record.bytes(i);
        std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        switch (givenType(record, i)) {
            case kTypeNumber: {
                const auto number = parseNumber(*wanted.value);
                if (number && asNumber(kTypeNumber, bytes) == *number) {
                    return true;
                }
                break;
            }
            case kTypeBinary: {
                const auto value = fromHex(*wanted.value);
                if ((value && std::ranges::equal(*value, bytes)) ||
                    hasPattern(*wanted.value, text)) {
                    return true;
                }
                break;
            }
            default:
                text = text.substr(0, text.find('\0'));
                if (hasPattern(*wanted.value, text)) {
                    return true;
                }
                break;
        }
    }
    return false;
}

bool Filter::matchesInfo(const RecordInfo& info) const {
    return matchesNames(info) && matchesDigits(info) && matchesKey(info);
}

template <class AnyRecord>
bool Filter::matchesAttributes(const AnyRecord& record) const {
    return std::ranges::all_of(
        attributes_, [&](const Attribute& wanted) { return matchesAttribute(record, wanted); });
}

bool Filter::matches(const Record& record, const RecordInfo& info) const {
    return matchesExpiry(info) && matchesInfo(info) && matchesAttributes(record);
}

bool Filter::matches(const RecordHead& head, const RecordInfo& info) const {
    return matchesExpiry(info) && matchesInfo(info) && matchesAttributes(head);
}

bool Filter::mayMatch(const Record& record, const RecordInfo& info) const {
    const bool isUnread = record.hasSecrets() && !record.isReadable();
    return asksForExpiry() && isUndated(record, isUnread, info) &&
           (isUnread || (matchesInfo(info) && matchesAttributes(record)));
}

bool Filter::mayMatch(const RecordHead& head, const RecordInfo& info) const {
    const bool isUnread = head.hasSecrets();
    return asksForExpiry() && isUndated(head, isUnread, info) &&
           (isUnread || (matchesInfo(info) && matchesAttributes(head)));
}

bool Filter::takesAll() const {
    return !asksForExpiry() && !needsKeys() && !filters_.subject && !filters_.issuer &&
           !filters_.altName && !filters_.serial && !filters_.sha256 && !filters_.algorithm &&
           attributes_.empty();
}

std::optional<std::int64_t> Filter::latestExpiry() const {
    if (!filters_.expired) {
        return expiresBefore_;
    }
    return std::min(now_ - 1, expiresBefore_.value_or(now_));
}

bool Filter::matchesExpiry(const RecordInfo& info) const {
    if (!asksForExpiry()) {
        return true;
    }
    // What has expired also counts as about to: an alarm must not fall silent when
    // nobody heard it.
    return info.notAfter && (!filters_.expired || *info.notAfter < now_) &&
           (!expiresBefore_ || *info.notAfter <= *expiresBefore_);
}

bool Filter::matchesNames(const RecordInfo& info) const {
    if (filters_.subject && !hasPattern(*filters_.subject, info.subject)) {
        return false;
    }
    if (filters_.issuer && !hasPattern(*filters_.issuer, info.issuer)) {
        return false;
    }
    if (filters_.altName && std::ranges::none_of(info.altNames, [&](const std::string& name) {
            // "DNS:host" is found by "host" as well as by the whole of it.
            const std::size_t colon = name.find(':');
            return hasPattern(*filters_.altName, name) ||
                   (colon != std::string::npos &&
                    hasPattern(*filters_.altName, std::string_view(name).substr(colon + 1)));
        })) {
        return false;
    }
    return !filters_.algorithm || isAlgorithm(*filters_.algorithm, info.keyAlgorithm);
}

bool Filter::matchesDigits(const RecordInfo& info) const {
    if (filters_.serial && (info.serial.empty() || digitsOfNumber(info.serial) != serial_)) {
        return false;
    }
    return !filters_.sha256 || info.sha256.starts_with(sha256_);
}

bool Filter::matchesKey(const RecordInfo& info) const {
    if (!needsKeys()) {
        return true;
    }
    if (filters_.own && info.kind != Kind::kCertificate) {
        return info.kind == Kind::kKey || info.kind == Kind::kRequest || info.kind == Kind::kCrl;
    }
    if (filters_.own && info.isCa) {
        return true;
    }
    if (info.kind != Kind::kCertificate && info.kind != Kind::kRequest) {
        return false;
    }
    return (!info.keySha256.empty() && keys_.contains(info.keySha256)) == !filters_.noKey;
}

}  // namespace fstore
