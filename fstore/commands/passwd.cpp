// fstore passwd: another password for the database.
#include <memory>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/terminal/json.h"
#include "lib/database/lost.h"

namespace fstore {
namespace {

struct Options {
    PasswordOptions password;
    bool keepOld = false;
    unsigned int cost = Slot::kDefaultLn;
};

Status run(const Options& options, Context& context) {
    PasswordSource fresh(PasswordSource::Which::kNew, options.password, context.globals.noInput,
                         context.output, context.standardInput);
    Database& database = context.database;
    // A mistake in the old one shows before the new one is asked for.
    (void)database.enter(Access::kRead, Need::kSecrets);
    NewSlot slot = makeSlot(fresh.get(PasswordSource::Entry::kTwice), options.cost);
    const Hold hold = database.enter(Access::kChange, Need::kSecrets);
    database.changePassword(std::move(slot), options.keepOld);
    context.output.note("password changed");
    for (const LostFolder& lost : lostFolders()) {
        context.output.warn(describe(lost));
    }
    context.output.document({{"folder", jsonText(database.place().folder)},
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
                 "Keep the old database, with the old password, as ./db-<time>");
    addCost(command, &options->cost);
}

}  // namespace fstore
