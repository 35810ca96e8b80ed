// fstore init: a database with a protected password, where there is none.
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/terminal/json.h"
#include "lib/records/catalogue.h"

namespace fstore {
namespace {

struct Options {
    unsigned int cost = Slot::kDefaultLn;
};

void refuseUnless(bool accepted, const Place& place, const std::string& why) {
    if (!accepted) {
        throw Failure(kInvalid, fmt::format("the database in {} {}", place.describe(), why),
                      place.folder);
    }
}

// Whether the database that was entered has yet to be given its password.
bool lacksPassword(const Database& database) {
    const Slot::Form form = database.protection().inForce.form;
    refuseUnless(form != Slot::Form::kRaw, database.place(),
                 "has a password that is cheap to guess; protect it with `fstore passwd`");
    if (form == Slot::Form::kScrypt) {
        return false;
    }
    const std::size_t records = allRecords().size();
    refuseUnless(
        records == 0, database.place(),
        fmt::format("holds {} records and has no password; set one with `fstore passwd`", records));
    return true;
}

bool isThere(Database& database) {
    try {
        (void)database.enter(Access::kRead, Need::kFiles);
        return true;
    } catch (const Failure& failure) {
        if (failure.status() != kMissing) {
            throw;
        }
        return false;
    }
}

// False when the database has its password already, or has got one while this one was asked
// for. Nothing is created before there is a password: what is left after a failure would be a
// database without one.
bool initialise(const Options& options, PasswordSource& password, Database& database) {
    std::optional<NewSlot> fresh;
    for (;;) {
        if (fresh || isThere(database)) {
            const Hold hold = database.enter(Access::kChange, Need::kDatabase);
            if (!lacksPassword(database)) {
                return false;
            }
            if (fresh) {
                database.changePassword(std::move(*fresh), /*keepOld=*/false);
                return true;
            }
        }
        fresh = makeSlot(password.get(PasswordSource::Entry::kTwice), options.cost);
    }
}

// The path of "db" in this folder.
std::string databaseIn(std::string folder) {
    while (folder.ends_with('/')) {
        folder.pop_back();
    }
    return folder + "/db";
}

Status run(const Options& options, Context& context) {
    Database& database = context.database;
    const bool created = initialise(options, context.password, database);
    if (!created) {
        (void)database.enter(Access::kChange, Need::kSecrets);  // with this password
    }
    context.output.note(fmt::format(
        "{} {}", created ? "created a database in" : "already initialised with this password:",
        databaseIn(database.place().folder)));
    context.output.document({{"folder", jsonText(database.place().folder)}, {"created", created}});
    return kOk;
}

}  // namespace

void addInit(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command = cli.add("init", "Create a database and set its password",
                               [options](Context& context) { return run(*options, context); });
    addCost(command, &options->cost);
}

}  // namespace fstore
