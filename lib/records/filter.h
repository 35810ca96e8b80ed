// Which records a listing shows. All conditions that were given must hold.
#ifndef LIB_RECORDS_FILTER_H
#define LIB_RECORDS_FILTER_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "lib/records/record_info.h"

namespace fstore {

struct Filters {
    std::optional<std::string> expiresWithin;  // a period
    bool expired = false;
    std::optional<std::string> subject, issuer, altName;  // patterns
    std::optional<std::string> serial;                    // hexadecimal digits
    std::optional<std::string> sha256;                    // the first of them
    std::optional<std::string> algorithm;
    bool hasKey = false;
    bool noKey = false;
    std::vector<std::string> attributes;  // "ID" or "ID=VALUE"
    // Keys, requests, CRLs, and of certificates those whose key is in the database and those of
    // CAs: what is one's own and what vouches for it, in a database that has many of others.
    bool own = false;
};

// Whether a key's algorithm is one of the pattern's: "RSA" means "RSA-2048" as well.
bool isAlgorithm(const std::string& pattern, std::string_view algorithm);

// Whether the record has, or ought to have, a time of expiry, and it cannot be read now.
bool lacksExpiry(const RecordHead& head, const RecordInfo& info);

class Filter {
public:
    // Throws kUsage for a period, number or attribute that cannot be read. `now` is
    // the time that expiry is counted from.
    Filter(const Filters& filters, std::int64_t now);

    // Whether matches() needs to know the keys of the database.
    bool needsKeys() const noexcept { return filters_.hasKey || filters_.noKey || filters_.own; }
    // The digests (RecordInfo::keySha256) of the keys that the database has.
    void setKeys(std::set<std::string> keys) { keys_ = std::move(keys); }

    bool matches(const Record& record, const RecordInfo& info) const;
    bool matches(const RecordHead& head, const RecordInfo& info) const;

    // Whether no condition was given.
    bool takesAll() const;

    // Whether a record of this description may match, for who does not know its attributes: false
    // only of those that matches() refuses.
    bool admits(const RecordInfo& info) const { return matchesExpiry(info) && matchesInfo(info); }

    bool asksForExpiry() const noexcept { return filters_.expired || expiresBefore_; }
    // The latest time of expiry that it takes; none for any, and for records without one.
    std::optional<std::int64_t> latestExpiry() const;
    // The digits that the digest begins with; empty for any digest.
    const std::string& digest() const noexcept { return sha256_; }

    // Whether the record might match if more of it could be read: expiry is asked for, and its own
    // is encrypted or unreadable. Never of keys, requests and other bytes, which do not expire.
    bool mayMatch(const Record& record, const RecordInfo& info) const;
    bool mayMatch(const RecordHead& head, const RecordInfo& info) const;

private:
    struct Attribute {
        unsigned int id;
        std::optional<std::string> value;
    };

    bool matchesInfo(const RecordInfo& info) const;
    bool matchesExpiry(const RecordInfo& info) const;
    bool matchesNames(const RecordInfo& info) const;
    bool matchesDigits(const RecordInfo& info) const;
    bool matchesKey(const RecordInfo& info) const;
    template <class AnyRecord>
    bool matchesAttributes(const AnyRecord& record) const;
    template <class AnyRecord>
    static bool matchesAttribute(const AnyRecord& record, const Attribute& wanted);

    Filters filters_;
    std::int64_t now_;
    std::optional<std::int64_t> expiresBefore_;
    std::string serial_, sha256_;
    std::vector<Attribute> attributes_;
    std::set<std::string> keys_;
};

}  // namespace fstore

#endif  // LIB_RECORDS_FILTER_H
