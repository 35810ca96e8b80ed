#include "lib/work/issuers.h"

#include <algorithm>
#include <iterator>
#include <map>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/revocation.h"
#include "lib/records/record.h"
#include "lib/work/find.h"
#include "lib/work/object_record.h"

namespace fstore {
namespace {

// Whether what is looked at is kept encrypted, and was not decrypted.
bool isHidden(const RecordInfo& info) {
    switch (info.kind) {
        case Kind::kCertificate:
            return info.bodyEncrypted && (!info.notAfter || info.keySha256.empty());
        case Kind::kKey:
            return info.bodyEncrypted && info.keySha256.empty();
        case Kind::kCrl:
            return info.bodyEncrypted && info.issuer.empty();
        default:
            return false;
    }
}

}  // namespace

Listing listWithSecrets(Database& database) {
    FindRules rules;
    Listing listing = findRecords(database, rules);
    if (std::ranges::any_of(listing.records, isHidden)) {
        database.needSecrets();
        rules.secrets = true;
        listing = findRecords(database, rules);
    }
    return listing;
}

std::vector<Failure> unreadOf(const Listing& listing) {
    std::vector<Failure> failures;
    for (const auto& [address, failure] : listing.damaged) {
        failures.push_back(failure);
    }
    failures.insert(failures.end(), listing.unread.begin(), listing.unread.end());
    return failures;
}

bool isInForce(const RecordInfo& certificate, std::int64_t time) {
    return certificate.notBefore && certificate.notAfter && *certificate.notBefore <= time &&
           time <= *certificate.notAfter;
}

std::string folded(std::string_view name) {
    std::string text;
    for (const char c : name) {
        if (c != ' ') {
            text += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        }
    }
    return text;
}

std::vector<RecordInfo> possibleIssuers(const RecordInfo& certificate,
                                        const std::vector<RecordInfo>& records) {
    std::vector<RecordInfo> found;
    std::vector<std::string> wanted = {folded(certificate.issuer)}, seen;
    while (!wanted.empty()) {
        const std::string name = std::move(wanted.back());
        wanted.pop_back();
        if (std::ranges::find(seen, name) != seen.end()) {
            continue;
        }
        seen.push_back(name);
        for (const RecordInfo& info : records) {
            if (info.kind == Kind::kCertificate && folded(info.subject) == name) {
                found.push_back(info);
                wanted.push_back(folded(info.issuer));
            }
        }
    }
    return found;
}

bool Revocations::revoke(const RecordInfo& certificate) {
    const auto crls = listedUnder(Kind::kCrl, &RecordInfo::issuer, certificate.issuer);
    if (crls.empty()) {
        return false;
    }
    Revocation revocation(readObject(database_, certificate.address).body(),
                          issuersFor(certificate));
    for (const RecordInfo& crl : crls) {
        const Record record = readObject(database_, crl.address);
        if (revocation.add(record.body()) == Revocation::Use::kUnverified) {
            warn(
                fmt::format("{} does not count: it has the name of an issuer, but not its "
                            "signature",
                            crl.address.print()));
        }
    }
    return revocation.isRevoked();
}

std::vector<RecordInfo> Revocations::listedUnder(Kind kind, std::string RecordInfo::*field,
                                                 const std::string& name) const {
    std::vector<RecordInfo> found;
    std::ranges::copy_if(records_, std::back_inserter(found), [&](const RecordInfo& info) {
        return info.kind == kind && folded(info.*field) == folded(name);
    });
    return found;
}

// Those that can be read.
std::vector<SecretBytes> Revocations::issuersFor(const RecordInfo& certificate) const {
    std::vector<SecretBytes> issuers;
    for (const RecordInfo& info :
         listedUnder(Kind::kCertificate, &RecordInfo::subject, certificate.issuer)) {
        try {
            const Record record = readObject(database_, info.address);
            issuers.emplace_back(record.body().begin(), record.body().end());
        } catch (const Failure&) {
            continue;  // a damaged one verifies nothing
        }
    }
    return issuers;
}

Chain chainAmong(std::span<const unsigned char> certificate, const std::vector<RecordInfo>& infos,
                 const std::vector<SecretBytes>& ders, Revocations& revocations) {
    // What cannot be read revokes nothing. Of those that were asked about some get into the chain.
    std::map<std::size_t, std::string> doubts;
    const auto isRevoked = [&](std::size_t issuer) {
        try {
            return revocations.revoke(infos[issuer]);
        } catch (const Failure& failure) {
            doubts.emplace(issuer, failure.what());
            return false;
        }
    };
    Chain chain = chainOf(certificate, ders, {now(), isRevoked});
    for (const std::size_t issuer : chain.issuers) {
        if (const auto doubt = doubts.find(issuer); doubt != doubts.end()) {
            revocations.warn(fmt::format("it is not known whether {} is revoked: {}",
                                         infos[issuer].address.print(), doubt->second));
        }
    }
    const auto warn = [&](const std::vector<std::size_t>& issuers, const char* flaw) {
        for (const std::size_t issuer : issuers) {
            revocations.warn(
                fmt::format("{} is in the chain and {}: the database has no better one",
                            infos[issuer].address.print(), flaw));
        }
    };
    warn(chain.notInForce, "not in force");
    warn(chain.revoked, "revoked by a CRL");
    return chain;
}

}  // namespace fstore
