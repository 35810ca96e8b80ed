#include "lib/work/issuers.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/pki/revocation.h"
#include "lib/records/record.h"
#include "lib/work/object_record.h"

namespace fstore {

std::string folded(std::string_view name) {
    std::string text;
    for (const char c : name) {
        if (c != ' ') {
            text += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        }
    }
    return text;
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

bool Revocations::revokeIssuer(const RecordInfo& certificate) {
    try {
        return revoke(certificate);
    } catch (const Failure& failure) {
        warn(fmt::format("it is not known whether {} is revoked: {}", certificate.address.print(),
                         failure.what()));
        return false;
    }
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
    const ChainRules rules{
        now(), [&](std::size_t issuer) { return revocations.revokeIssuer(infos[issuer]); }};
    Chain chain = chainOf(certificate, ders, rules);
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
