// fstore key add: one more secret that opens the database.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/beside_database.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/key_commands.h"
#include "fstore/commands/new_recovery_key.h"
#include "fstore/commands/slot_text.h"
#include "lib/base/files.h"
#include "lib/base/key_file.h"
#include "lib/work/key_slots.h"

namespace fstore {
namespace {

struct KeyAddOptions {
    RecoveryOptions recovery;
    std::optional<std::string> keyFile;
    PasswordOptions password;
    std::string label;
    std::optional<int> cost;
};

// Another command may make the same file for another database: then it serves both.
void makeKeyFile(const std::string& file, Context& context) {
    try {
        (void)createKeyFile(file);
        context.output.note(fmt::format("made the key file {}", file));
    } catch (const Failure& failure) {
        if (failure.status() != kInvalid || !exists(file)) {
            throw;
        }
    }
}

// The key in this file, which is made if there is none.
UnlockSecret secretOf(const std::string& file, Context& context) {
    if (!exists(file)) {
        makeKeyFile(file, context);
    }
    warnIfBeside("key file", file, context);
    return readKeyFile(KeyFile(file), context.output);
}

// What the new slot is for. A recovery key reaches its owner first.
UnlockSecret newSecret(const KeyAddOptions& options, const SlotPlan& plan,
                       std::optional<NewRecoveryKey>& recovery, Context& context) {
    if (options.keyFile) {
        return secretOf(*options.keyFile, context);
    }
    if (options.recovery.wanted) {
        recovery.emplace(options.recovery.sheet, context);
        recovery->handOver(
            sheetFor(context.database.place().folder, plan.db, plan.n, options.label));
        return recovery->secret();
    }
    PasswordSource password(PasswordSource::Which::kNew, options.password, context.globals.noInput,
                            context.output, context.standardInput);
    return {UnlockSecret::Kind::kPassword, password.get(PasswordSource::Entry::kTwice), {}};
}

Status runKeyAdd(const KeyAddOptions& options, Context& context) {
    Database& database = context.database;
    // What cannot get a slot shows before anything is made.
    const SlotPlan plan = planSlot(database, options.label);
    std::optional<NewRecoveryKey> recovery;
    const UnlockSlot added = addSlot(
        database, {newSecret(options, plan, recovery, context), options.label, options.cost});
    if (recovery) {
        recovery->confirmSlot();
    }
    if (recovery && added.n != plan.n) {
        context.output.warn(
            fmt::format("another slot was added meanwhile: the sheet says {}, and the slot is {}",
                        plan.n, added.n));
    }
    context.output.note(fmt::format("added {}", describe(added)));
    context.output.document({{"added", toJson(added)}});
    return kOk;
}

}  // namespace

void addKeyAdd(Command& key) {
    const auto options = std::make_shared<KeyAddOptions>();
    Command& command =
        key.subcommand("add", "Add a password, a recovery key or a key file",
                       [options](Context& context) { return runKeyAdd(*options, context); });
    addPassword(command, "--new-password", "the password to add", options->password);
    addCost(command, &options->cost);
    const std::vector<std::string> ofPasswords{"--new-password-file", "--new-password-fd",
                                               "--cost"};
    Option& recovery = addRecovery(command, "Add a new recovery key", options->recovery);
    recovery.excludes = ofPasswords;
    Option& keyFile = command.option("--key-file", "FILE", &options->keyFile,
                                     "Add this key file; it is made if there is none");
    keyFile.excludes = ofPasswords;
    keyFile.excludes.push_back(recovery.longName);
    command.option("--label", "TEXT", &options->label, "A text to find the slot by");
}

}  // namespace fstore
