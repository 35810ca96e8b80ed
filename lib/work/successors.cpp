#include "lib/work/successors.h"

#include <algorithm>
#include <set>
#include <utility>

#include "lib/pki/revocation.h"
#include "lib/records/record.h"
#include "lib/work/issuers.h"
#include "lib/work/object_record.h"

namespace fstore {
namespace {

// Names for comparison, sorted. DNS does not know capitals.
std::vector<std::string> namesOf(const RecordInfo& certificate) {
    std::vector<std::string> names;
    for (const std::string& name : certificate.altNames) {
        names.push_back(folded(name));
    }
    if (names.empty() && !certificate.subject.empty()) {
        names.push_back("subject:" + folded(certificate.subject));
    }
    std::ranges::sort(names);
    return names;
}

// Also a certificate with other names may have the subject.
std::vector<std::string> allNamesOf(const RecordInfo& certificate) {
    std::vector<std::string> names = namesOf(certificate);
    if (!certificate.altNames.empty() && !certificate.subject.empty()) {
        names.push_back("subject:" + folded(certificate.subject));
        std::ranges::sort(names);
    }
    return names;
}

bool mayBeSuperseded(const RecordInfo& info) {
    return (info.kind == Kind::kCertificate || info.kind == Kind::kCrl) && info.notBefore;
}

bool isOfOneKey(const RecordInfo& a, const RecordInfo& b) {
    return a.authorityKeyId.empty() || b.authorityKeyId.empty() ||
           a.authorityKeyId == b.authorityKeyId;
}

// The later of two that may be null.
const RecordInfo* later(const RecordInfo* a, const RecordInfo* b) {
    return a == nullptr || (b != nullptr && b->notBefore > a->notBefore) ? b : a;
}

bool hasExpired(const RecordInfo& info, std::int64_t time) {
    return info.notAfter && *info.notAfter < time;
}

// Whether the newer list may take the place of the older one.
bool isReplaced(Database& database, const RecordInfo& older, const RecordInfo& newer,
                const std::vector<RecordInfo>& records) {
    const Record before = readObject(database, older.address);
    const Record after = readObject(database, newer.address);
    std::vector<SecretBytes> issuers;
    for (const RecordInfo& info : records) {
        if (info.kind == Kind::kCertificate && folded(info.subject) == folded(older.issuer)) {
            const Record issuer = readObject(database, info.address);
            issuers.emplace_back(issuer.body().begin(), issuer.body().end());
        }
    }
    return isReplacedBy(before.body(), after.body(), issuers);
}

}  // namespace

std::vector<RecordInfo> ownRecords(Database& database, bool secrets, std::size_t most) {
    FindRules rules;
    rules.secrets = secrets;
    rules.filters.own = true;
    std::vector<RecordInfo> records;
    bool isTooMuch = false;
    (void)visitFound(database, rules, [&](RecordInfo info) {
        isTooMuch = isTooMuch || records.size() == most;
        if (!isTooMuch) {
            records.push_back(std::move(info));
        }
    });
    return isTooMuch ? std::vector<RecordInfo>() : records;
}

Successors Successors::among(const std::vector<RecordInfo>& records, std::int64_t time) {
    std::set<std::string> keys;
    for (const RecordInfo& info : records) {
        if (info.kind == Kind::kKey && !info.keySha256.empty()) {
            keys.insert(info.keySha256);
        }
    }
    Successors successors;
    for (const RecordInfo& info : records) {
        if (info.kind == Kind::kCrl || keys.contains(info.keySha256)) {
            successors.add(info, time);
        }
    }
    return successors;
}

void Successors::add(RecordInfo info, std::int64_t time) {
    if (info.kind == Kind::kCrl && info.notBefore) {
        byIssuer_.emplace(folded(info.issuer), all_.size());
    } else if (info.kind == Kind::kCertificate && isInForce(info, time)) {
        for (const std::string& name : allNamesOf(info)) {
            byName_.emplace(name, all_.size());
        }
    } else {
        return;
    }
    all_.push_back(std::move(info));
}

const RecordInfo* Successors::find(const RecordInfo& info) const {
    if (!mayBeSuperseded(info)) {
        return nullptr;
    }
    return info.kind == Kind::kCrl ? findCrl(info) : findCertificate(info);
}

const RecordInfo* Successors::findCertificate(const RecordInfo& info) const {
    const std::vector<std::string> names = namesOf(info);
    if (names.empty()) {
        return nullptr;
    }
    const RecordInfo* found = nullptr;
    const auto [first, last] = byName_.equal_range(names.front());
    for (auto each = first; each != last; ++each) {
        const RecordInfo& other = all_[each->second];
        if (other.isCa == info.isCa && other.notBefore > info.notBefore &&
            std::ranges::includes(allNamesOf(other), names)) {
            found = later(found, &other);
        }
    }
    return found;
}

const RecordInfo* Successors::findCrl(const RecordInfo& info) const {
    const RecordInfo* found = nullptr;
    const auto [first, last] = byIssuer_.equal_range(folded(info.issuer));
    for (auto each = first; each != last; ++each) {
        const RecordInfo& other = all_[each->second];
        if (other.notBefore > info.notBefore && isOfOneKey(other, info)) {
            found = later(found, &other);
        }
    }
    return found;
}

Prunable findPrunable(Database& database) {
    const Listing listing = listWithSecrets(database);
    const std::int64_t time = now();
    const Successors successors = Successors::among(listing.records, time);
    Prunable prunable{{}, unreadOf(listing)};
    for (const RecordInfo& info : listing.records) {
        const RecordInfo* const successor =
            hasExpired(info, time) ? successors.find(info) : nullptr;
        if (successor == nullptr) {
            continue;
        }
        try {
            if (info.kind == Kind::kCertificate ||
                isReplaced(database, info, *successor, listing.records)) {
                prunable.records.push_back(info);
            }
        } catch (const Failure& failure) {
            prunable.leftOut.push_back(failure);
        }
    }
    return prunable;
}

}  // namespace fstore
