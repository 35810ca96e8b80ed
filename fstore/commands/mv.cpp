// fstore mv: another name or folder for a record.
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/records/record_head.h"
#include "lib/records/record_info.h"
#include "lib/work/change.h"
#include "lib/work/meant.h"
#include "lib/work/rename.h"

namespace fstore {
namespace {

struct MvOptions {
    std::string from;
    std::string to;
};

void report(const Renaming& renaming, const Address& to, Output& output) {
    const std::string from = renaming.from.print();
    if (renaming.bodyKept) {
        output.warn(
            fmt::format("renamed {}; its old body file stays: it {}", from, *renaming.bodyKept));
    }
    output.note(fmt::format("renamed {} to {}", from, to.print()));
    if (output.json()) {
        output.document({{"records", Json::array({toJson(infoOf(RecordHead::read(to)))})},
                         {"from", jsonText(from)},
                         {"bodyKept", renaming.bodyKept.has_value()}});
    }
}

Status runMv(const MvOptions& options, Context& context) {
    const Address to = parseNewAddress(options.to);
    refuseInternal(to);
    return changeNamed(context.database, namesForRenaming(options.from, to), [&] {
        refusePattern(to);
        report(renameRecord(context.database, options.from, to), to, context.output);
        return kOk;
    });
}

}  // namespace

void addMv(Cli& cli) {
    const auto options = std::make_shared<MvOptions>();
    Command& command = cli.add("mv", "Rename a record, or move it to another folder",
                               [options](Context& context) { return runMv(*options, context); });
    addAddress(command, &options->from);
    command.argument("NEW", &options->to, "FOLDER/NAME, which must not exist yet");
}

}  // namespace fstore
