// fstore rm: removes records.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/work/meant.h"
#include "lib/work/remove.h"

namespace fstore {
namespace {

struct Options {
    std::vector<std::string> addresses;
    bool force = false;
};

void confirmKeys(const std::vector<Address>& addresses, const Globals& globals) {
    for (const Address& address : addresses) {
        if (isKey(address) &&
            !confirm(fmt::format("Remove the key {}?", address.print()), globals.noInput)) {
            throw Failure(kUsage,
                          fmt::format("{} is a key and you did not confirm; nothing was removed "
                                      "(--force does not ask)",
                                      address.print()),
                          address.print());
        }
    }
}

Json describe(const Removal& removal, Output& output) {
    const std::string address = removal.address.print();
    if (removal.failure) {
        return failureToJson(address, *removal.failure);
    }
    if (removal.bodyKept) {
        output.warn(
            fmt::format("removed {}; its body file stays: it {}", address, *removal.bodyKept));
    } else {
        output.detail(fmt::format("removed {}", address));
    }
    return {{"address", jsonText(address)},
            {"removed", true},
            {"bodyKept", removal.bodyKept.has_value()}};
}

Status report(const std::vector<Removal>& removals, Output& output) {
    const auto failed = [](const Removal& removal) { return removal.failure.has_value(); };
    Json records = Json::array();
    for (const Removal& removal : removals) {
        records.push_back(describe(removal, output));
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

// Also those who remove nothing but what matches shall have seen what that is.
void confirmAll(const std::vector<std::string>& addresses, Context& context) {
    for (const Address& address : resolveAll(addresses)) {
        context.output.note(fmt::format("{}{}", address.print(), isKey(address) ? ", a key" : ""));
    }
    const std::string question = addresses.size() == 1
                                     ? std::string("Remove this record?")
                                     : fmt::format("Remove these {} records?", addresses.size());
    if (!confirm(question, context.globals.noInput)) {
        throw Failure(kUsage, "you did not confirm; nothing was removed (--force does not ask)");
    }
}

// The records to remove, when patterns stand for some. Others may read while the user thinks.
std::vector<std::string> matching(const Options& options, Context& context) {
    const Hold hold = context.database.enter(Access::kRead);
    std::vector<std::string> addresses = withoutPatterns(options.addresses);
    if (!options.force && addresses != options.addresses) {
        confirmAll(addresses, context);
    } else if (!options.force) {
        confirmKeys(resolveAll(addresses), context.globals);
    }
    return addresses;
}

Status run(const Options& options, Context& context) {
    std::vector<std::string> addresses = options.addresses;
    if (std::ranges::any_of(addresses, isPattern)) {
        addresses = matching(options, context);
    } else if (!options.force) {
        readNamed(context.database, addresses,
                  [&] { confirmKeys(resolveAll(addresses), context.globals); });
    }
    const std::vector<AddressText> named = namesIn(addresses);
    const Hold hold = context.database.enter(accessToChange(named), Need::kRecords, named);
    return report(removeRecords(resolveAll(addresses)), context.output);
}

}  // namespace

void addRm(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command = cli.add("rm", "Remove records",
                               [options](Context& context) { return run(*options, context); });
    addAddresses(command, &options->addresses);
    command.flag("-f,--force", &options->force,
                 "Do not ask before a key, or what matches a pattern, is removed");
}

}  // namespace fstore
