#include "lib/work/survey.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "lib/base/digits.h"
#include "lib/pki/signature.h"
#include "lib/records/record.h"
#include "lib/work/find.h"
#include "lib/work/issuers.h"
#include "lib/work/key_states.h"
#include "lib/work/object_record.h"
#include "lib/work/successors.h"

namespace fstore {
namespace {

constexpr std::int64_t kLongest = 398 * kDay;  // that browsers accept
constexpr unsigned int kLeastRsa = 2048;

class Looking {
public:
    Looking(Database& database, const std::vector<RecordInfo>& records, std::int64_t time)
        : database_(database),
          time_(time),
          successors_(Successors::among(database, records, time)),
          keys_(records) {}

    Dated dated(const RecordInfo& info) {
        return {info, successors_.find(info) != nullptr, keys_.find(info) != nullptr};
    }

    void look(const RecordInfo& info) {
        lookAtKey(info);
        if (info.kind == Kind::kCertificate) {
            lookAtCertificate(info);
        } else if (info.kind == Kind::kCrl && info.notAfter && *info.notAfter < time_ &&
                   successors_.find(info) == nullptr) {
            add(info, "CRL that has expired, and no newer one is here");
        } else if (info.kind == Kind::kKey) {
            lookForCertificate(info);
        }
    }

    std::vector<Oddity> take() {
        std::ranges::stable_sort(oddities_, {},
                                 [](const Oddity& oddity) { return oddity.info.address.print(); });
        return std::move(oddities_);
    }

private:
    void add(const RecordInfo& info, std::string what) {
        oddities_.push_back({info, std::move(what)});
    }

    void lookAtKey(const RecordInfo& info) {
        const unsigned int bits = rsaBits(info.keyAlgorithm);
        if (bits != 0 && bits < kLeastRsa) {
            add(info,
                fmt::format("RSA key of {} bits; less than {} can be broken", bits, kLeastRsa));
        }
    }

    void lookForCertificate(const RecordInfo& key) {
        const KeyState* const state = keys_.find(key);
        if (state == nullptr || state->certificate == nullptr) {
            add(key, state != nullptr && state->request != nullptr
                         ? "key without a certificate; one was requested"
                         : "key without a certificate");
        }
    }

    void lookAtCertificate(const RecordInfo& info) {
        if (successors_.find(info) != nullptr) {
            return;  // nobody uses it any more
        }
        if (!info.notAfter) {
            add(info, "its end is not known; see `fstore check --deep`");
        } else if (*info.notAfter < time_) {
            add(info, "has expired, and nothing newer replaces it");
            return;
        }
        if (info.subject != info.issuer) {  // nobody relies on how a root is signed
            lookAtSignature(info);
        }
        if (info.isCa) {
            return;
        }
        if (info.altNames.empty()) {
            add(info, "has no subject alternative name, so no browser takes it for a host");
        }
        if (info.notBefore && info.notAfter && *info.notAfter - *info.notBefore > kLongest) {
            add(info, fmt::format("is for {} days; browsers accept {}",
                                  (*info.notAfter - *info.notBefore) / kDay, kLongest / kDay));
        }
    }

    void lookAtSignature(const RecordInfo& info) {
        try {
            const Record record = readObject(database_, info.address);
            const std::string digest = brokenDigestOf(record.body());
            if (!digest.empty()) {
                add(info, fmt::format("is signed with {}, which can be forged", digest));
            }
        } catch (const MemoryFailure&) {
            throw;
        } catch (const Failure& failure) {
            add(info, failure.what());
        }
    }

    Database& database_;
    const std::int64_t time_;
    Successors successors_;
    KeyStates keys_;
    std::vector<Oddity> oddities_;
};

}  // namespace

unsigned int rsaBits(const std::string& algorithm) {
    for (const std::string_view head : {"RSA-PSS-", "RSA-"}) {
        if (algorithm.starts_with(head)) {
            return parseNumber(algorithm.substr(head.size())).value_or(0);
        }
    }
    return 0;
}

Survey surveyOf(Database& database, std::int64_t time) {
    Survey survey;
    survey.forest = forestOf(database, std::nullopt);
    const Listing listing = listWithSecrets(database);
    survey.unread = unreadOf(listing);
    Looking looking(database, listing.records, time);
    for (const RecordInfo& info : listing.records) {
        looking.look(info);
        if (info.notAfter) {
            survey.dated.push_back(looking.dated(info));
        }
        if (info.kind == Kind::kKey) {
            survey.keys.push_back(info);
        }
    }
    survey.oddities = looking.take();
    std::ranges::stable_sort(survey.dated, {},
                             [](const Dated& dated) { return *dated.info.notAfter; });
    std::ranges::stable_sort(survey.keys, {}, &RecordInfo::keyAlgorithm);
    return survey;
}

}  // namespace fstore
