#include "lib/work/find.h"

#include <algorithm>
#include <cstdint>
#include <future>
#include <iterator>
#include <limits>
#include <set>
#include <span>
#include <thread>

#include "lib/base/time.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"

namespace fstore {
namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

std::vector<Address> addressesOf(const std::optional<std::string>& within, Unread& unread) {
    if (!within) {
        return allRecords(&unread);
    }
    const std::string folder = parseFolder(*within);
    std::vector<Address> found;
    for (const std::string& each : knownFolders(&unread)) {
        if (folder.empty() || each == folder || each.starts_with(folder + "/")) {
            const auto inside = recordsIn(each);
            found.insert(found.end(), inside.begin(), inside.end());
        }
    }
    requireFolder(folder);
    return found;
}

// Those of them that may pass, where that is known.
std::vector<Address> candidatesOf(const FindRules& rules, const Filter& filter, Unread& unread) {
    const auto all = [&] { return addressesOf(rules.folder, unread); };
    const std::string folder = rules.folder ? parseFolder(*rules.folder) : std::string();
    // With the folder of "db" itself its internal records are listed, which nobody looks up.
    const bool hasInternal = rules.folder && folder.empty();
    if (filter.takesAll() || hasInternal) {
        return all();
    }
    requireFolder(folder);
    return knownOrAll(
        [&](Lookup& lookup) { return lookup.matching(filter, folder, rules.secrets); }, all);
}

using Addresses = std::span<const Address>;

// Reads a part of the addresses in each of some threads, by read(part); the results
// in order. Most of the time goes into the system's opening of files.
template <class Read>
auto readSideBySide(const Database& database, const std::vector<Address>& addresses, Read read) {
    constexpr std::size_t kWorthAThread = 1000;
    constexpr std::size_t kMostThreads = 8;
    const std::size_t processors = std::thread::hardware_concurrency();
    const std::size_t parts = std::clamp<std::size_t>(
        std::min(processors, addresses.size() / kWorthAThread), 1, kMostThreads);
    const auto readInside = [&](Addresses part) {
        const Inside inside = database.join();
        return read(part);
    };
    std::vector<std::future<decltype(read(Addresses()))>> running;
    for (std::size_t i = 0; i < parts; ++i) {
        const std::size_t from = addresses.size() * i / parts;
        const std::size_t to = addresses.size() * (i + 1) / parts;
        const Addresses part(addresses.data() + from, to - from);
        // Where no thread can be had, by the one that asks for the result.
        running.push_back(std::async(std::launch::async | std::launch::deferred, readInside, part));
    }
    std::vector<decltype(read(Addresses()))> results;
    results.reserve(parts);
    for (auto& result : running) {
        results.push_back(result.get());
    }
    return results;
}

// Calls use(record, its description), with as much of the record as a listing needs.
template <class Use>
void lookAt(const Address& address, bool unlocked, Use use) {
    const RecordHead head = RecordHead::read(address);
    if (unlocked && head.hasSecrets()) {
        Record record = readUnasked(head);
        record.decrypt();
        use(record, infoOf(record));
    } else {
        use(head, infoOf(head));
    }
}

// The digests of all keys, in whatever folder. Of those that are known only the ones are read whose
// digest is encrypted.
std::set<std::string> keysOf(Database& database, bool unlocked) {
    std::set<std::string> keys;
    Unread elsewhere;  // reported when it is listed
    const auto ask = [&](Lookup& lookup) -> Lookup::Addresses {
        auto known = lookup.keys();
        if (!known) {
            return std::nullopt;
        }
        keys = std::move(*known);
        return lookup.unsure(unlocked);
    };
    const auto toRead = knownOrAll(ask, [&] { return allRecords(&elsewhere); });
    auto parts = readSideBySide(database, toRead, [unlocked](Addresses addresses) {
        std::set<std::string> found;
        for (const Address& address : addresses) {
            try {
                lookAt(address, unlocked, [&](const auto&, const RecordInfo& info) {
                    if (info.kind == Kind::kKey && !info.keySha256.empty()) {
                        found.insert(info.keySha256);
                    }
                });
            } catch (const Failure&) {
                // reported when it is listed
            }
        }
        return found;
    });
    for (auto& part : parts) {
        keys.merge(part);
    }
    return keys;
}

void sort(std::vector<RecordInfo>& records, FindRules::Order order) {
    const auto isBefore = [order](const auto& a, const auto& b) {
        switch (order) {
            case FindRules::Order::kExpiry:
                return a.notAfter.value_or(kNever) < b.notAfter.value_or(kNever);
            case FindRules::Order::kSubject:
                return a.subject < b.subject;
            case FindRules::Order::kName:
                break;
        }
        return a.address < b.address;
    };
    if (!std::is_sorted(records.begin(), records.end(), isBefore)) {  // by name it mostly is
        std::stable_sort(records.begin(), records.end(), isBefore);
    }
}

Listing readPart(Addresses addresses, const Filter& filter, bool unlocked) {
    Listing listing;
    for (const Address& address : addresses) {
        try {
            lookAt(address, unlocked, [&](const auto& record, RecordInfo info) {
                if (filter.matches(record, info)) {
                    listing.records.push_back(std::move(info));
                } else if (filter.mayMatch(record, info)) {
                    listing.undated.push_back(address);
                }
            });
        } catch (const TooLarge& failure) {
            listing.unread.push_back(failure);
        } catch (const Failure& failure) {
            listing.damaged.emplace_back(address, failure);
        }
    }
    return listing;
}

}  // namespace

bool Listing::hasDamage() const {
    return std::ranges::any_of(damaged, [](const auto& each) { return !each.second.isDenied(); });
}

Listing findRecords(Database& database, const FindRules& rules) {
    const bool unlocked = rules.secrets;
    Filter filter(rules.filters, now());
    if (filter.needsKeys()) {
        filter.setKeys(keysOf(database, unlocked));
    }
    Listing listing;
    const auto read = [&filter, unlocked](Addresses addresses) {
        return readPart(addresses, filter, unlocked);
    };
    auto parts = readSideBySide(database, candidatesOf(rules, filter, listing.unread), read);
    for (Listing& part : parts) {
        std::ranges::move(part.records, std::back_inserter(listing.records));
        std::ranges::move(part.damaged, std::back_inserter(listing.damaged));
        std::ranges::move(part.unread, std::back_inserter(listing.unread));
        std::ranges::move(part.undated, std::back_inserter(listing.undated));
    }
    sort(listing.records, rules.order);
    return listing;
}

}  // namespace fstore
