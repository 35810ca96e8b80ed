// fstore request: a new certificate request for a key that is there.
#include <memory>
#include <optional>
#include <string>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/request_options.h"
#include "lib/work/generate.h"

namespace fstore {
namespace {

struct RequestOptions {
    std::string key;
    std::string file{kStandardStream};
    bool force = false;
    RequestText content;
};

Status runRequest(const RequestOptions& options, Context& context) {
    if (isGiven(options.content) && options.content.subject.empty() &&
        options.content.altNames.empty()) {
        throw Failure(kUsage,
                      "--key-usage and --ca go with --subject or --san: without any of "
                      "them, the request is like the last certificate");
    }
    std::optional<OutputFile> file;
    openForRequest(file, options.file, options.force, context.output);
    const Generated made =
        requestFor(context.database, options.key,
                   isGiven(options.content) ? std::optional(options.content) : std::nullopt);
    report(made, file, context.output);
    return kOk;
}

}  // namespace

void addRequest(Cli& cli) {
    const auto options = std::make_shared<RequestOptions>();
    Command& command =
        cli.add("request", "Make a certificate request for a key that is there",
                [options](Context& context) { return runRequest(*options, context); });
    command.argument("KEY", &options->key, "FOLDER/NAME, a unique NAME, or sha256:PREFIX");
    addRequestText(command, &options->content);
    command.option("-o,--output", "FILE", &options->file, "The file for the request");
    addForce(command, &options->force);
}

}  // namespace fstore
