// fstore report: a page about the database, to be looked at.
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "fstore/commands/report_page.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/work/survey.h"

namespace fstore {
namespace {

struct ReportOptions {
    std::string file{kStandardStream};
    bool force = false;
};

Json toDocument(const Survey& survey) {
    Json oddities = Json::array();
    for (const Oddity& oddity : survey.oddities) {
        oddities.push_back({{"address", jsonText(oddity.info.address.print())},
                            {"message", jsonText(oddity.what)}});
    }
    return {{"certificates", survey.forest.branches.size()},
            {"keys", survey.keys.size()},
            {"oddities", std::move(oddities)}};
}

Status runReport(const ReportOptions& options, Context& context) {
    const bool inDocument = context.output.json() && options.file == kStandardStream;
    std::optional<OutputFile> file;
    if (!inDocument) {
        file.emplace(options.file, options.force);
    }
    const std::int64_t time = now();
    const Survey survey = withSecrets(context.database, Access::kRead,
                                      [&] { return surveyOf(context.database, time); });
    if (file) {
        const std::string page =
            reportPage(survey, absolutePath(context.database.place().folder), time);
        file->write({reinterpret_cast<const unsigned char*>(page.data()), page.size()});
        file->commit();
    }
    for (const Failure& failure : survey.unread) {
        context.output.warn(fmt::format("left out: {}", failure.what()));
    }
    context.output.document(toDocument(survey));
    return survey.unread.empty() ? kOk : kPartial;
}

}  // namespace

void addReport(Cli& cli) {
    const auto options = std::make_shared<ReportOptions>();
    Command& command =
        cli.add("report", "Write a page about the database for a browser",
                [options](Context& context) { return runReport(*options, context); });
    addOutput(command, &options->file);
    addForce(command, &options->force);
}

}  // namespace fstore
