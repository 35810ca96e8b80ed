// fstore mkdir: folders for records.
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "lib/work/make_folder.h"

namespace fstore {
namespace {

struct MkdirOptions {
    std::vector<std::string> folders;
    bool parents = false;
};

Status runMkdir(const MkdirOptions& options, Context& context) {
    const Hold hold = context.database.enter(Access::kChange);
    Json made = Json::array();
    for (const std::string& folder : options.folders) {
        makeFolder(folder, options.parents);
        const std::string name = parseFolder(folder);
        context.output.detail(fmt::format("made the folder {}", name));
        made.push_back(jsonText(name));
    }
    context.output.document({{"folders", made}});
    return kOk;
}

}  // namespace

void addMkdir(Cli& cli) {
    const auto options = std::make_shared<MkdirOptions>();
    Command& command = cli.add("mkdir", "Make folders for records",
                               [options](Context& context) { return runMkdir(*options, context); });
    command.argument("FOLDER", &options->folders, "The folder below \"db\"");
    command.flag("-p,--parents", &options->parents,
                 "Make those above it, too; one that is there is no failure");
}

}  // namespace fstore
