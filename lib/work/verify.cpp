#include "lib/work/verify.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "lib/work/issuers.h"
#include "lib/work/meant.h"
#include "lib/work/object_record.h"

namespace fstore {
namespace {

using Infos = std::vector<RecordInfo>;

// Those of the certificates that a user means by one word.
class Meant {
public:
    Meant(const Infos& certificates, Observer& observer)
        : certificates_(certificates), observer_(observer) {}

    Infos by(const std::string& text) const {
        const AddressText meant = parseAddress(text);
        const bool isBare = meant.form == AddressText::Form::kBare;
        // A name alone is that of a certificate, if one alone has it: its key and request have it,
        // too.
        Infos named = isBare ? those([&](const RecordInfo& info) {
            return info.address.name == meant.place.name;
        })
                             : Infos();
        if (named.size() == 1) {
            return named;
        }
        try {
            return {at(resolve(text))};
        } catch (const NoRecord&) {
            Infos found = isPattern(text) ? matching(text)
                          : isBare        ? byLess(meant.place.name)
                                          : Infos();
            if (found.empty()) {
                throw;
            }
            return found;
        }
    }

private:
    template <class Test>
    Infos those(Test test) const {
        Infos found;
        std::ranges::copy_if(certificates_, std::back_inserter(found), test);
        return found;
    }

    const RecordInfo& at(const Address& address) const {
        const auto found = std::ranges::find(certificates_, address, &RecordInfo::address);
        if (found == certificates_.end()) {
            throw Failure(
                kInvalid,
                fmt::format("{} is not a certificate, or cannot be read as one", address.print()),
                address.print());
        }
        return *found;
    }

    Infos matching(const std::string& pattern) const {
        const std::vector<Address> all = recordsMatching(pattern);
        return those([&](const RecordInfo& info) {
            return std::ranges::find(all, info.address) != all.end();
        });
    }

    // The one with this label, or whose name begins so.
    Infos byLess(const std::string& text) const {
        Infos found = those([&](const RecordInfo& info) { return info.label == text; });
        if (found.empty()) {
            found =
                those([&](const RecordInfo& info) { return info.address.name.starts_with(text); });
        }
        if (found.size() > 1) {
            std::vector<Address> addresses;
            std::ranges::transform(found, std::back_inserter(addresses), &RecordInfo::address);
            failAmbiguous(text, addresses);
        }
        if (!found.empty()) {
            observer_.warn(
                fmt::format("{} is taken to mean {}", text, found.front().address.print()));
        }
        return found;
    }

    const Infos& certificates_;
    Observer& observer_;
};

// Each once, in the order of the texts.
Infos meantBy(const std::vector<std::string>& texts, const Infos& certificates,
              Observer& observer) {
    if (texts.empty()) {
        return certificates;
    }
    const Meant meant(certificates, observer);
    Infos all;
    for (const std::string& text : texts) {
        for (RecordInfo& info : meant.by(text)) {
            if (std::ranges::find(all, info.address, &RecordInfo::address) == all.end()) {
                all.push_back(std::move(info));
            }
        }
    }
    return all;
}

Infos kindOf(Kind kind, const Infos& records) {
    Infos found;
    std::ranges::copy_if(records, std::back_inserter(found),
                         [kind](const RecordInfo& info) { return info.kind == kind; });
    return found;
}

// What the verification of these needs to see, each once.
Infos issuersOf(const Infos& meant, const Infos& certificates) {
    if (meant.size() == certificates.size()) {
        return certificates;
    }
    std::set<Address> seen;
    Infos all;
    for (const RecordInfo& info : meant) {
        Infos more = possibleIssuers(info, certificates);
        more.push_back(info);  // a root is its own
        for (RecordInfo& issuer : more) {
            if (seen.insert(issuer.address).second) {
                all.push_back(std::move(issuer));
            }
        }
    }
    return all;
}

Infos crlsOf(const Infos& certificates, const Infos& records) {
    std::set<std::string> issuers;
    for (const RecordInfo& info : certificates) {
        issuers.insert(folded(info.issuer));
    }
    Infos crls = kindOf(Kind::kCrl, records);
    std::erase_if(crls,
                  [&](const RecordInfo& crl) { return !issuers.contains(folded(crl.issuer)); });
    return crls;
}

// The bodies of the records that can be read; the others leave `infos`.
std::vector<SecretBytes> bodiesOf(Database& database, Infos& infos, std::vector<Failure>& leftOut) {
    std::vector<SecretBytes> bodies;
    Infos readable;
    for (RecordInfo& info : infos) {
        try {
            const Record record = readObject(database, info.address);
            bodies.emplace_back(record.body().begin(), record.body().end());
            readable.push_back(std::move(info));
        } catch (const Failure& failure) {
            leftOut.push_back(failure);
        }
    }
    infos = std::move(readable);
    return bodies;
}

// The CRLs that could not be read: by the folded name of the issuer, empty where that is unknown,
// too.
using UnreadCrls = std::multimap<std::string, Address>;

// Whether what is in the folder may be a CRL, as far as import and generate put things.
bool mayHoldCrls(const std::string& folder) {
    return !layout::kKeys.holds(folder) && !layout::kCertificates.holds(folder) &&
           !layout::kCrm.holds(folder);
}

// The issuer of the CRL that a damaged record was, as its descriptor says; empty where that may be
// anybody, none where it was no CRL.
std::optional<std::string> issuerOfLost(const Address& address) {
    if (!mayHoldCrls(address.folder)) {
        return std::nullopt;
    }
    try {
        const RecordHead head = RecordHead::readWithoutBody(address);
        const RecordInfo info = infoOf(head);
        if (info.kind == Kind::kCrl) {
            return folded(info.issuer);
        }
        return hidesKind(head) ? std::optional(std::string()) : std::nullopt;
    } catch (const Failure&) {
        return std::string();
    }
}

UnreadCrls unreadCrlsOf(const Listing& listing, const Infos& wanted, const Infos& readable) {
    UnreadCrls unread;
    for (const auto& [address, failure] : listing.damaged) {
        if (auto issuer = issuerOfLost(address)) {
            unread.emplace(std::move(*issuer), address);
        }
    }
    for (const RecordInfo& info : wanted) {
        if (std::ranges::find(readable, info.address, &RecordInfo::address) == readable.end()) {
            unread.emplace(folded(info.issuer), info.address);
        }
    }
    return unread;
}

// Why it is not known whether the certificate and its issuers are revoked; empty: it is.
std::string doubtOf(const Verified& verified, const UnreadCrls& unread) {
    std::vector<std::string> names = {"", folded(verified.info.issuer)};
    for (const RecordInfo& issuer : verified.issuers) {
        names.push_back(folded(issuer.issuer));
    }
    for (const std::string& name : names) {
        const auto found = unread.find(name);
        if (found != unread.end()) {
            return fmt::format(
                "it is not known whether it is revoked: {} cannot be read; import that CRL again",
                found->second.print());
        }
    }
    return {};
}

}  // namespace

Verification verifyCertificates(Database& database, const std::vector<std::string>& texts,
                                const VerifyRules& rules) {
    const Listing listing = listWithSecrets(database);
    const Infos certificates = kindOf(Kind::kCertificate, listing.records);
    const Infos meant = meantBy(texts, certificates, database.observer());
    Verification verification;
    verification.leftOut = unreadOf(listing);
    Infos issuers = issuersOf(meant, certificates);
    const Infos wanted = crlsOf(issuers, listing.records);
    Infos crls = wanted;
    const std::vector<SecretBytes> ders = bodiesOf(database, issuers, verification.leftOut);
    const std::vector<SecretBytes> crlDers = bodiesOf(database, crls, verification.leftOut);
    const UnreadCrls unread = unreadCrlsOf(listing, wanted, crls);
    const ChainVerifier verifier(ders, crlDers, rules);
    for (const RecordInfo& info : meant) {
        const auto found = std::ranges::find(issuers, info.address, &RecordInfo::address);
        Verified& verified = verification.certificates.emplace_back();
        verified.info = info;
        if (found == issuers.end()) {
            verified.why = "its record is damaged or cannot be read";
            continue;
        }
        Verdict verdict = verifier.verify(ders[static_cast<std::size_t>(found - issuers.begin())]);
        verified.why = std::move(verdict.why);
        verified.until = verdict.until;
        for (const std::size_t issuer : verdict.chain) {
            verified.issuers.push_back(issuers[issuer]);
        }
        verified.doubt = verified.why.empty() ? doubtOf(verified, unread) : std::string();
    }
    return verification;
}

}  // namespace fstore
