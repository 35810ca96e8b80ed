// fstore check: whether the database is sound, and what a crash left over.
#include "lib/database/check.h"

#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/record_json.h"

namespace fstore {
namespace {

void print(const CheckReport& report, Output& output) {
    for (const Finding& finding : report.findings) {
        output.line(nameOf(finding.kind), finding.isDamage() ? Style::kRed : Style::kYellow,
                    fmt::format(": {} {}{}", finding.path, finding.message,
                                finding.isRepairable() ? "; --repair cleans up" : ""));
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
            {"repairable", finding.isRepairable()}};
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

Status run(const CheckOptions& options, Context& context) {
    const CheckReport report = checkDatabase(context.database, options);
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
    const auto options = std::make_shared<CheckOptions>();
    Command& command = cli.add("check", "Look for damage and for what a crash left over",
                               [options](Context& context) { return run(*options, context); });
    command.flag("--deep", &options->deep, "Decrypt and examine every record too");
    command.flag("--repair", &options->repair,
                 "Clean up what a crash left over; damaged records are never touched");
}

}  // namespace fstore
