// fstore init: a database with a protected password, where there is none.
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/password_change.h"
#include "fstore/terminal/json.h"
#include "lib/records/record.h"

namespace fstore {
namespace {

struct Options {
    unsigned int cost = Slot::kDefaultLn;
};

void refuseUnless(bool accepted, const Session& session, const std::string& why) {
    if (!accepted) {
        throw Failure(kInvalid, fmt::format("the database in {} {}", session.folder(), why),
                      session.folderName());
    }
}

// Enters the database; whether it has yet to be given its password.
bool enterUnlessForeign(Session& session) {
    session.enterNew();
    const Protection::State state = session.protection().state;
    refuseUnless(state != Protection::State::kRaw, session,
                 "has a password that can be guessed cheaply: `fstore passwd` protects it");
    if (state == Protection::State::kScrypt) {
        return false;
    }
    const std::size_t records = allRecords().size();
    refuseUnless(
        records == 0, session,
        fmt::format("holds {} records and has no password: `fstore passwd` gives it one", records));
    return true;
}

// False when the database has got a password while this one was asked for.
bool initialise(const Options& options, PasswordSource& password, Session& session) {
    session.release();
    NewSlot fresh = makeSlot(password.get(PasswordSource::Entry::kTwice), options.cost);
    if (!enterUnlessForeign(session)) {
        return false;
    }
    session.reopen(SecretText());
    changePassword(session, std::move(fresh), /*keepOld=*/false);
    return true;
}

Status run(const Options& options, Context& context) {
    Session& session = context.session;
    const bool created =
        enterUnlessForeign(session) && initialise(options, context.password, session);
    if (!created) {
        session.open(Access::kChange);
    }
    context.output.note(fmt::format("the database in {} {}", session.folder(),
                                    created ? "is ready" : "was ready before, with this password"));
    context.output.document({{"folder", jsonText(session.folderName())}, {"created", created}});
    return kOk;
}

}  // namespace

void addInit(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command = cli.add("init", "Make a database and give it a password",
                               [options](Context& context) { return run(*options, context); });
    addCost(command, &options->cost);
}

}  // namespace fstore
