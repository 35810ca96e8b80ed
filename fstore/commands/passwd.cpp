// fstore passwd: another password for the database, and, unless --rewrap is given, another key.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/new_recovery_key.h"
#include "fstore/commands/slot_text.h"
#include "fstore/terminal/json.h"
#include "lib/base/key_file.h"
#include "lib/database/lost.h"
#include "lib/work/key_slots.h"
#include "os/process.h"

namespace fstore {
namespace {

struct PasswdOptions {
    PasswordOptions password;
    std::optional<std::string> slot;
    bool rewrap = false;
    bool rotate = false;
    std::vector<std::string> keyFiles, passwordFiles;  // of slots to carry
    RecoveryOptions recovery;
    std::vector<std::string> drop;
    bool dropOthers = false;
    bool keepOld = false;
    std::optional<int> cost;
};

// What is known before the new password is asked for, so that mistakes show first.
struct Plan {
    SlotSet set;  // without slots: of a database from before there were any
    DatabaseId db{};
    std::optional<UnlockSlot> slot{};  // that gets the password; none for a new one
    unsigned int openedBy = 0;         // 0 when that is no slot
    std::vector<UnlockSlot> dropped{};

    bool givesTo(unsigned int n) const { return slot && slot->n == n; }
};

// Of several slots it has to be said what becomes of the others.
void requireChoice(const PasswdOptions& options, const Plan& plan) {
    if (plan.set.slots.size() > 1 && !options.rewrap && !options.rotate) {
        throw Failure(
            kInvalid,
            fmt::format(
                "the database has {} slots: --rewrap changes this one password at once, and "
                "the others stay; --rotate gives the database a new key, and each other "
                "slot is carried, made anew or dropped",
                plan.set.slots.size()));
    }
}

Plan planOf(const PasswdOptions& options, Database& database) {
    const Hold hold = database.enter(Access::kRead, Need::kSecrets);
    Plan plan{.set = database.protection().inForce,
              .db = database.protection().record.db,
              .openedBy = database.openedBy()};
    if (!plan.set.slots.empty()) {
        std::optional<UnlockSlot> wanted;
        if (options.slot) {
            wanted = findSlot(plan.set.slots, *options.slot);
        }
        plan.slot = passwordSlot(plan.set.slots, plan.openedBy, wanted);
    }
    for (const std::string& word : options.drop) {
        plan.dropped.push_back(findSlot(plan.set.slots, word));
    }
    requireChoice(options, plan);
    return plan;
}

// A file that carries no slot is a mistake, and so is one whose slot shall not stay as it is.
UnlockSecret requireCarries(UnlockSecret secret, const std::string& file, const Plan& plan) {
    const auto opened = openSet(plan.set, plan.db, secret);
    if (!opened) {
        throw Failure(kWrongPassword,
                      fmt::format("what is in {} opens no slot; nothing was changed", file), file);
    }
    const bool isDropped =
        std::ranges::find(plan.dropped, opened->slot, &UnlockSlot::n) != plan.dropped.end();
    if (isDropped || plan.givesTo(opened->slot)) {
        throw Failure(
            kInvalid,
            fmt::format("what is in {} opens slot {}, which {}; leave out one of the two", file,
                        opened->slot, isDropped ? "--drop names" : "gets the new password"),
            file);
    }
    return secret;
}

// What opens the slots to carry, besides the one that opened the database.
std::vector<UnlockSecret> carriedBy(const PasswdOptions& options, const Plan& plan,
                                    Context& context) {
    std::vector<UnlockSecret> secrets;
    for (const std::string& file : options.keyFiles) {
        secrets.push_back(requireCarries(readKeyFile(KeyFile(file), context.output), file, plan));
    }
    for (const std::string& file : options.passwordFiles) {
        PasswordSource password(PasswordSource::Which::kCurrent, {.file = file, .fd = {}},
                                /*noInput=*/true, context.output, context.standardInput);
        secrets.push_back(requireCarries(
            {UnlockSecret::Kind::kPassword, password.get(PasswordSource::Entry::kOnce), {}}, file,
            plan));
    }
    return secrets;
}

// What opened the database carries its slot, too, unless that gets the new secret.
std::optional<UnlockSecret> openerToCarry(const PasswdOptions& options, const Plan& plan,
                                          Context& context) {
    if (plan.openedBy == 0 || plan.givesTo(plan.openedBy)) {
        return std::nullopt;
    }
    const bool isMadeAnew = options.recovery.wanted &&
                            slotOf(plan.set.slots, plan.openedBy).kind == SlotKind::kRecovery;
    return isMadeAnew ? std::nullopt : std::optional(context.secret.get());
}

RotationReport rotate(const PasswdOptions& options, const Plan& plan, const SecretText& password,
                      std::vector<UnlockSecret> carried, Context& context) {
    Rotation rotation;
    rotation.slot = plan.slot;
    rotation.password = password;
    rotation.ln = options.cost;
    rotation.carried = std::move(carried);
    if (auto opener = openerToCarry(options, plan, context)) {
        rotation.carried.push_back(std::move(*opener));
    }
    rotation.dropOthers = options.dropOthers;
    rotation.keepOld = options.keepOld;
    rotation.dropped = plan.dropped;
    std::optional<NewRecoveryKey> recovery;
    if (options.recovery.wanted) {
        rotation.recovery = UnlockSecret{UnlockSecret::Kind::kRecovery, {}, {}};
        const RotationReport rehearsed = rehearseRotation(context.database, rotation);
        const UnlockSlot& slot = rehearsed.anew.front();
        recovery.emplace(options.recovery.sheet, context);
        recovery->handOver(sheetFor(context.database.place().folder, plan.db, slot.n, slot.label));
        rotation.recovery = recovery->secret();
    }
    // Interrupted, it says which password holds.
    const os::NotedInterrupt noted;
    RotationReport done = rotateKey(context.database, rotation);
    if (recovery) {
        recovery->confirmSlot();
    }
    return done;
}

// What was done; `rewrapped` is the slot of a password that was changed alone.
void report(const RotationReport& report, const std::optional<UnlockSlot>& rewrapped,
            const PasswdOptions& options, Context& context) {
    Output& output = context.output;
    output.note("password changed");
    Json json = {{"folder", jsonText(context.database.place().folder)},
                 {"changed", true},
                 {"keptOld", options.keepOld}};
    if (rewrapped) {
        output.note(fmt::format("rewrapped: {}", describe(*rewrapped)));
        noteOldCopies(output);
        json["rewrapped"] = toJson(*rewrapped);
    }
    for (const auto& [name, words, slots] : {std::tuple("carried", "carried", &report.carried),
                                             std::tuple("anew", "made anew", &report.anew),
                                             std::tuple("dropped", "dropped", &report.dropped)}) {
        if (!slots->empty()) {
            output.note(fmt::format("{}: {}", words, describe(*slots)));
            json[name] = toJson(*slots, {});
        }
    }
    output.document(std::move(json));
}

Status runPasswd(const PasswdOptions& options, Context& context) {
    PasswordSource fresh(PasswordSource::Which::kNew, options.password, context.globals.noInput,
                         context.output, context.standardInput);
    Database& database = context.database;
    const Plan plan = planOf(options, database);
    std::vector<UnlockSecret> carried = carriedBy(options, plan, context);
    const SecretText& password = fresh.get(PasswordSource::Entry::kTwice);
    RotationReport done;
    std::optional<UnlockSlot> rewrapped;
    if (options.rewrap) {
        rewrapped = rewrapSlot(database, plan.slot, password, options.cost);
    } else {
        done = rotate(options, plan, password, std::move(carried), context);
    }
    const Hold hold = database.enter(Access::kRead, Need::kFiles);
    for (const LostFolder& lost : lostFolders()) {
        context.output.warn(describe(lost));
    }
    report(done, rewrapped, options, context);
    return kOk;
}

}  // namespace

void addPasswd(Cli& cli) {
    const auto options = std::make_shared<PasswdOptions>();
    Command& command =
        cli.add("passwd", "Change the password of the database",
                [options](Context& context) { return runPasswd(*options, context); });
    addPassword(command, "--new-password", "the new password", options->password);
    command.option("--slot", "SLOT", &options->slot,
                   "The slot that gets it, by number or label, if not the one that opened");
    command.flag("--keep-old", &options->keepOld,
                 "Keep the old database, with the old secrets, as ./db-<time>");
    addCost(command, &options->cost);
    command.startGroup("With several slots");
    command.flag("--rewrap", &options->rewrap, "Change this password alone; re-encrypt nothing")
        .excludes = {"--keep-old"};
    command
        .flag("--rotate", &options->rotate, "Give the database a new key and re-encrypt everything")
        .excludes = {"--rewrap"};
    command.option("--with-key-file", "FILE", &options->keyFiles, "Carry the slot of this key file")
        .needs = {"--rotate"};
    command
        .option("--with-password-file", "FILE", &options->passwordFiles,
                "Carry the slot of the password in this file")
        .needs = {"--rotate"};
    addRecovery(command, "Make the recovery key anew", options->recovery).needs = {"--rotate"};
    command.option("--drop", "SLOT", &options->drop, "Drop this slot").needs = {"--rotate"};
    command.flag("--drop-others", &options->dropOthers, "Drop all slots that are not carried")
        .needs = {"--rotate"};
    command.startGroup({});
}

}  // namespace fstore
