#include "fstore/commands/new_recovery_key.h"

#include <array>
#include <span>
#include <utility>

#include <fmt/format.h>

#include "fstore/commands/beside_database.h"
#include "lib/base/digits.h"
#include "lib/base/files.h"
#include "lib/base/new_file.h"
#include "lib/base/recovery_key.h"
#include "lib/base/time.h"
#include "lib/database/unlock_box.h"

namespace fstore {
namespace {

// 1 to 8, each as likely as the others.
unsigned int randomGroup() {
    std::array<unsigned char, 1> random{};
    fillRandomly(random);
    static_assert(256 % kRecoveryGroups == 0);
    return random[0] % kRecoveryGroups + 1;
}

}  // namespace

Option& addRecovery(Command& command, const std::string& description, RecoveryOptions& target) {
    Option& flag = command.flag("--recovery", &target.wanted, description);
    command
        .option("--sheet", "FILE", &target.sheet,
                "Write the recovery key to a new file, and do not show it")
        .needs = {"--recovery"};
    return flag;
}

RecoverySheet sheetFor(const std::string& folder, const DatabaseId& db, unsigned int slot,
                       const std::string& label) {
    constexpr std::size_t kShown = 8;  // digits; enough to tell databases apart
    return {.folder = realPath(folder),
            .database = toHex(db).substr(0, kShown),
            .slot = slot,
            .label = label,
            .made = printTime(now())};
}

NewRecoveryKey::NewRecoveryKey(std::optional<std::string> sheet, Context& context)
    : file_(std::move(sheet)), context_(context), key_(kRecoveryKeySize) {
    if (file_) {
        requireNewFile(*file_);
    } else {
        requireTerminal(context_.globals.noInput);
    }
    fillRandomly(key_);
}

void NewRecoveryKey::handOver(const RecoverySheet& sheet) {
    const SecretText printed =
        printRecoveryKey(std::span<const unsigned char, kRecoveryKeySize>(key_));
    if (file_) {
        writeSheet(sheet, printed, *file_);
        warnIfBeside("sheet", *file_, context_);
    } else {
        showSheet(sheet, printed, randomGroup(), context_.globals.noInput);
    }
    isWithOwner_ = true;
}

NewRecoveryKey::~NewRecoveryKey() {
    if (isWithOwner_ && !hasSlot_) {
        context_.output.warn(fmt::format(
            "{} may open nothing; test it with `fstore key test`",
            file_ ? "the recovery key in " + *file_ : "the recovery key that was shown"));
    }
}

}  // namespace fstore
