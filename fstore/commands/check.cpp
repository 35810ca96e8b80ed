// fstore check: whether the database is sound, and what a crash left over.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "format/layout.h"
#include "fstore/commands/commands.h"
#include "fstore/commands/record_json.h"
#include "fstore/deep_read.h"
#include "lib/database/inspect.h"

namespace fstore {
namespace {

struct Options {
    bool deep = false;
    bool repair = false;
};

struct Report {
    std::vector<Finding> findings;  // those that stand at the end
    std::vector<Finding> repaired;
    std::optional<DeepReport> deep;

    bool isSound() const {
        return std::ranges::none_of(findings, &Finding::isDamage) &&
               (!deep || deep->damaged.empty());
    }
};

bool isRepairable(const Finding& finding) {
    return finding.repair != Finding::Repair::kNone;
}

const char* planOf(const Finding& finding) {
    switch (finding.repair) {
        case Finding::Repair::kDelete:
            return "it will be deleted";
        case Finding::Repair::kPutBack:
            return "it will be put back";
        case Finding::Repair::kDropCopy:
            return "it will be removed with all it holds";
        case Finding::Repair::kMakeFolder:
            return "it will be made";
        case Finding::Repair::kMoveBack:
            return "it will be moved back";
        case Finding::Repair::kFinish:
            return "it will be finished";
        case Finding::Repair::kNone:
            break;
    }
    return "";
}

// What the records of the password say, besides what stands in the folders.
std::vector<Finding> inspectAll(Session& session) {
    std::vector<Finding> findings = inspect();
    if (!findings.empty() && findings.front().kind == Finding::Kind::kMovedAside) {
        return findings;  // there is nothing to read yet
    }
    try {
        session.readProtection();
        if (session.protection().isUnfinished()) {
            findings.push_back({Finding::Kind::kUnfinishedChange,
                                descriptorPath({"", layout::kKdfRecord}),
                                "tells of a change of the password that was broken off",
                                Finding::Repair::kFinish});
        }
    } catch (const Failure& failure) {
        findings.push_back({Finding::Kind::kDamaged, failure.path(), failure.what()});
    }
    return findings;
}

// Inspection after inspection, until one finds nothing more to do: what is deleted
// may have been the last to name a body. The change of the password comes last, since
// its records may be among what is put back.
void repairAll(Report& report, Session& session, Output& output) {
    for (;;) {
        std::vector<Finding> repairable;
        std::ranges::copy_if(report.findings, std::back_inserter(repairable), isRepairable);
        if (repairable.empty()) {
            return;
        }
        for (const Finding& finding : repairable) {
            output.note(fmt::format("{} {}; {}", finding.path, finding.message, planOf(finding)));
        }
        repair(repairable);
        if (std::ranges::all_of(repairable, [](const Finding& finding) {
                return finding.repair == Finding::Repair::kFinish;
            })) {
            session.enter(Access::kChange);
        }
        report.repaired.insert(report.repaired.end(), repairable.begin(), repairable.end());
        report.findings = inspectAll(session);
    }
}

void print(const Report& report, Output& output) {
    for (const Finding& finding : report.findings) {
        output.line(nameOf(finding.kind), finding.isDamage() ? Style::kRed : Style::kYellow,
                    fmt::format(": {} {}{}", finding.path, finding.message,
                                isRepairable(finding) ? "; --repair cleans up" : ""));
    }
    if (report.deep) {
        for (const DamagedRecord& damaged : report.deep->damaged) {
            output.line("damaged", Style::kRed, ": " + damaged.message);
        }
    }
}

Json toJson(const Finding& finding) {
    return {{"kind", nameOf(finding.kind)},
            {"path", jsonText(finding.path)},
            {"message", jsonText(finding.message)},
            {"repairable", isRepairable(finding)}};
}

Json toDocument(const Report& report) {
    Json document = {
        {"sound", report.isSound()}, {"findings", Json::array()}, {"repaired", Json::array()}};
    for (const Finding& finding : report.findings) {
        document["findings"].push_back(toJson(finding));
    }
    for (const Finding& finding : report.repaired) {
        document["repaired"].push_back(toJson(finding));
    }
    if (report.deep) {
        document["deep"] = {{"records", report.deep->records},
                            {"secrets", report.deep->secrets},
                            {"damaged", Json::array()}};
        for (const DamagedRecord& damaged : report.deep->damaged) {
            document["deep"]["damaged"].push_back(
                failureToJson(damaged.address.print(), Failure(damaged.status, damaged.message)));
        }
    }
    return document;
}

Status run(const Options& options, Context& context) {
    Session& session = context.session;
    Report report;
    session.look(options.repair ? Access::kChange : Access::kRead);
    report.findings = inspectAll(session);
    if (options.repair) {
        repairAll(report, session, context.output);
    }
    if (options.deep) {
        session.open(options.repair ? Access::kChange : Access::kRead);
        report.deep = readEverything(session, "Checking");
    }
    print(report, context.output);
    if (report.isSound()) {
        context.output.note(
            report.deep ? fmt::format("no damage found; records read: {}, secrets decrypted: {}",
                                      report.deep->records, report.deep->secrets)
                        : "no damage found; --deep also decrypts");
    }
    context.output.document(toDocument(report));
    return report.isSound() ? kOk : kFound;
}

}  // namespace

void addCheck(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command = cli.add("check", "Look for damage and for what a crash left over",
                               [options](Context& context) { return run(*options, context); });
    command.flag("--deep", &options->deep, "Decrypt and examine every record too");
    command.flag("--repair", &options->repair,
                 "Clean up what a crash left over; damaged records are never touched");
}

}  // namespace fstore
