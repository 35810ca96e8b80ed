// fstore passwd: another password for the database.
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/password_change.h"
#include "fstore/terminal/json.h"

namespace fstore {
namespace {

struct Options {
    PasswordOptions password;
    bool keepOld = false;
    unsigned int cost = Slot::kDefaultLn;
};

Status run(const Options& options, Context& context) {
    Session& session = context.session;
    PasswordSource fresh(PasswordSource::Which::kNew, options.password, context.globals.noInput,
                         context.output);
    if (fresh.usesStandardInput() && context.password.usesStandardInput()) {
        throw Failure(kUsage, "the standard input cannot be both the old and the new password");
    }
    session.open(Access::kRead);  // a mistake in the old one shows before the new one is asked for
    session.release();
    NewSlot slot = makeSlot(fresh.get(PasswordSource::Entry::kTwice), options.cost);
    session.open(Access::kChange);
    changePassword(session, std::move(slot), options.keepOld);
    context.output.note(
        fmt::format("the database in {} has another password now{}", session.folder(),
                    options.keepOld ? "; ./old_db still opens with the one before" : ""));
    context.output.document({{"folder", jsonText(session.folderName())},
                             {"changed", true},
                             {"keptOld", options.keepOld}});
    return kOk;
}

}  // namespace

void addPasswd(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command = cli.add("passwd", "Change the password of the database",
                               [options](Context& context) { return run(*options, context); });
    addPassword(command, "--new-password", "the new password", options->password);
    command.flag("--keep-old", &options->keepOld,
                 "Leave the database as it was, with the old password, in ./old_db");
    addCost(command, &options->cost);
}

}  // namespace fstore
