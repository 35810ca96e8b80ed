#include "lib/work/find.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <future>
#include <iterator>
#include <limits>
#include <set>
#include <span>
#include <thread>

#include <fmt/format.h>

#include "lib/base/name_list.h"
#include "lib/base/observer.h"
#include "lib/base/time.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"

namespace fstore {
namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

using Addresses = std::span<const Address>;
using PageUser = std::function<void(Addresses)>;

constexpr const char* kReading = "Reading";

// So many are read, and forgotten, before the next ones.
constexpr std::size_t kPage = 4096;

// Collects addresses, and uses them page by page.
class Pages {
public:
    explicit Pages(const PageUser& use) : use_(use) { page_.reserve(kPage); }

    void add(const Address& address) {
        page_.push_back(address);
        if (page_.size() == kPage) {
            finish();
        }
    }
    void finish() {
        use_(page_);
        page_.clear();
    }

private:
    const PageUser& use_;
    std::vector<Address> page_;
};

// Those that are in this folder and in the folders in it, which is there.
std::vector<std::string> foldersIn(const std::string& folder, Unread& unread) {
    std::vector<std::string> found = knownFolders(&unread);
    std::erase_if(found, [&](const std::string& each) {
        return !folder.empty() && each != folder && !each.starts_with(folder + "/");
    });
    requireFolder(folder);
    return found;
}

void visitAll(const std::optional<std::string>& within, Unread& unread, const PageUser& use) {
    Pages pages(use);
    if (!within) {
        const auto take = [&](const Address& address) {
            pages.add(address);
            return true;
        };
        visitRecords(take, &unread);
    } else {
        for (const std::string& folder : foldersIn(parseFolder(*within), unread)) {
            const NameList names = recordNamesIn(folder);
            for (std::size_t i = 0; i < names.size(); ++i) {
                pages.add({folder, std::string(names[i])});
            }
        }
    }
    pages.finish();
}

std::size_t countAll(const std::optional<std::string>& within) {
    std::size_t count = 0;
    Unread unread;  // told when they are visited
    visitAll(within, unread, [&](Addresses page) { count += page.size(); });
    return count;
}

void visitPages(Addresses all, const PageUser& use) {
    for (std::size_t from = 0; from < all.size(); from += kPage) {
        use(all.subspan(from, std::min(kPage, all.size() - from)));
    }
}

void visitPages(const AddressList& all, const PageUser& use) {
    Pages pages(use);
    all.visit([&](const Address& address) { pages.add(address); });
    pages.finish();
}

// Is told how many there will be.
using CountUser = std::function<void(std::size_t)>;

// What ask(lookup) answers, or all that there are.
template <class Ask>
void visitKnownOrAll(Ask ask, const std::optional<std::string>& within, Unread& unread,
                     const CountUser& begin, const PageUser& use) {
    Lookup* const lookup = Lookup::current();
    auto known = lookup != nullptr ? ask(*lookup) : std::nullopt;
    std::optional<std::size_t> count;
    if (!known) {
        count = countAll(within);
        if (lookup != nullptr && lookup->offer(*count)) {
            known = ask(*lookup);
        }
    }
    if (known) {
        begin(known->size());
        visitPages(*known, use);
    } else {
        begin(*count);
        visitAll(within, unread, use);
    }
}

// Those that may pass, where that is known.
void visitCandidates(const FindRules& rules, const Filter& filter, Unread& unread,
                     const CountUser& begin, const PageUser& use) {
    const std::string folder = rules.folder ? parseFolder(*rules.folder) : std::string();
    // With the folder of "db" itself its internal records are listed, which nobody looks up.
    const bool hasInternal = rules.folder && folder.empty();
    if (filter.takesAll() || hasInternal) {
        begin(countAll(rules.folder));
        visitAll(rules.folder, unread, use);
        return;
    }
    requireFolder(folder);
    visitKnownOrAll([&](Lookup& lookup) { return lookup.matching(filter, folder, rules.secrets); },
                    rules.folder, unread, begin, use);
}

// Reads a part of the addresses in each of some threads, by read(part); the results
// in order. Most of the time goes into the system's opening of files.
template <class Read>
auto readSideBySide(const Database& database, Addresses addresses, Read read) {
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
        const Addresses part = addresses.subspan(from, to - from);
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
    std::optional<Progress> progress;
    const auto begin = [&](std::size_t count) {
        progress.emplace(database.observer(), kReading, count);
    };
    const auto readPart = [&progress, unlocked](Addresses addresses) {
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
            progress->step();
        }
        return found;
    };
    visitKnownOrAll(ask, std::nullopt, elsewhere, begin, [&](Addresses page) {
        for (auto& part : readSideBySide(database, page, readPart)) {
            keys.merge(part);
        }
    });
    return keys;
}

// Whether the descriptor of a record without its body says that the filter does not mean it. Which
// keys there are is not known where one of them is damaged.
bool isRuledOut(const Address& address, const Filter& filter, bool unlocked) {
    if (filter.needsKeys()) {
        return false;
    }
    try {
        const RecordHead head = RecordHead::readWithoutBody(address);
        bool isHidden = false;
        for (unsigned int i = 0; i < head.count(); ++i) {
            isHidden = isHidden || head.isEncrypted(i);
        }
        const RecordInfo info = infoOf(head);
        return !(unlocked && isHidden) && !filter.matches(head, info) &&
               !filter.mayMatch(head, info);
    } catch (const Failure&) {
        return false;
    }
}

Listing readPart(Progress& progress, Addresses addresses, const Filter& filter, bool unlocked) {
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
            if (!isRuledOut(address, filter, unlocked)) {
                listing.damaged.emplace_back(address, failure);
            }
        }
        progress.step();
    }
    return listing;
}

template <class Element>
void append(std::vector<Element>& all, std::vector<Element>& part) {
    std::ranges::move(part, std::back_inserter(all));
}

// The bytes of greater numbers are greater.
std::string sortable(std::int64_t number) {
    constexpr std::uint64_t kSign = std::uint64_t{1} << 63;
    return fmt::format("{:016x}", static_cast<std::uint64_t>(number) ^ kSign);
}

}  // namespace

bool Missed::hasDamage() const {
    return std::ranges::any_of(damaged, [](const auto& each) { return !each.second.isDenied(); });
}

std::string orderKey(const RecordInfo& info, FindRules::Order order) {
    switch (order) {
        case FindRules::Order::kExpiry:
            return sortable(info.notAfter.value_or(kNever));
        case FindRules::Order::kSubject:
            return info.subject;
        case FindRules::Order::kName:
            break;
    }
    return info.address.folder + '\0' + info.address.name;
}

Missed visitFound(Database& database, const FindRules& rules, const RecordUser& use) {
    const bool unlocked = rules.secrets;
    Filter filter(rules.filters, now());
    if (filter.needsKeys()) {
        filter.setKeys(keysOf(database, unlocked));
    }
    Missed missed;
    std::optional<Progress> progress;
    const auto begin = [&](std::size_t count) {
        progress.emplace(database.observer(), kReading, count);
    };
    const auto read = [&](Addresses addresses) {
        return readPart(*progress, addresses, filter, unlocked);
    };
    Unread tooLarge;
    visitCandidates(rules, filter, missed.unread, begin, [&](Addresses page) {
        for (Listing& part : readSideBySide(database, page, read)) {
            std::ranges::for_each(part.records, [&](RecordInfo& info) { use(std::move(info)); });
            append(missed.damaged, part.damaged);
            append(missed.undated, part.undated);
            append(tooLarge, part.unread);
        }
    });
    append(missed.unread, tooLarge);
    return missed;
}

Listing findRecords(Database& database, const FindRules& rules) {
    Listing listing;
    static_cast<Missed&>(listing) = visitFound(
        database, rules, [&](RecordInfo info) { listing.records.push_back(std::move(info)); });
    const auto keyOf = [&](const RecordInfo& info) { return orderKey(info, rules.order); };
    if (!std::ranges::is_sorted(listing.records, {}, keyOf)) {  // by name it mostly is
        std::ranges::stable_sort(listing.records, {}, keyOf);
    }
    return listing;
}

}  // namespace fstore
