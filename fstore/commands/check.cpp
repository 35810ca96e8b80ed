// fstore check: whether the database is sound, and what a crash left over.
#include "lib/database/check.h"

#include <algorithm>
#include <iterator>
#include <memory>

#include <fmt/format.h>

#include "format/layout.h"
#include "fstore/commands/commands.h"
#include "fstore/commands/record_json.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/database/settle.h"
#include "lib/database/state_file.h"
#include "lib/database/weakness.h"
#include "lib/work/object_record.h"

namespace fstore {
namespace {

struct CheckChoices {
    CheckOptions check;
    std::optional<std::string> backupWithin;
    bool strict = false;  // what is weak counts as what is damaged
    std::optional<std::string> undo;
    std::optional<std::string> purge;
    std::optional<std::string> settle;
    std::optional<Keep> keep;
};

std::int64_t periodOf(const std::string& text) {
    const auto period = parsePeriod(text);
    if (!period) {
        throw Failure(kUsage, fmt::format("\"{}\" is not a period such as 7d, 12h or 2w", text));
    }
    return *period;
}

void print(const CheckReport& report, Output& output) {
    for (const Finding& finding : report.findings) {
        output.sentence(nameOf(finding.kind), finding.isDamage() ? Style::kRed : Style::kYellow,
                        fmt::format(": {} {}{}{}", finding.path, finding.message,
                                    finding.isRepairable() ? "; with --repair it " : "",
                                    planOf(finding.repair)));
    }
    for (const LostFolder& lost : report.lost) {
        output.sentence("moved-away", Style::kYellow, ": " + describe(lost));
    }
    if (report.deep) {
        for (const DamagedRecord& damaged : report.deep->damaged) {
            const bool denied = damaged.failure.isDenied();
            output.sentence(denied ? "unreadable" : "damaged",
                            denied ? Style::kYellow : Style::kRed,
                            fmt::format(": {}", damaged.failure.what()));
        }
        for (const Failure& failure : report.deep->unread) {
            output.warn(failure.what());
        }
    }
}

Json toJson(const Finding& finding) {
    return {{"kind", nameOf(finding.kind)},         {"path", jsonText(finding.path)},
            {"message", jsonText(finding.message)}, {"repairable", finding.isRepairable()},
            {"repair", nameOf(finding.repair)},     {"doubtful", finding.isDoubtful}};
}

Json toJson(const LostFolder& lost) {
    Json json = {{"name", lost.name}, {"path", joined(layout::kLost, lost.name)}};
    if (lost.plan) {
        json["time"] = printTime(lost.plan->time);
        json["files"] = Json::array();
        for (const LostFile& file : lost.plan->files) {
            json["files"].push_back({{"path", jsonText(file.path)},
                                     {"kind", file.kind},
                                     {"message", jsonText(file.reason)}});
        }
    }
    return json;
}

Json toDocument(const CheckReport& report) {
    Json document = {
        {"sound", report.isSound()}, {"findings", Json::array()}, {"repaired", Json::array()}};
    for (const Finding& finding : report.findings) {
        document["findings"].push_back(toJson(finding));
    }
    for (const Finding& finding : report.repaired) {
        document["repaired"].push_back(toJson(finding));
    }
    document["lost"] = Json::array();
    for (const LostFolder& lost : report.lost) {
        document["lost"].push_back(toJson(lost));
    }
    if (report.deep) {
        document["deep"] = {{"recordCount", report.deep->records},
                            {"secrets", report.deep->secrets},
                            {"damaged", Json::array()},
                            {"unread", Json::array()}};
        for (const Failure& failure : report.deep->unread) {
            document["deep"]["unread"].push_back(
                {{"path", jsonText(failure.path())}, {"error", errorToJson(failure)}});
        }
        for (const DamagedRecord& damaged : report.deep->damaged) {
            document["deep"]["damaged"].push_back(
                failureToJson(damaged.address.print(), damaged.failure));
        }
    }
    return document;
}

std::vector<Weakness> findWeaknesses(const CheckChoices& options, Context& context) {
    std::vector<Weakness> found = weaknessesOf(context.database);
    if (options.backupWithin) {
        std::ranges::move(backupWeakness(context.database.place(), periodOf(*options.backupWithin)),
                          std::back_inserter(found));
    }
    // Whoever reads the file, as with --deep, warns of it.
    const std::string exposed = context.secret.exposedFile();
    if (!exposed.empty() && !options.check.deep) {
        found.push_back(
            {"exposed-secret", exposed, "can be read by other users; protect it with chmod 600"});
    }
    return found;
}

Json toJson(const Weakness& weakness) {
    return {{"kind", weakness.kind},
            {"path", jsonText(weakness.path)},
            {"message", jsonText(weakness.message)}};
}

Status examine(const CheckChoices& options, Context& context) {
    if (options.backupWithin) {
        (void)periodOf(*options.backupWithin);  // before anything is read
    }
    const CheckReport report = checkDatabase(context.database, options.check);
    print(report, context.output);
    if (!noteCheck(context.database.place(), now(), report.isSound())) {
        context.output.detail("the time of the check could not be noted beside the database");
    }
    const std::vector<Weakness> weaknesses = findWeaknesses(options, context);
    Json weak = Json::array();
    for (const Weakness& weakness : weaknesses) {
        if (!context.output.json()) {
            context.output.warn(fmt::format("{}{}{}", weakness.path,
                                            weakness.path.empty() ? "" : " ", weakness.message));
        }
        weak.push_back(toJson(weakness));
    }
    if (report.isSound()) {
        context.output.summary(
            report.deep ? fmt::format("no damage found; records read: {}, secrets decrypted: {}",
                                      report.deep->records, report.deep->secrets)
                        : "no damage found; --deep also decrypts");
    }
    Json document = toDocument(report);
    document["weaknesses"] = std::move(weak);
    context.output.document(document);
    const Status status = report.status();
    return options.strict && status == kOk && !weaknesses.empty() ? kFound : status;
}

Json toJson(const std::vector<std::string>& paths) {
    Json json = Json::array();
    for (const std::string& path : paths) {
        json.push_back(jsonText(path));
    }
    return json;
}

Status runUndo(const std::string& name, Context& context) {
    const UndoReport report = undoRepair(context.database, name);
    const std::string from = joined(layout::kLost, name);
    for (const std::string& path : report.putBack) {
        context.output.detail(fmt::format("put back {}", joined(layout::kLive, path)));
    }
    for (const std::string& path : report.taken) {
        context.output.warn(fmt::format("{} stays where it is: there is another {}",
                                        joined(from, path), joined(layout::kLive, path)));
    }
    context.output.note(fmt::format("{}: {} files put back", from, report.putBack.size()));
    context.output.document(
        {{"undone", name}, {"putBack", toJson(report.putBack)}, {"taken", toJson(report.taken)}});
    return report.taken.empty() ? kOk : kPartial;
}

Status runPurge(const std::string& name, Context& context) {
    purgeRepair(context.database, name);
    context.output.note(fmt::format("deleted {}", joined(layout::kLost, name)));
    context.output.document({{"purged", name}});
    return kOk;
}

Status runSettle(const std::string& path, Keep keep, Context& context) {
    const Settled settled = settle(context.database, path, keep);
    context.output.note(
        settled.lost.empty()
            ? fmt::format("{} is {} now", path, settled.kept)
            : fmt::format("kept one state of {}; the other is in {}, and `fstore check --undo {}` "
                          "puts it back",
                          settled.kept, joined(layout::kLost, settled.lost), settled.lost));
    context.output.document(
        {{"settled", jsonText(settled.kept)},
         {"movedTo", settled.lost.empty() ? Json() : Json(joined(layout::kLost, settled.lost))}});
    return kOk;
}

// Each of them is a command of its own.
void refuseTogether(const CheckChoices& options) {
    const bool checks =
        options.check.deep || options.check.repair || options.strict || options.backupWithin;
    if (options.undo.has_value() + options.purge.has_value() + options.settle.has_value() + checks >
        1) {
        throw Failure(kUsage,
                      "--undo, --purge and --settle go alone: they neither check nor repair");
    }
    if (options.settle.has_value() != options.keep.has_value()) {
        throw Failure(kUsage,
                      "--settle FILE needs --keep ours or --keep theirs, and --keep needs it");
    }
}

Status runCheck(const CheckChoices& options, Context& context) {
    refuseTogether(options);
    if (options.undo) {
        return runUndo(*options.undo, context);
    }
    if (options.settle) {
        return runSettle(*options.settle, *options.keep, context);
    }
    return options.purge ? runPurge(*options.purge, context) : examine(options, context);
}

}  // namespace

void addCheck(Cli& cli) {
    const auto options = std::make_shared<CheckChoices>();
    options->check.examiner = &objectExaminer();
    Command& command = cli.add("check", "Look for damage and for what a crash left behind",
                               [options](Context& context) { return runCheck(*options, context); });
    command.flag("--deep", &options->check.deep, "Decrypt and examine every record, too");
    command.flag("--repair", &options->check.repair,
                 "Clean up what a crash left behind; never touches damaged records");
    command.option("--backup-within", "PERIOD", &options->backupWithin,
                   "Warn unless there was a backup within this time, \"7d\"");
    command.flag("--strict", &options->strict, "Exit with 3 also for warnings");
    command.option("--undo", "TIME", &options->undo,
                   "Put back what the repair of this time moved away");
    command.option("--purge", "TIME", &options->purge, "Delete what it moved away");
    command.option("--settle", "FILE", &options->settle,
                   "Settle the conflict that is reported for this file");
    command.option("--keep", "STATE",
                   Choice(&options->keep, {{"ours", Keep::kOurs}, {"theirs", Keep::kTheirs}}),
                   "With --settle: keep what the record is (ours), or what came (theirs)");
}

}  // namespace fstore
