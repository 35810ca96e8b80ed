// fstore generate: a new key, made inside of the database.
#include "lib/work/generate.h"

#include <memory>
#include <optional>
#include <string>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/request_options.h"

namespace fstore {
namespace {

constexpr int kMostDays = 36'500;

struct GenerateOptions {
    std::string type = "ec:P-256";
    std::optional<std::string> file;
    bool force = false;
    GenerateRules rules;
};

void refuseOptions(const GenerateOptions& options) {
    if (options.file && !options.rules.request) {
        throw Failure(kUsage, "-o is for the request, which --request makes");
    }
    const bool hasContent = options.rules.request || options.rules.selfSignedDays;
    if (!hasContent && isGiven(options.rules.content)) {
        throw Failure(kUsage,
                      "--subject, --san, --key-usage and --ca are for a request or certificate: "
                      "--request makes the one, --self-signed DAYS the other");
    }
    if (hasContent && options.rules.content.subject.empty() &&
        options.rules.content.altNames.empty()) {
        throw Failure(kUsage, "a request or certificate needs a name: --subject or --san");
    }
}

Status runGenerate(const GenerateOptions& options, Context& context) {
    refuseOptions(options);
    GenerateRules rules = options.rules;
    rules.type = keyTypeOf(options.type);
    std::optional<OutputFile> file;
    if (rules.request) {
        openForRequest(file, options.file.value_or(std::string(kStandardStream)), options.force,
                       context.output);
    }
    report(generate(context.database, rules), file, context.output);
    return kOk;
}

}  // namespace

void addGenerate(Cli& cli) {
    const auto options = std::make_shared<GenerateOptions>();
    Command& command =
        cli.add("generate", "Make a key, and a request or a certificate for it",
                [options](Context& context) { return runGenerate(*options, context); });
    command.argument("NAME", &options->rules.name, "Name of the new records, without a folder");
    command
        .option("--type", "TYPE", &options->type,
                "rsa:3072, ec:P-256, ec:P-384, ec:P-521, ed25519, ed448, ...")
        .showsDefault = true;
    command.option("--label", "TEXT", &options->rules.label, "Text to find them by");
    command.flag("--request", &options->rules.request,
                 "Make a certificate request, and write it to the standard output");
    command.option("--self-signed", "DAYS", Number{&options->rules.selfSignedDays, 1, kMostDays},
                   "Make a certificate that the key signs itself, good for so many days");
    addRequestText(command, &options->rules.content);
    command.option("-o,--output", "FILE", &options->file, "The file for the request");
    addForce(command, &options->force);
}

}  // namespace fstore
