#include "lib/work/export.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "lib/base/printable.h"
#include "lib/pki/encode.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "lib/work/issuers.h"
#include "lib/work/object_record.h"

namespace fstore {
namespace {

// A certificate or key of the database that may go with the one of the address.
struct Candidate {
    RecordInfo info;
    SecretBytes der;
};

SecretBytes bodyOf(const Record& record) {
    return {record.body().begin(), record.body().end()};
}

// The failures of damaged records go to `leftOut`.
std::vector<Candidate> candidatesOf(Kind kind, Database& database, std::vector<Failure>& leftOut) {
    std::vector<Candidate> found;
    Unread elsewhere;  // as damaged records
    for (const Address& address : allRecords(&elsewhere)) {
        try {
            if (infoOf(RecordHead::read(address)).kind == kind) {
                const Record record = readObject(database, address);
                found.push_back({infoOf(record), bodyOf(record)});
            }
        } catch (const Failure& failure) {
            leftOut.push_back(failure);
        }
    }
    return found;
}

// The one for this public key; of several the one that ends last.
std::optional<Candidate> candidateFor(const std::string& keySha256,
                                      std::vector<Candidate> candidates) {
    std::erase_if(candidates, [&](const Candidate& candidate) {
        return candidate.info.keySha256 != keySha256 || keySha256.empty();
    });
    const auto last = std::ranges::max_element(candidates, {}, [](const Candidate& candidate) {
        return candidate.info.notAfter;  // none comes before all
    });
    return last == candidates.end() ? std::nullopt : std::optional(std::move(*last));
}

// The CRLs with their issuers. The failures of damaged records go to `leftOut`.
std::vector<RecordInfo> crlsOf(Database& database, std::vector<Failure>& leftOut) {
    std::vector<RecordInfo> found;
    Unread elsewhere;  // candidatesOf() reports it
    for (const Address& address : allRecords(&elsewhere)) {
        try {
            const RecordInfo info = infoOf(RecordHead::read(address));
            if (info.kind == Kind::kCrl) {
                const bool isHidden = info.bodyEncrypted && info.issuer.empty();
                found.push_back(isHidden ? infoOf(readObject(database, address)) : info);
            }
        } catch (const Failure& failure) {
            const auto isKnown = [&](const Failure& known) {
                return std::string_view(known.what()) == failure.what();
            };
            if (std::ranges::none_of(leftOut, isKnown)) {
                leftOut.push_back(failure);
            }
        }
    }
    return found;
}

void addChain(Selection& selection, Database& database) {
    auto known = candidatesOf(Kind::kCertificate, database, selection.leftOut);
    if (selection.certificates.empty()) {
        return;
    }
    std::vector<RecordInfo> infos;
    std::vector<SecretBytes> ders;
    for (Candidate& candidate : known) {
        infos.push_back(std::move(candidate.info));
        ders.push_back(std::move(candidate.der));
    }
    std::vector<RecordInfo> records = crlsOf(database, selection.leftOut);
    records.insert(records.end(), infos.begin(), infos.end());
    Revocations revocations(database, records);
    const Chain chain = chainAmong(selection.certificates.front(), infos, ders, revocations);
    for (const std::size_t issuer : chain.issuers) {
        selection.certificates.push_back(ders[issuer]);
    }
    selection.chainEnd = chain.end;
    selection.warnings = revocations.warnings();
}

void refuseUnlessExportable(const RecordInfo& info, const ExportRules& rules) {
    const bool known = info.kind == Kind::kCertificate || info.kind == Kind::kKey ||
                       info.kind == Kind::kCrl || info.kind == Kind::kRequest;
    if (!known || !info.hasBody) {
        throw Failure(
            kInvalid,
            fmt::format("{} is a {}, which has no such format; `fstore get` writes its body",
                        info.address.print(), nameOf(info.kind)),
            info.address.print());
    }
    if (rules.format == ExportRules::Format::kPkcs7 &&
        (info.kind == Kind::kKey || info.kind == Kind::kRequest)) {
        throw Failure(kInvalid,
                      fmt::format("{} is a {}; PKCS#7 has certificates and CRLs only",
                                  info.address.print(), nameOf(info.kind)),
                      info.address.print());
    }
    const bool alone = info.kind == Kind::kCrl || info.kind == Kind::kRequest;
    if (alone && (rules.chain || rules.format == ExportRules::Format::kPkcs12)) {
        throw Failure(kInvalid,
                      fmt::format("{} is a {}, which has no chain and does not go into PKCS#12",
                                  info.address.print(), nameOf(info.kind)),
                      info.address.print());
    }
}

void append(SecretBytes& bytes, const SecretBytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

SecretBytes encodePem(const Selection& selection, const SecretText* password) {
    SecretBytes text;
    if (selection.key) {
        append(text, password != nullptr ? pemOfEncrypted(encryptedKey(*selection.key, *password))
                                         : pemOf(Kind::kKey, *selection.key));
    }
    for (const SecretBytes& certificate : selection.certificates) {
        append(text, pemOf(Kind::kCertificate, certificate));
    }
    if (!selection.other.empty()) {
        append(text, pemOf(selection.info.kind, selection.other));
    }
    return text;
}

SecretBytes encodeDer(const Selection& selection, const SecretText* password) {
    if (selection.key) {
        return password != nullptr ? encryptedKey(*selection.key, *password) : *selection.key;
    }
    return selection.certificates.empty() ? selection.other : selection.certificates.front();
}

// PKCS#12 keeps names in 16 bits a character, and no others than those.
bool fitsPkcs12(std::string_view label) {
    constexpr unsigned char kFirstOfFourBytes = 0xF0;
    return !label.empty() && isUtf8(label) && std::ranges::all_of(label, [](char c) {
        return c != 0 && static_cast<unsigned char>(c) < kFirstOfFourBytes;
    });
}

SecretBytes encodePkcs12(const Selection& selection, const SecretText* password) {
    Pkcs12Content content;
    if (selection.key) {
        content.key = *selection.key;
    }
    content.certificates.assign(selection.certificates.begin(), selection.certificates.end());
    content.label =
        fitsPkcs12(selection.info.label) ? selection.info.label : selection.info.address.name;
    return pkcs12Of(content, password);
}

SecretBytes encodePkcs7(const Selection& selection) {
    std::vector<std::span<const unsigned char>> crls;
    if (!selection.other.empty()) {
        crls.emplace_back(selection.other);
    }
    return pkcs7Of({selection.certificates.begin(), selection.certificates.end()}, crls);
}

}  // namespace

void refuseRules(const ExportRules& rules) {
    if (rules.chain && rules.format == ExportRules::Format::kDer) {
        throw Failure(kUsage, "a chain is written as PEM, PKCS#7 or PKCS#12: DER is one object");
    }
}

Selection selectForExport(Database& database, const Address& address, const ExportRules& rules) {
    refuseRules(rules);
    const Record record = readObject(database, address);
    Selection selection;
    selection.info = infoOf(record);
    refuseUnlessExportable(selection.info, rules);
    const bool asPkcs12 = rules.format == ExportRules::Format::kPkcs12;
    switch (selection.info.kind) {
        case Kind::kKey:
            selection.key = bodyOf(record);
            if (asPkcs12 || rules.chain) {
                auto own =
                    candidateFor(selection.info.keySha256,
                                 candidatesOf(Kind::kCertificate, database, selection.leftOut));
                if (own) {
                    selection.certificates.push_back(std::move(own->der));
                }
            }
            break;
        case Kind::kCertificate:
            selection.certificates.push_back(bodyOf(record));
            if (asPkcs12) {
                auto key = candidateFor(selection.info.keySha256,
                                        candidatesOf(Kind::kKey, database, selection.leftOut));
                if (key) {
                    selection.key = std::move(key->der);
                }
            }
            break;
        default:
            selection.other = bodyOf(record);
            break;
    }
    if (rules.chain) {
        addChain(selection, database);
    }
    return selection;
}

std::vector<std::string> warningsOf(const Selection& selection) {
    std::vector<std::string> warnings;
    for (const Failure& failure : selection.leftOut) {
        warnings.push_back(fmt::format("left out: {}", failure.what()));
    }
    warnings.insert(warnings.end(), selection.warnings.begin(), selection.warnings.end());
    if (selection.chainEnd == IssuerPath::End::kNoIssuer) {
        warnings.emplace_back(
            "the chain ends before a root: its next issuer is not in the database");
    } else if (selection.chainEnd == IssuerPath::End::kCircle) {
        warnings.emplace_back(
            "the chain does not end at a root: those that issued it have only issued each other");
    }
    return warnings;
}

bool isEncrypted(const Selection& selection, const ExportRules& rules) {
    return !rules.plain && (selection.key || rules.format == ExportRules::Format::kPkcs12);
}

SecretBytes encode(const Selection& selection, const ExportRules& rules,
                   const SecretText* password) {
    switch (rules.format) {
        case ExportRules::Format::kPem:
            return encodePem(selection, password);
        case ExportRules::Format::kDer:
            return encodeDer(selection, password);
        case ExportRules::Format::kPkcs7:
            return encodePkcs7(selection);
        case ExportRules::Format::kPkcs12:
            break;
    }
    return encodePkcs12(selection, password);
}

}  // namespace fstore
