// fstore init: a database with a protected password, where there is none.
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/new_recovery_key.h"
#include "fstore/terminal/json.h"
#include "lib/database/state_file.h"
#include "lib/work/create.h"
#include "lib/work/key_slots.h"

namespace fstore {
namespace {

struct InitOptions {
    RecoveryOptions recovery;
    unsigned int cost = ScryptCost::kDefaultLn;
};

// The path of "db" in this folder.
std::string databaseIn(std::string folder) {
    while (folder.ends_with('/')) {
        folder.pop_back();
    }
    return folder + "/db";
}

unsigned int addRecoverySlot(NewRecoveryKey& key, Database& database) {
    const SlotPlan plan = planSlot(database, {});
    key.handOver(sheetFor(database.place().folder, plan.db, plan.n, {}));
    const UnlockSlot added = addSlot(database, {key.secret(), {}, {}});
    key.confirmSlot();
    return added.n;
}

Status runInit(const InitOptions& options, Context& context) {
    std::optional<NewRecoveryKey> recovery;
    if (options.recovery.wanted) {
        recovery.emplace(options.recovery.sheet, context);
    }
    Database& database = context.database;
    const auto password = [&]() -> const SecretText& {
        return context.secret.passwordOnly().get(PasswordSource::Entry::kTwice);
    };
    const bool created = createDatabase(database, options.cost, password);
    if (created) {
        (void)forgetState(database.place());  // of a database that was here before
    } else {
        (void)database.enter(Access::kChange, Need::kSecrets);  // with this password
    }
    context.output.note(fmt::format(
        "{} {}", created ? "created a database in" : "already initialised with this password:",
        databaseIn(database.place().folder)));
    Json json = {{"folder", jsonText(database.place().folder)}, {"created", created}};
    if (recovery) {
        const unsigned int n = addRecoverySlot(*recovery, database);
        context.output.note(fmt::format("added a recovery key, slot {}", n));
        json["recovery"] = n;
    } else if (created) {
        context.output.note("add a recovery key with `fstore key add --recovery`");
    }
    context.output.document(std::move(json));
    return kOk;
}

}  // namespace

void addInit(Cli& cli) {
    const auto options = std::make_shared<InitOptions>();
    Command& command = cli.add("init", "Create a database and set its password",
                               [options](Context& context) { return runInit(*options, context); });
    addCost(command, &options->cost);
    (void)addRecovery(command, "Add a recovery key as well", options->recovery);
}

}  // namespace fstore
