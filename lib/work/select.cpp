#include "lib/work/select.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "lib/base/time.h"
#include "lib/records/catalogue.h"
#include "lib/records/filter.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "lib/work/find.h"
#include "lib/work/issuers.h"
#include "lib/work/object_record.h"

namespace fstore {
namespace {

using Infos = std::vector<RecordInfo>;

enum class Cover { kNone, kWildcard, kExact };

Cover coverOf(std::string_view altName, std::string_view host) {
    constexpr std::string_view kDns = "DNS:", kIp = "IP:", kAny = "*.";
    if (altName.starts_with(kIp)) {
        return altName.substr(kIp.size()) == host ? Cover::kExact : Cover::kNone;
    }
    if (!altName.starts_with(kDns) || isIpAddress(std::string(host))) {
        return Cover::kNone;  // a DNS name that looks like an address is none
    }
    std::string name(altName.substr(kDns.size()));
    std::ranges::transform(name, name.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    if (name == host) {
        return Cover::kExact;
    }
    const std::size_t dot = host.find('.');
    const bool covers = name.starts_with(kAny) && dot != std::string_view::npos && dot > 0 &&
                        !host.starts_with(kAny) && host.substr(dot) == name.substr(1) &&
                        host.find('.', dot + 1) != std::string_view::npos;
    return covers ? Cover::kWildcard : Cover::kNone;
}

Cover coverOf(const RecordInfo& certificate, std::string_view host) {
    Cover best = Cover::kNone;
    for (const std::string& name : certificate.altNames) {
        best = std::max(best, coverOf(name, host));
    }
    return best;
}

// Whether `a` comes before `b` in the order that the header says; the address decides between
// copies of one certificate.
bool isBefore(const RecordInfo& a, const RecordInfo& b, std::string_view host) {
    const Cover coverOfA = coverOf(a, host), coverOfB = coverOf(b, host);
    return std::tie(coverOfB, b.notBefore, b.notAfter, a.sha256, a.address) <
           std::tie(coverOfA, a.notBefore, a.notAfter, b.sha256, b.address);
}

// The certificates for the host, the best first.
Infos coveringIn(const Infos& records, const Selector& selector) {
    Infos covering;
    std::ranges::copy_if(records, std::back_inserter(covering), [&](const RecordInfo& info) {
        return info.kind == Kind::kCertificate && coverOf(info, selector.name) != Cover::kNone &&
               (selector.algorithm.empty() || isAlgorithm(selector.algorithm, info.keyAlgorithm));
    });
    std::ranges::sort(covering, [&](const RecordInfo& a, const RecordInfo& b) {
        return isBefore(a, b, selector.name);
    });
    return covering;
}

// The key of the certificate; of several records with it the one with the smaller digest.
const RecordInfo* keyFor(const RecordInfo& certificate, const Infos& records) {
    const RecordInfo* found = nullptr;
    for (const RecordInfo& info : records) {
        const bool fits = info.kind == Kind::kKey && !info.keySha256.empty() &&
                          info.keySha256 == certificate.keySha256;
        if (fits && (found == nullptr || std::tie(info.sha256, info.address) <
                                             std::tie(found->sha256, found->address))) {
            found = &info;
        }
    }
    return found;
}

// What those lack that cover the host and are not taken.
struct Lacks {
    unsigned int force = 0, key = 0, trust = 0;
};

[[noreturn]] void failWithout(const Selector& selector, const Lacks& lacks, std::size_t unread) {
    const std::string what = selector.algorithm.empty()
                                 ? fmt::format("no certificate for {}", selector.name)
                                 : fmt::format("no certificate for {} with a key of {}",
                                               selector.name, selector.algorithm);
    std::string why;
    const auto count = [&why](std::size_t number, const char* reason) {
        if (number != 0) {
            why += fmt::format("{}{} {}", why.empty() ? ": " : ", ", number, reason);
        }
    };
    count(lacks.force, "not in force");
    count(lacks.key, "without its key in the database");
    count(lacks.trust, "revoked by a CRL");
    count(unread, "records that cannot be read");
    throw Failure(kMissing, what + (why.empty() ? " in the database" : " can be used" + why));
}

void addIssuers(Selected& selected, const Infos& records, Revocations& revocations,
                Database& database) {
    Infos infos;
    std::vector<SecretBytes> ders;
    for (RecordInfo& info : possibleIssuers(selected.certificate, records)) {
        try {
            const Record record = readObject(database, info.address);
            ders.emplace_back(record.body().begin(), record.body().end());
            infos.push_back(std::move(info));
        } catch (const Failure& failure) {
            selected.leftOut.push_back(failure);
        }
    }
    const Record own = readObject(database, selected.certificate.address);
    for (const std::size_t issuer : chainAmong(own.body(), infos, ders, revocations).issuers) {
        selected.issuers.push_back(infos[issuer]);
    }
}

Meaning folderMeaning(Database& database, const std::string& folder) {
    FindRules rules;
    if (!folder.empty()) {
        rules.folder = folder;  // without one, the records of the store itself are left out
    }
    Listing listing = findRecords(database, rules);
    return {true, std::move(listing.records), unreadOf(listing)};
}

Meaning pathMeaning(Database& database, const std::string& path) {
    try {
        return {false, {infoOf(RecordHead::read(resolve(path)))}, {}};
    } catch (const Failure& failure) {
        if (failure.status() != kMissing) {
            throw;
        }
        try {
            return folderMeaning(database, path);
        } catch (const Failure&) {
        }
        throw;  // that there is no such record
    }
}

}  // namespace

Selected select(Database& database, const Selector& selector) {
    const Listing listing = listWithSecrets(database);
    const Infos& records = listing.records;
    const std::int64_t time = now();
    Lacks lacks;
    Revocations revocations(database, records);
    for (const RecordInfo& certificate : coveringIn(records, selector)) {
        const RecordInfo* const key = keyFor(certificate, records);
        if (!isInForce(certificate, time)) {
            ++lacks.force;
        } else if (key == nullptr) {
            ++lacks.key;
        } else if (revocations.revoke(certificate)) {
            ++lacks.trust;
        } else {
            // What its record says may have been edited.
            (void)readObject(database, certificate.address);
            Selected selected{*key, certificate, {}, unreadOf(listing), {}};
            if (selector.type == Selector::Type::kPair || selector.type == Selector::Type::kChain) {
                addIssuers(selected, records, revocations, database);
            }
            selected.warnings = revocations.warnings();
            return selected;
        }
    }
    failWithout(selector, lacks, listing.damaged.size() + listing.unread.size());
}

bool covers(const RecordInfo& certificate, const std::string& host) {
    return coverOf(certificate, host) != Cover::kNone;
}

const RecordInfo& mainOf(const Selected& selected, Selector::Type type) {
    return type == Selector::Type::kKey ? selected.key : selected.certificate;
}

Meaning meaningOf(Database& database, const RecordUri& uri) {
    if (!uri.selector) {
        return uri.isFolderOnly() ? folderMeaning(database, parseFolder(uri.path))
                                  : pathMeaning(database, uri.path);
    }
    using Type = Selector::Type;
    const Type type = uri.selector->type;
    Selected selected = select(database, *uri.selector);
    Meaning meaning;
    if (type == Type::kKey || type == Type::kPair) {
        meaning.records.push_back(std::move(selected.key));
    }
    if (type != Type::kKey) {
        meaning.records.push_back(std::move(selected.certificate));
    }
    std::ranges::move(selected.issuers, std::back_inserter(meaning.records));
    meaning.leftOut = std::move(selected.leftOut);
    return meaning;
}

}  // namespace fstore
