// fstore backup, fstore restore: the database as one file, and back.
#include "lib/archive/backup.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/slot_text.h"
#include "fstore/terminal/json.h"
#include "lib/base/digits.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/database/check.h"
#include "lib/database/state_file.h"
#include "lib/work/key_slots.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr const char* kNotNoted = "the time of the backup could not be noted beside the database";

struct BackupOptions {
    std::string file;
    bool force = false;
    bool verify = false;
};

struct RestoreOptions {
    std::string file;
    bool replace = false;
    bool list = false;
};

Json totalsToJson(const std::string& file, const ArchiveTotals& totals) {
    return {{"file", jsonText(file)},
            {"folderCount", totals.folders},
            {"fileCount", totals.files},
            {"byteCount", totals.bytes},
            {"manifestSha256", toHex(totals.manifest)}};
}

std::string describe(const ArchiveTotals& totals) {
    return fmt::format("{} files in {} folders, {} bytes", totals.files, totals.folders,
                       totals.bytes);
}

// A backup has the database as it is. How many damaged things it has then; none if that could not
// be found out.
std::optional<std::size_t> warnOfDamage(Context& context) {
    try {
        const CheckReport report = checkDatabase(context.database, {});
        const auto damaged =
            static_cast<std::size_t>(std::ranges::count_if(report.findings, &Finding::isDamage));
        if (damaged != 0) {
            context.output.warn(fmt::format(
                "the database is damaged, and so is the backup: {}; see `fstore check`, "
                "and keep an older backup",
                damaged));
        }
        return damaged;
    } catch (const MemoryFailure&) {
        throw;
    } catch (const Failure& failure) {
        context.output.warn(fmt::format(
            "the backup is complete, but the database could not be checked: {}", failure.what()));
        return std::nullopt;
    }
}

Status runVerify(const BackupOptions& options, Context& context) {
    const ArchiveTotals totals = readBackup(options.file, context.database.observer());
    context.output.note(fmt::format("{} is whole: {}", options.file, describe(totals)));
    Json json = totalsToJson(options.file, totals);
    json["verified"] = true;
    context.output.document({{"backup", json}});
    return kOk;
}

Status runBackup(const BackupOptions& options, Context& context) {
    if (options.verify) {
        return runVerify(options, context);
    }
    OutputFile file(options.file, options.force);
    if (file.isStandardOutput() && (context.output.json() || os::isTerminal(os::kStandardOutput))) {
        throw Failure(kUsage, "a backup is no text; write it to a file, or to another program");
    }
    const BackupReport report = backUp(context.database, file);
    Json leftOut = Json::array();
    for (const LeftOut& each : report.leftOut) {
        context.output.warn(fmt::format("left out {}: {}", each.path, each.reason));
        leftOut.push_back({{"path", jsonText(each.path)}, {"reason", each.reason}});
    }
    context.output.note(
        fmt::format("wrote {}: {}, {}", file.name(), describe(report.totals),
                    report.verified ? "verified" : "not verified, as it cannot be read back"));
    Json json = totalsToJson(options.file, report.totals);
    json["verified"] = report.verified;
    const std::optional<std::size_t> damaged = warnOfDamage(context);
    json["damageCount"] = damaged ? Json(*damaged) : Json();
    // A device keeps nothing; and what has damage in it is no backup to rely on.
    const bool counts = (report.verified || file.isStandardOutput()) && damaged == 0U;
    if (counts && !noteBackup(context.database.place(), now())) {
        context.output.warn(kNotNoted);
    }
    context.output.document({{"backup", json}, {"leftOut", std::move(leftOut)}});
    return report.leftOut.empty() ? kOk : kPartial;
}

// A backup opens with the slots of its day.
void reportSlots(Context& context, Json& json) {
    std::vector<UnlockSlot> slots;
    try {
        slots = listSlots(context.database);
    } catch (const Failure& failure) {
        context.output.warn(fmt::format("restored, but {}", failure.what()));
    }
    json["slots"] = toJson(slots, {});
    if (slots.empty()) {
        context.output.warn(
            "the backup has no slots, so no password of `fstore` opens it: only its own key does, "
            "if "
            "it has one; `fstore check` says more");
    } else {
        context.output.note(
            fmt::format("it opens with what opened it at the backup: {}", describe(slots)));
    }
}

Status runList(const RestoreOptions& options, Context& context) {
    Json files = Json::array();
    Table table({{.title = "MODE", .least = Table::Column::kWhole},
                 {.title = "SIZE", .least = Table::Column::kWhole},
                 {.title = "PATH", .weight = 2, .cut = Table::Cut::kInside}});
    const ArchiveTotals totals =
        readBackup(options.file, context.database.observer(), [&](const ArchiveEntry& entry) {
            const std::string mode = fmt::format("{:04o}", entry.mode);
            if (context.output.json()) {
                files.push_back({{"path", jsonText(entry.path)},
                                 {"isFolder", entry.isFolder},
                                 {"mode", mode},
                                 {"size", entry.size}});
            } else {
                table.add({{mode},
                           {entry.isFolder ? "" : std::to_string(entry.size)},
                           {entry.path + (entry.isFolder ? "/" : "")}});
            }
        });
    context.output.table(table);
    context.output.note(fmt::format("{} is whole: {}", options.file, describe(totals)));
    context.output.document(
        {{"backup", totalsToJson(options.file, totals)}, {"files", std::move(files)}});
    return kOk;
}

Status runRestore(const RestoreOptions& options, Context& context) {
    if (options.list) {
        return runList(options, context);
    }
    if (options.file == kStandardStream) {
        throw Failure(kUsage, "a backup is read twice, so it must be a file");
    }
    const RestoreReport report = restore(context.database, options.file, options.replace);
    (void)forgetState(context.database.place());  // the last check was of another state
    context.output.note(fmt::format("restored {} to {}: {}", options.file,
                                    context.database.place().describe(), describe(report.totals)));
    Json json{{"restored", totalsToJson(options.file, report.totals)}};
    if (!report.kept.empty()) {
        context.output.note(fmt::format("kept the previous database as {}", report.kept));
        json["keptAs"] = report.kept;
    }
    reportSlots(context, json);
    context.output.document(json);
    return kOk;
}

}  // namespace

void addBackup(Cli& cli) {
    const auto options = std::make_shared<BackupOptions>();
    Command& command =
        cli.add("backup", "Write the database into one file, without a password",
                [options](Context& context) { return runBackup(*options, context); });
    command.argument("FILE", &options->file, "A tar archive, readable by its owner only");
    addForce(command, &options->force);
    command
        .flag("--verify", &options->verify,
              "Write nothing: read the backup FILE, and say whether it is whole")
        .excludes = {"--force"};
}

void addRestore(Cli& cli) {
    const auto options = std::make_shared<RestoreOptions>();
    Command& command =
        cli.add("restore", "Create a database from a backup",
                [options](Context& context) { return runRestore(*options, context); });
    command.argument("FILE", &options->file, "A file written by `fstore backup`");
    command.flag("--replace", &options->replace,
                 "Replace a database, and keep it under another name");
    command.flag("--list", &options->list, "Restore nothing: list what is in the backup")
        .excludes = {"--replace"};
}

}  // namespace fstore
