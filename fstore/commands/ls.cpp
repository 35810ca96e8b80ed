// fstore ls: the records of the database or of one folder, with their expiry.
#include <algorithm>
#include <future>
#include <iterator>
#include <limits>
#include <memory>
#include <span>
#include <thread>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/base/time.h"
#include "lib/records/catalogue.h"
#include "lib/records/filter.h"
#include "lib/records/record_head.h"
#include "lib/records/record_info.h"

namespace fstore {
namespace {

enum class Order { kName, kExpiry, kSubject };

constexpr std::int64_t kDay = 24 * std::int64_t{60} * 60;
constexpr std::int64_t kSoon = 30 * kDay;
constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

struct Options {
    std::optional<std::string> folder;
    Filters filters;
    Order order = Order::kName;
    bool failOnMatch = false;
    bool unlock = false;
};

// What a listing found, in its order.
struct Listing {
    std::vector<RecordInfo> records;
    std::vector<std::pair<Address, Failure>> damaged;  // or not allowed to be read
    std::vector<Address> undated;                      // Filter::mayMatch()
    Unread unread;  // folders, and records that are too large to be looked at
};

std::vector<Address> addressesOf(const Options& options, Unread& unread) {
    if (!options.folder) {
        return allRecords(&unread);
    }
    const std::string folder = parseFolder(*options.folder);
    std::vector<Address> found;
    for (const std::string& each : allFolders(&unread)) {
        if (folder.empty() || each == folder || each.starts_with(folder + "/")) {
            const auto inside = recordsIn(each);
            found.insert(found.end(), inside.begin(), inside.end());
        }
    }
    requireFolder(folder);
    return found;
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

// The digests of all keys, in whatever folder.
std::set<std::string> keysOf(Database& database) {
    const bool unlocked = database.isOpen();
    std::set<std::string> keys;
    Unread elsewhere;  // told about when it is listed
    auto parts = readSideBySide(database, allRecords(&elsewhere), [unlocked](Addresses addresses) {
        std::set<std::string> found;
        for (const Address& address : addresses) {
            try {
                lookAt(address, unlocked, [&](const auto&, const RecordInfo& info) {
                    if (info.kind == Kind::kKey && !info.keySha256.empty()) {
                        found.insert(info.keySha256);
                    }
                });
            } catch (const Failure&) {
                // told about when it is its turn to be listed
            }
        }
        return found;
    });
    for (auto& part : parts) {
        keys.merge(part);
    }
    return keys;
}

void sort(std::vector<RecordInfo>& records, Order order) {
    const auto isBefore = [order](const auto& a, const auto& b) {
        switch (order) {
            case Order::kExpiry:
                return a.notAfter.value_or(kNever) < b.notAfter.value_or(kNever);
            case Order::kSubject:
                return a.subject < b.subject;
            case Order::kName:
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

Listing list(const Options& options, Database& database) {
    const bool unlocked = database.isOpen();
    Filter filter(options.filters, now());
    if (filter.needsKeys()) {
        filter.setKeys(keysOf(database));
    }
    Listing listing;
    const auto read = [&filter, unlocked](Addresses addresses) {
        return readPart(addresses, filter, unlocked);
    };
    auto parts = readSideBySide(database, addressesOf(options, listing.unread), read);
    for (Listing& part : parts) {
        std::ranges::move(part.records, std::back_inserter(listing.records));
        std::ranges::move(part.damaged, std::back_inserter(listing.damaged));
        std::ranges::move(part.unread, std::back_inserter(listing.unread));
        std::ranges::move(part.undated, std::back_inserter(listing.undated));
    }
    sort(listing.records, options.order);
    return listing;
}

Cell expiryCell(const RecordInfo& info, std::int64_t at) {
    if (!info.notAfter) {
        return {};
    }
    const std::string day = printTime(*info.notAfter).substr(0, 10);
    const std::int64_t left = *info.notAfter - at;
    if (left < 0) {
        return {day + " expired", Style::kRed};
    }
    if (left < kSoon) {
        return {fmt::format("{} in {} d", day, left / kDay), Style::kYellow};
    }
    return {day};
}

void print(const Listing& listing, Output& output) {
    Table table({{"ADDRESS", false},
                 {"KIND", false},
                 {"EXPIRES", false},
                 {"KEY", false},
                 {"SUBJECT", true},
                 {"LABEL", true}});
    const std::int64_t at = now();
    for (const RecordInfo& info : listing.records) {
        const bool secret = info.bodyEncrypted;
        table.add({{info.address.print()},
                   {nameOf(info.kind) + std::string(secret ? ", encrypted" : ""), Style::kDim},
                   expiryCell(info, at),
                   {info.keyAlgorithm},
                   {info.subject},
                   {info.label}});
    }
    for (const auto& [address, failure] : listing.damaged) {
        const Cell what =
            failure.isDenied() ? Cell{"unreadable", Style::kYellow} : Cell{"damaged", Style::kRed};
        table.add({{address.print()}, what, {}, {}, {}, {}});
    }
    if (!table.empty()) {
        output.table(table);
    }
    for (const auto& [address, failure] : listing.damaged) {
        output.warn(failure.what());
    }
    for (const Failure& failure : listing.unread) {
        output.warn(failure.what());
    }
}

Json toDocument(const Listing& listing) {
    Json records = Json::array();
    for (const RecordInfo& info : listing.records) {
        records.push_back(toJson(info));
    }
    for (const auto& [address, failure] : listing.damaged) {
        records.push_back(failureToJson(address.print(), failure));
    }
    Json undated = Json::array();
    for (const Address& address : listing.undated) {
        undated.push_back(jsonText(address.print()));
    }
    Json unread = Json::array();
    for (const Failure& failure : listing.unread) {
        unread.push_back({{"path", jsonText(failure.path())}, {"error", errorToJson(failure)}});
    }
    return {{"records", std::move(records)},
            {"undated", std::move(undated)},
            {"unread", std::move(unread)}};
}

// An alarm that could not look rings.
Status statusOf(const Listing& listing, bool failOnMatch) {
    const auto isDamaged = [](const auto& entry) { return !entry.second.isDenied(); };
    const bool complete = listing.damaged.empty() && listing.unread.empty();
    if ((failOnMatch && !(listing.records.empty() && listing.undated.empty() && complete)) ||
        std::ranges::any_of(listing.damaged, isDamaged)) {
        return kFound;
    }
    return complete ? kOk : kPartial;
}

Status run(const Options& options, Context& context) {
    (void)Filter(options.filters, now());  // what cannot be read is told before anything is asked
    const Hold hold = context.database.enter(Access::kRead, needFor(options.unlock));
    const Listing listing = list(options, context.database);
    if (context.output.json()) {
        context.output.document(toDocument(listing));
    } else {
        print(listing, context.output);
    }
    if (!listing.undated.empty()) {
        context.output.warn(fmt::format(
            "when {} of the records expire could not be read{}", listing.undated.size(),
            context.database.isOpen() ? "; see `fstore check --deep`"
                                      : ", since it is encrypted: add --unlock, and the password"));
    }
    return statusOf(listing, options.failOnMatch);
}

}  // namespace

void addLs(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command = cli.add("ls", "List records and when they expire",
                               [options](Context& context) { return run(*options, context); });
    command.argument("FOLDER", &options->folder, "This folder and its subfolders only").required =
        false;
    command.option(
        "--sort", "ORDER",
        Choice(&options->order,
               {{"name", Order::kName}, {"expiry", Order::kExpiry}, {"subject", Order::kSubject}}),
        "By name, expiry or subject");
    command.flag("--fail", &options->failOnMatch, "Exit with 3 if a record is listed, for cron");
    command.flag("-u,--unlock", &options->unlock,
                 "Take the password, and look at encrypted parts too");
    addFilters(command, options->filters);
}

}  // namespace fstore
