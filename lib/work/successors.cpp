#include "lib/work/successors.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

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

Successors Successors::among(Database& database, const std::vector<RecordInfo>& records,
                             std::int64_t time) {
    std::set<std::string> keys;
    for (const RecordInfo& info : records) {
        if (info.kind == Kind::kKey && !info.keySha256.empty()) {
            keys.insert(info.keySha256);
        }
    }
    Successors successors;
    successors.database_ = &database;
    for (const RecordInfo& info : records) {
        const bool vouches =
            info.kind == Kind::kCrl || (info.kind == Kind::kCertificate && info.isCa);
        if (vouches && (!info.bodyEncrypted || database.isOpen())) {
            successors.vouching_.push_back(info);
        }
        if (info.kind == Kind::kCrl || keys.contains(info.keySha256)) {
            successors.add(info, time);
        }
    }
    return successors;
}

void Successors::add(RecordInfo info, std::int64_t time) {
    if (!isInForce(info, time)) {
        return;
    }
    if (info.kind == Kind::kCrl) {
        byIssuer_.emplace(folded(info.issuer), all_.size());
    } else if (info.kind == Kind::kCertificate) {
        for (const std::string& name : allNamesOf(info)) {
            byName_.emplace(name, all_.size());
        }
    } else {
        return;
    }
    all_.push_back(std::move(info));
}

// Calls use(body). Says whether that could be done; what was encrypted, and not decrypted, is
// nobody's fault.
template <class Use>
bool Successors::read(const RecordInfo& info, Use use) {
    if (info.bodyEncrypted && !database_->isOpen()) {
        return false;
    }
    try {
        use(readObject(*database_, info.address).body());
        return true;
    } catch (const Failure& failure) {
        unread_.push_back(failure);
        return false;
    }
}

const std::vector<SecretBytes>& Successors::issuersCalled(const std::string& name) {
    const auto [found, isNew] = ders_.try_emplace(folded(name));
    if (isNew) {
        for (const RecordInfo& info : vouching_) {
            if (info.kind == Kind::kCertificate && folded(info.subject) == found->first) {
                (void)read(info, [&ders = found->second](auto body) {
                    ders.emplace_back(body.begin(), body.end());
                });
            }
        }
    }
    return found->second;
}

// Null for what cannot be read.
const CrlTraits* Successors::crlTraits(const RecordInfo& crl) {
    const auto [found, isNew] = crls_.try_emplace(crl.address);
    auto& traits = found->second;
    if (isNew) {
        (void)read(crl, [&](auto body) { traits = crlTraitsOf(body, issuersCalled(crl.issuer)); });
    }
    return traits ? &*traits : nullptr;
}

// Null for what cannot be read.
const CertificateTraits* Successors::certificateTraits(const RecordInfo& certificate) {
    const auto [found, isNew] = certificates_.try_emplace(certificate.address);
    auto& traits = found->second;
    if (isNew) {
        (void)read(certificate, [&](auto body) { traits = certificateTraitsOf(body); });
    }
    return traits ? &*traits : nullptr;
}

// The serial numbers in all its CRLs, few of which list one of ours. None if one of them cannot be
// read.
const std::optional<Successors::Serials>& Successors::listedBy(const std::string& issuer) {
    const auto [found, isNew] = listed_.try_emplace(folded(issuer));
    if (!isNew) {
        return found->second;
    }
    Serials serials;
    bool isWhole = true;
    for (const RecordInfo& info : vouching_) {
        if (info.kind == Kind::kCrl && folded(info.issuer) == found->first) {
            isWhole = read(info, [&](auto body) { serials.merge(serialsIn(body)); }) && isWhole;
        }
    }
    if (isWhole) {
        found->second = std::move(serials);
    }
    return found->second;
}

bool Successors::askLists(const RecordInfo& certificate) {
    const CertificateTraits* const traits = certificateTraits(certificate);
    const std::optional<Serials>& listed = listedBy(certificate.issuer);
    if (traits == nullptr || !listed || !listed->contains(traits->serial)) {
        return traits == nullptr || !listed;
    }
    try {
        return Revocations(*database_, vouching_).revoke(certificate);
    } catch (const Failure& failure) {
        unread_.push_back(failure);
        return true;
    }
}

bool Successors::mayBeRevoked(const RecordInfo& certificate) {
    const auto known = revoked_.find(certificate.address);
    return known != revoked_.end()
               ? known->second
               : revoked_.emplace(certificate.address, askLists(certificate)).first->second;
}

const RecordInfo* Successors::find(const RecordInfo& info) {
    if (!mayBeSuperseded(info)) {
        return nullptr;
    }
    return info.kind == Kind::kCrl ? findCrl(info) : findCertificate(info);
}

const RecordInfo* Successors::findCertificate(const RecordInfo& info) {
    const std::vector<std::string> names = namesOf(info);
    if (names.empty()) {
        return nullptr;
    }
    const RecordInfo* found = nullptr;
    const auto [first, last] = byName_.equal_range(names.front());
    for (auto each = first; each != last; ++each) {
        const RecordInfo& other = all_[each->second];
        if (other.notBefore <= info.notBefore || !std::ranges::includes(allNamesOf(other), names)) {
            continue;
        }
        const CertificateTraits* const newer = certificateTraits(other);
        const CertificateTraits* const older = certificateTraits(info);
        if (newer != nullptr && older != nullptr && replaces(*newer, *older) &&
            !mayBeRevoked(other)) {
            found = later(found, &other);
        }
    }
    return found;
}

const RecordInfo* Successors::findCrl(const RecordInfo& info) {
    const RecordInfo* found = nullptr;
    const auto [first, last] = byIssuer_.equal_range(folded(info.issuer));
    for (auto each = first; each != last; ++each) {
        const RecordInfo& other = all_[each->second];
        if (other.notBefore <= info.notBefore || !isOfOneKey(other, info)) {
            continue;
        }
        const CrlTraits* const newer = crlTraits(other);
        const CrlTraits* const older = crlTraits(info);
        if (newer != nullptr && older != nullptr && replaces(*newer, *older)) {
            found = later(found, &other);
        }
    }
    return found;
}

Prunable findPrunable(Database& database) {
    const Listing listing = listWithSecrets(database);
    const std::int64_t time = now();
    Successors successors = Successors::among(database, listing.records, time);
    Prunable prunable{{}, unreadOf(listing)};
    std::ranges::copy_if(listing.records, std::back_inserter(prunable.records),
                         [&](const RecordInfo& info) {
                             return hasExpired(info, time) && successors.find(info) != nullptr;
                         });
    prunable.leftOut.insert(prunable.leftOut.end(), successors.unread().begin(),
                            successors.unread().end());
    return prunable;
}

}  // namespace fstore
