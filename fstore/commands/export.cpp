// fstore export: objects in the forms in which other programs read them.
#include "lib/work/export.h"

#include <memory>
#include <string>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "fstore/terminal/json.h"
#include "lib/base/digits.h"
#include "lib/base/files.h"
#include "os/terminal.h"

namespace fstore {
namespace {

using Format = ExportRules::Format;

struct ExportOptions {
    RecordChoice record;
    std::string file{kStandardStream};
    ExportRules rules;
    bool force = false;
    PasswordOptions password;
};

Json describe(const Selection& selection, const ExportOptions& options, bool encrypted) {
    constexpr const char* kNames[] = {"pem", "der", "p12", "p7"};
    return {{"records", Json::array({toJson(selection.info)})},
            {"format", kNames[static_cast<int>(options.rules.format)]},
            {"key", selection.key.has_value()},
            {"certificates", selection.certificates.size()},
            {"encrypted", encrypted}};
}

void refuseOptions(const ExportOptions& options, bool inDocument) {
    refuseRules(options.rules);
    if (options.rules.format != Format::kPem && options.file == kStandardStream && !inDocument &&
        os::isTerminal(os::kStandardOutput)) {
        throw Failure(
            kUsage,
            "this format is not text and would garble the terminal; write it to a file with -o");
    }
}

Status runExport(const ExportOptions& options, Context& context) {
    // With --json the document has what is exported, unless a file gets it.
    const bool inDocument = context.output.json() && options.file == kStandardStream;
    refuseOptions(options, inDocument);
    refuseChoice(options.record);
    std::optional<OutputFile> file;
    if (!inDocument) {
        file.emplace(options.file, options.force);
    }
    PasswordSource password(PasswordSource::Which::kOutput, options.password,
                            context.globals.noInput, context.output, context.standardInput);
    // Nobody has to wait while a password is typed.
    const Selection selection = withSecrets(context.database, Access::kRead, [&] {
        const Address address = chosen(context.database, options.record);
        return selectForExport(context.database, address, options.rules);
    });
    const bool encrypted = isEncrypted(selection, options.rules);
    const SecretText* const secret =
        encrypted ? &password.get(PasswordSource::Entry::kTwice) : nullptr;
    const SecretBytes bytes = encode(selection, options.rules, secret);
    Json json = describe(selection, options, encrypted);
    for (const std::string& warning : warningsOf(selection)) {
        context.output.warn(warning);
    }
    if (!inDocument) {
        file->write(bytes);
        file->commit();
    } else if (options.rules.format == Format::kPem) {
        json["text"] = std::string(bytes.begin(), bytes.end());
    } else {
        json["bytes"] = toHex(bytes);
    }
    context.output.document(json);
    return kOk;
}

}  // namespace

void addExport(Cli& cli) {
    const auto options = std::make_shared<ExportOptions>();
    Command& command =
        cli.add("export", "Write an object for other programs",
                [options](Context& context) { return runExport(*options, context); });
    addRecordChoice(command, &options->record);
    addOutput(command, &options->file);
    command.option("--format", "FORMAT",
                   Choice(&options->rules.format, {{"pem", Format::kPem},
                                                   {"der", Format::kDer},
                                                   {"p12", Format::kPkcs12},
                                                   {"p7", Format::kPkcs7}}),
                   "pem, der, p12 (PKCS#12) or p7 (PKCS#7)");
    command.flag("--chain", &options->rules.chain, "Add the certificate's issuers, up to the root");
    command.flag("--plain", &options->rules.plain, "Do not encrypt a key or PKCS#12");
    addForce(command, &options->force);
    addPassword(command, "--out-password", "the password for the exported file", options->password);
}

}  // namespace fstore
