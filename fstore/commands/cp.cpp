// fstore cp: a second record with the contents of one.
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

struct CpOptions {
    std::string from;
    std::string to;
};

Status runCp(const CpOptions& options, Context& context) {
    const Address to = parseNewAddress(options.to);
    refuseInternal(to);
    return changeNamed(context.database, namesForRenaming(options.from, to), [&] {
        refusePattern(to);
        const std::string from = copyRecord(context.database, options.from, to).print();
        context.output.note(fmt::format("copied {} to {}", from, to.print()));
        if (context.output.json()) {
            context.output.document(
                {{"records", Json::array({toJson(infoOf(RecordHead::read(to)))})},
                 {"from", jsonText(from)}});
        }
        return kOk;
    });
}

}  // namespace

void addCp(Cli& cli) {
    const auto options = std::make_shared<CpOptions>();
    Command& command = cli.add("cp", "Make a second record with the contents of one",
                               [options](Context& context) { return runCp(*options, context); });
    addAddress(command, &options->from);
    command.argument("NEW", &options->to, "FOLDER/NAME, which must not exist yet");
}

}  // namespace fstore
