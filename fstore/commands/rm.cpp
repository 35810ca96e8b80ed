// fstore rm: removes records.
#include <algorithm>
#include <iterator>
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/work/meant.h"
#include "lib/work/remove.h"

namespace fstore {
namespace {

struct RmOptions {
    std::vector<std::string> addresses;
    bool force = false;
};

void confirmKeys(const std::vector<Address>& keys, const Globals& globals) {
    for (const Address& address : keys) {
        if (!confirm(fmt::format("Remove the key {}?", address.print()), globals.noInput)) {
            throw Failure(kInvalid,
                          fmt::format("{} is a key and you did not confirm; nothing was removed "
                                      "(--force does not ask)",
                                      address.print()),
                          address.print());
        }
    }
}

// What a pattern stood for is told, what was named is not.
Json describe(const Removal& removal, bool isMatch, Output& output) {
    const std::string address = removal.address.print();
    if (removal.failure) {
        return failureToJson(address, *removal.failure);
    }
    if (removal.bodyKept) {
        output.warn(
            fmt::format("removed {}; its body file stays: it {}", address, *removal.bodyKept));
    } else if (isMatch) {
        output.note(fmt::format("removed {}", address));
    } else {
        output.detail(fmt::format("removed {}", address));
    }
    return {{"address", jsonText(address)},
            {"removed", true},
            {"bodyKept", removal.bodyKept.has_value()}};
}

Status report(const std::vector<Removal>& removals, bool isMatch, Output& output) {
    const auto failed = [](const Removal& removal) { return removal.failure.has_value(); };
    Json records = Json::array();
    for (const Removal& removal : removals) {
        records.push_back(describe(removal, isMatch, output));
    }
    if (std::ranges::all_of(removals, failed)) {
        throw Failure(*removals.front().failure);
    }
    for (const Removal& removal : removals) {
        if (removal.failure) {
            output.warn(removal.failure->what());
        }
    }
    output.document({{"records", records}});
    return std::ranges::any_of(removals, failed) ? kPartial : kOk;
}

// What a question names; there may be a million.
std::string listOf(const std::vector<Address>& addresses, const char* between) {
    constexpr std::size_t kMost = 100;
    std::string list;
    for (std::size_t i = 0; i < addresses.size() && i < kMost; ++i) {
        list += addresses[i].print() + between;
    }
    if (addresses.size() > kMost) {
        list += fmt::format("and {} more{}", addresses.size() - kMost, between);
    }
    return list;
}

void confirmAll(const std::vector<Address>& addresses, const Globals& globals) {
    const std::string question = addresses.size() == 1
                                     ? std::string("Remove this record?")
                                     : fmt::format("Remove these {} records?", addresses.size());
    if (!confirm(listOf(addresses, "\n") + question, globals.noInput)) {
        throw Failure(kInvalid,
                      fmt::format("what matches is {}and you did not confirm; nothing was removed "
                                  "(--force does not ask)",
                                  listOf(addresses, ", ")));
    }
}

// What the command line means now. Nothing is locked afterwards, while the user thinks: what is
// removed is looked up again.
struct Meant {
    std::vector<std::string> addresses;  // without patterns
    std::vector<Address> records;
    std::vector<Address> keys;
    bool isMatch = false;
};

Meant lookUp(const std::vector<std::string>& texts, Database& database) {
    Meant meant;
    const auto find = [&] {
        meant.addresses = withoutPatterns(texts);
        meant.isMatch = meant.addresses != texts;
        meant.records = resolveAll(meant.addresses);
        meant.keys.clear();
        std::ranges::copy_if(meant.records, std::back_inserter(meant.keys), isKey);
    };
    if (std::ranges::any_of(texts, isPattern)) {
        const Hold hold = database.enter(Access::kRead);
        find();
    } else {
        readNamed(database, texts, find);
    }
    return meant;
}

Status runRm(const RmOptions& options, Context& context) {
    std::vector<std::string> addresses = options.addresses;
    bool isMatch = false;
    if (!options.force || std::ranges::any_of(addresses, isPattern)) {
        const Meant meant = lookUp(addresses, context.database);
        addresses = meant.addresses;
        isMatch = meant.isMatch;
        if (!options.force && isMatch) {
            confirmAll(meant.records, context.globals);
        } else if (!options.force) {
            confirmKeys(meant.keys, context.globals);
        }
    }
    const std::vector<AddressText> named = namesIn(addresses);
    const Hold hold = context.database.enter(accessToChange(named), Need::kRecords, named);
    return report(removeRecords(resolveAll(addresses)), isMatch, context.output);
}

}  // namespace

void addRm(Cli& cli) {
    const auto options = std::make_shared<RmOptions>();
    Command& command = cli.add("rm", "Remove records",
                               [options](Context& context) { return runRm(*options, context); });
    addAddresses(command, &options->addresses);
    command.flag("-f,--force", &options->force,
                 "Do not ask before a key, or what matches a pattern, is removed");
}

}  // namespace fstore
