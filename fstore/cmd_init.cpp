// fstore init: a database with a protected password, where there is none.
#include <memory>

#include <fmt/format.h>

#include "fstore/commands.h"
#include "fstore/json.h"
#include "fstore/password_change.h"
#include "fstore/record.h"

namespace fstore {
namespace {

struct Options {
    unsigned int cost = Slot::kDefaultLn;
};

void refuseUnless(bool accepted, Session& session, const std::string& why) {
    if (!accepted) {
        throw Failure(kInvalid, fmt::format("the database in {} {}", session.folder(), why),
                      session.folder());
    }
}

Status run(const Options& options, Context& context) {
    Session& session = context.session;
    session.enterNew();
    const Protection::State state = session.protection().state;
    refuseUnless(state != Protection::State::kRaw, session,
                 "has a password that can be guessed cheaply: `fstore passwd` protects it");
    const bool isNew = state == Protection::State::kNone;
    if (isNew) {
        const std::size_t records = allRecords().size();
        refuseUnless(records == 0, session,
                     fmt::format("holds {} records and has no password: `fstore passwd` gives it "
                                 "one",
                                 records));
        NewSlot fresh =
            makeSlot(session.password().get(PasswordSource::Entry::kTwice), options.cost);
        session.reopen(SecretText());
        changePassword(session, std::move(fresh), /*keepOld=*/false);
        context.output.note(fmt::format("the database in {} is ready", session.folder()));
    } else {
        session.open(Access::kChange);
        context.output.note(fmt::format("the database in {} was ready before, with this password",
                                        session.folder()));
    }
    context.output.document({{"folder", jsonText(session.folder())}, {"created", isNew}});
    return kOk;
}

}  // namespace

void addInit(Cli& cli) {
    const auto options = std::make_shared<Options>();
    CLI::App& app = cli.add("init", "Make a database and give it a password",
                            [options](Context& context) { return run(*options, context); });
    app.add_option("--cost", options->cost,
                   "Cost of a guess at the password: 14 to 22, each step doubles it")
        ->type_name("LN")
        ->check(CLI::Range(Slot::kLeastLn, Slot::kMostLn).description(""))
        ->capture_default_str();
}

}  // namespace fstore
