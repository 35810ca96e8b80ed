// fstore rm: removes records.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "format/layout.h"
#include "fstore/commands/change.h"
#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"

namespace fstore {
namespace {

struct Options {
    std::vector<std::string> addresses;
    bool force = false;
};

// A key is gone for good, unless there is a backup; so is what was encrypted for it.
bool isKey(const Address& address) {
    if (layout::kKeys.holds(address.folder)) {
        return true;
    }
    try {
        return infoOf(RecordHead::read(address)).kind == Kind::kKey;
    } catch (const Failure&) {
        return false;  // a damaged record elsewhere
    }
}

// The records that are meant, each once. Throws when one is not there: nothing has
// been removed then.
std::vector<Address> resolveAll(const Options& options) {
    std::vector<Address> found;
    for (const std::string& text : options.addresses) {
        Address address = resolve(text);
        refuseInternal(address);
        if (std::ranges::find(found, address) == found.end()) {
            found.push_back(std::move(address));
        }
    }
    return found;
}

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

Json removeRecord(const Address& address, BodyOwners& owners, Output& output) {
    const std::optional<std::string> doubt = Record(address).remove(owners);
    if (doubt) {
        output.warn(fmt::format("removed {}; its body file stays: it {}", address.print(), *doubt));
    } else {
        output.detail(fmt::format("removed {}", address.print()));
    }
    return {
        {"address", jsonText(address.print())}, {"removed", true}, {"bodyKept", doubt.has_value()}};
}

Status run(const Options& options, Context& context) {
    if (!options.force) {
        // Others may read while the user thinks.
        const Hold hold = context.database.enter(Access::kRead);
        confirmKeys(resolveAll(options), context.globals);
    }
    const Hold hold = context.database.enter(Access::kChange);
    const std::vector<Address> addresses = resolveAll(options);
    Json records = Json::array();
    std::vector<Failure> failures;
    BodyOwners owners;
    for (const Address& address : addresses) {
        try {
            records.push_back(removeRecord(address, owners, context.output));
        } catch (const Failure& failure) {
            records.push_back(failureToJson(address.print(), failure));
            failures.push_back(failure);
        }
    }
    if (failures.size() == addresses.size()) {
        throw Failure(failures.front());
    }
    for (const Failure& failure : failures) {
        context.output.warn(failure.what());
    }
    context.output.document({{"records", records}});
    return failures.empty() ? kOk : kPartial;
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
