// fstore key reset: new slots from the database's own key.
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fstore/commands/common_options.h"
#include "fstore/commands/key_commands.h"
#include "fstore/commands/slot_text.h"
#include "lib/base/files.h"
#include "lib/work/key_slots.h"

namespace fstore {
namespace {

constexpr std::uint64_t kMostRawKey = 4097;  // a password from before there were slots, and a LF

struct KeyResetOptions {
    std::string rawKeyFile;
    PasswordOptions password;
    std::optional<int> cost;
};

SecretText rawKeyIn(const std::string& file) {
    const SecretBytes bytes = InputFile(file).readAll(kMostRawKey);
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return SecretText(text);
}

Status runKeyReset(const KeyResetOptions& options, Context& context) {
    context.standardInput.claimIfNamed(options.rawKeyFile, "the key of the database");
    PasswordSource password(PasswordSource::Which::kNew, options.password, context.globals.noInput,
                            context.output, context.standardInput);
    const SecretText raw = rawKeyIn(options.rawKeyFile);
    Database& database = context.database;
    resetSlots(database, raw, password.get(PasswordSource::Entry::kTwice), options.cost);
    const std::vector<UnlockSlot> slots = listSlots(database);
    context.output.note(
        slots.empty() ? "the key is the password of the database; change it with `fstore passwd`"
                      : "made a slot for the new password; all other slots are gone");
    noteOldCopies(context.output);
    context.output.document({{"slots", toJson(slots, {})}});
    return kOk;
}

}  // namespace

void addKeyReset(Command& key) {
    const auto options = std::make_shared<KeyResetOptions>();
    Command& command =
        key.subcommand("reset", "Make new slots from the database's own key",
                       [options](Context& context) { return runKeyReset(*options, context); });
    command
        .option("--raw-key-file", "FILE", &options->rawKeyFile,
                "What `fstore key raw` wrote; \"-\" is the standard input")
        .required = true;
    addPassword(command, "--new-password", "the new password", options->password);
    addCost(command, &options->cost);
}

}  // namespace fstore
