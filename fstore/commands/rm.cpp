// fstore rm: removes records.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
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

Status run(const Options& options, Context& context) {
    if (!options.force) {
        // Others may read while the user thinks.
        readNamed(context.database, options.addresses,
                  [&] { confirmKeys(resolveAll(options.addresses), context.globals); });
    }
    const std::vector<AddressText> named = namesIn(options.addresses);
    const Hold hold = context.database.enter(accessToChange(named), Need::kRecords, named);
    return report(removeRecords(resolveAll(options.addresses)), context.output);
}

}  // namespace

void addRm(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command = cli.add("rm", "Remove records",
                               [options](Context& context) { return run(*options, context); });
    addAddresses(command, &options->addresses);
    command.flag("-f,--force", &options->force, "Do not ask before a key is removed");
}

}  // namespace fstore
