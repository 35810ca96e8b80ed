#include "lib/work/forest.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "lib/base/time.h"
#include "lib/pki/chain.h"
#include "lib/records/record.h"
#include "lib/work/issuers.h"
#include "lib/work/object_record.h"
#include "lib/work/select.h"
#include "lib/work/successors.h"

namespace fstore {
namespace {

// A certificate, and where it will stand.
struct Seedling {
    Branch branch;
    SecretBytes der;
    std::optional<std::size_t> issuer;  // among the seedlings
    std::vector<std::size_t> issued = {};
};
using Seedlings = std::vector<Seedling>;

Seedlings seedlingsOf(Database& database, const std::vector<RecordInfo>& records,
                      std::vector<Failure>& leftOut) {
    std::map<std::string, Address> keys;
    for (const RecordInfo& info : records) {
        if (info.kind == Kind::kKey && !info.keySha256.empty()) {
            keys.try_emplace(info.keySha256, info.address);
        }
    }
    Successors successors = Successors::among(database, records);
    Seedlings seedlings;
    for (const RecordInfo& info : records) {
        if (info.kind != Kind::kCertificate) {
            continue;
        }
        try {
            const Record record = readObject(database, info.address);
            Seedling& seedling = seedlings.emplace_back();
            seedling.der.assign(record.body().begin(), record.body().end());
            seedling.branch.info = info;
            seedling.branch.isSuperseded = successors.find(info) != nullptr;
            const auto key = keys.find(info.keySha256);
            if (key != keys.end()) {
                seedling.branch.key = key->second;
            }
        } catch (const Failure& failure) {
            leftOut.push_back(failure);
        }
    }
    return seedlings;
}

void findIssuers(Seedlings& seedlings) {
    std::multimap<std::string, std::size_t> bySubject;
    for (std::size_t i = 0; i < seedlings.size(); ++i) {
        bySubject.emplace(folded(seedlings[i].branch.info.subject), i);
    }
    for (std::size_t i = 0; i < seedlings.size(); ++i) {
        std::vector<std::size_t> indices;
        std::vector<SecretBytes> ders;
        const RecordInfo& info = seedlings[i].branch.info;
        // What signed itself looks for nobody else, of whom hostile ones could offer many.
        seedlings[i].branch.isRoot = info.subject == info.issuer &&
                                     chainOf(seedlings[i].der, {}).end == IssuerPath::End::kRoot;
        if (seedlings[i].branch.isRoot) {
            continue;
        }
        const auto [from, to] = bySubject.equal_range(folded(info.issuer));
        for (auto each = from; each != to; ++each) {
            indices.push_back(each->second);
            ders.push_back(seedlings[each->second].der);
        }
        const Chain chain = chainOf(seedlings[i].der, ders);
        if (!chain.issuers.empty()) {
            seedlings[i].issuer = indices[chain.issuers.front()];
            seedlings[*seedlings[i].issuer].issued.push_back(i);
        }
    }
}

// Those that cover the host, and their issuers.
std::set<std::size_t> wantedIn(const Seedlings& seedlings, const std::optional<std::string>& host) {
    std::set<std::size_t> wanted;
    for (std::size_t i = 0; i < seedlings.size(); ++i) {
        if (host && !covers(seedlings[i].branch.info, *host)) {
            continue;
        }
        std::optional<std::size_t> next = i;
        while (next && wanted.insert(*next).second) {
            next = seedlings[*next].issuer;
        }
    }
    return wanted;
}

// Puts a certificate and all below it behind what the forest has, each once: hostile ones may have
// issued each other.
void grow(std::size_t root, const Seedlings& seedlings, std::set<std::size_t>& wanted,
          Forest& forest) {
    struct Next {
        std::size_t seedling;
        std::optional<std::size_t> issuer;
        std::size_t depth;
    };
    std::vector<Next> waiting = {{root, std::nullopt, 0}};
    while (!waiting.empty()) {
        const Next next = waiting.back();
        waiting.pop_back();
        if (wanted.erase(next.seedling) == 0) {
            continue;
        }
        const std::size_t here = forest.branches.size();
        Branch& branch = forest.branches.emplace_back(seedlings[next.seedling].branch);
        branch.issuer = next.issuer;
        branch.depth = next.depth;
        if (const auto above = seedlings[next.seedling].issuer; above && !next.issuer) {
            branch.issuerBelow = seedlings[*above].branch.info.address;
        }
        std::vector<std::size_t> issued = seedlings[next.seedling].issued;
        std::ranges::sort(issued, [&](std::size_t a, std::size_t b) {
            const RecordInfo& first = seedlings[a].branch.info;
            const RecordInfo& second = seedlings[b].branch.info;
            return std::tie(second.subject, second.notAfter, second.address) <
                   std::tie(first.subject, first.notAfter, first.address);
        });
        for (const std::size_t each : issued) {
            waiting.push_back({each, here, next.depth + 1});
        }
    }
}

void findFirst(Forest& forest) {
    const std::int64_t time = now();
    for (std::size_t i = 0; i < forest.branches.size(); ++i) {
        const Branch& branch = forest.branches[i];
        const bool counts = !branch.isSuperseded && isInForce(branch.info, time);
        if (counts && (!forest.first ||
                       branch.info.notAfter < forest.branches[*forest.first].info.notAfter)) {
            forest.first = i;
        }
    }
}

}  // namespace

Forest forestOf(Database& database, const std::optional<std::string>& host) {
    const Listing listing = listWithSecrets(database);
    Forest forest;
    forest.leftOut = unreadOf(listing);
    Seedlings seedlings = seedlingsOf(database, listing.records, forest.leftOut);
    findIssuers(seedlings);
    std::set<std::size_t> wanted = wantedIn(seedlings, host);
    std::vector<std::size_t> roots;
    std::ranges::copy_if(wanted, std::back_inserter(roots),
                         [&](std::size_t each) { return !seedlings[each].issuer; });
    // Behind the roots what a circle has left.
    roots.insert(roots.end(), wanted.begin(), wanted.end());
    for (const std::size_t root : roots) {
        grow(root, seedlings, wanted, forest);
    }
    findFirst(forest);
    return forest;
}

}  // namespace fstore
