// fstore prune: removes certificates and CRLs that have expired and been renewed.
#include <algorithm>
#include <memory>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/record_json.h"
#include "lib/base/time.h"
#include "lib/work/remove.h"
#include "lib/work/successors.h"

namespace fstore {
namespace {

struct PruneOptions {
    bool yes = false;
};

std::vector<Address> addressesOf(const Prunable& prunable) {
    std::vector<Address> addresses;
    addresses.reserve(prunable.records.size());
    for (const RecordInfo& info : prunable.records) {
        addresses.push_back(info.address);
    }
    return addresses;
}

void warnOfUnread(const Prunable& prunable, Output& output) {
    for (const Failure& failure : prunable.leftOut) {
        output.warn(fmt::format("left out: {}", failure.what()));
    }
}

Status list(const Prunable& prunable, Output& output) {
    Json records = Json::array();
    for (const RecordInfo& info : prunable.records) {
        records.push_back(toJson(info));
        output.sentence(info.address.print(), Style::kPlain,
                        fmt::format(": expired {}, and superseded", printTime(*info.notAfter)));
    }
    output.summary(prunable.records.empty()
                       ? "nothing to remove: nothing has expired and is superseded"
                       : fmt::format("{} can be removed; --yes does it", prunable.records.size()));
    output.document({{"records", std::move(records)}, {"removed", false}});
    return prunable.leftOut.empty() ? kOk : kPartial;
}

Status remove(const Prunable& prunable, Output& output) {
    Json records = Json::array();
    bool isWhole = prunable.leftOut.empty();
    for (const Removal& removal : removeRecords(addressesOf(prunable))) {
        const std::string address = removal.address.print();
        if (removal.failure) {
            isWhole = false;
            output.warn(removal.failure->what());
            records.push_back(failureToJson(address, *removal.failure));
            continue;
        }
        if (removal.bodyKept) {
            output.warn(
                fmt::format("removed {}; its body file stays: it {}", address, *removal.bodyKept));
        } else {
            output.note(fmt::format("removed {}", address));
        }
        records.push_back({{"address", jsonText(address)},
                           {"removed", true},
                           {"bodyKept", removal.bodyKept.has_value()}});
    }
    output.document({{"records", std::move(records)}, {"removed", true}});
    return isWhole ? kOk : kPartial;
}

Status runPrune(const PruneOptions& options, Context& context) {
    return withSecrets(context.database, options.yes ? Access::kChange : Access::kRead, [&] {
        const Prunable prunable = findPrunable(context.database);
        warnOfUnread(prunable, context.output);
        return options.yes ? remove(prunable, context.output) : list(prunable, context.output);
    });
}

}  // namespace

void addPrune(Cli& cli) {
    const auto options = std::make_shared<PruneOptions>();
    Command& command =
        cli.add("prune", "List or remove certificates and CRLs that expired and were renewed",
                [options](Context& context) { return runPrune(*options, context); });
    command.flag("--yes", &options->yes, "Remove them");
}

}  // namespace fstore
