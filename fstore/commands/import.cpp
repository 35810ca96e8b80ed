// fstore import: certificates, keys, CRLs and requests from files.
#include "lib/work/import.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "fstore/terminal/json.h"
#include "lib/base/files.h"
#include "lib/records/address.h"
#include "lib/work/java_keystore.h"

namespace fstore {
namespace {

struct ImportOptions {
    std::vector<std::string> files;
    std::optional<std::string> folder;
    ImportRules rules;
    PasswordOptions password;
};

// A part of an input file, or a whole one that could not be read.
struct Item {
    std::string file;
    PkiPart part;
    bool isRead = true;

    const PkiObject* object() const { return std::get_if<PkiObject>(&part.content); }
    const Failure* failure() const { return std::get_if<Failure>(&part.content); }
    const Skipped* skipped() const { return std::get_if<Skipped>(&part.content); }
    // The sentence with the file, unless that is what could not be read, and the line.
    std::string tell(std::string_view sentence) const {
        if (!isRead) {
            return std::string(sentence);
        }
        const std::string name = file == kStandardStream ? "the standard input" : file;
        return part.line == 0 ? fmt::format("{}: {}", name, sentence)
                              : fmt::format("{} line {}: {}", name, part.line, sentence);
    }
};

ImportRules rulesOf(const ImportOptions& options) {
    ImportRules rules = options.rules;
    if (options.folder) {
        rules.folder = parseFolder(*options.folder);
    }
    requireName(rules);
    return rules;
}

// All parts of all files, in the order of the import.
std::vector<Item> readItems(const ImportOptions& options, PasswordSource& password) {
    std::vector<Item> items;
    for (const std::string& file : options.files) {
        try {
            const SecretBytes bytes = InputFile(file).readAll(kMostInput);
            for (PkiPart& part : decodeWithKeytool(bytes, [&]() -> const SecretText& {
                     return password.get(PasswordSource::Entry::kOnce);
                 })) {
                items.push_back({file, std::move(part), true});
            }
        } catch (const Failure& failure) {
            items.push_back({file, {0, "", failure}, false});
        }
    }
    const auto rank = [](const Item& item) { return importRank(item.part); };
    std::ranges::stable_sort(items, {}, rank);
    return items;
}

std::vector<const PkiObject*> objectsOf(const std::vector<Item>& items) {
    std::vector<const PkiObject*> objects;
    for (const Item& item : items) {
        if (item.object() != nullptr) {
            objects.push_back(item.object());
        }
    }
    return objects;
}

// What was done with each item, for the user.
class Report {
public:
    explicit Report(Output& output) : output_(output) {}

    void done(const Item& item, const Importer::Result& result) {
        ++done_;
        if (output_.json()) {
            Json json = toJson(result.record);
            json["outcome"] = nameOf(result.outcome);
            records_.push_back(withSource(item, std::move(json)));
        }
        output_.note(fmt::format("{}: {}", nameOf(result.outcome), result.record.address.print()));
    }

    void failed(const Item& item, const Failure& failure) {
        if (!first_) {
            first_ = Failure(failure.status(), item.tell(failure.what()), item.file);
        }
        ++failed_;
        failures_.push_back(withSource(item, {{"error", errorToJson(failure)}}));
        messages_.push_back(item.tell(failure.what()));
    }

    void skipped(const Item& item, const Skipped& skipped) {
        skipped_.push_back(withSource(item, {{"reason", skipped.reason}}));
        output_.note(fmt::format("skipped: {}", item.tell(skipped.reason)));
    }

    // The exit code. Throws when nothing at all could be imported.
    Status finish() {
        if (done_ == 0 && failed_ == 1) {
            throw Failure(*first_);
        }
        if (done_ == 0) {
            output_.detailFailure("failures", failures_);
        }
        if (!output_.json() || done_ == 0) {  // the document would have them
            std::ranges::for_each(messages_, [&](const auto& text) { output_.warn(text); });
        }
        if (done_ == 0) {
            throw Failure(first_->status(), fmt::format("none of {} could be imported", failed_));
        }
        output_.document({{"records", records_}, {"failures", failures_}, {"skipped", skipped_}});
        return failed_ == 0 ? kOk : kPartial;
    }

private:
    static Json withSource(const Item& item, Json json) {
        json["file"] = jsonText(item.file);
        if (item.part.line != 0) {
            json["line"] = item.part.line;
        }
        return json;
    }

    Output& output_;
    std::size_t done_ = 0, failed_ = 0;
    Json records_ = Json::array(), failures_ = Json::array(), skipped_ = Json::array();
    std::vector<std::string> messages_;
    std::optional<Failure> first_;
};

void importObjects(const std::vector<Item>& items, const ImportRules& rules, Database& database,
                   Report& report) {
    const std::vector<const PkiObject*> objects = objectsOf(items);
    if (objects.empty()) {
        return;
    }
    const Hold hold = enterForImport(database, rules, objects);
    Importer importer(database, rules, objects);
    for (const Item& item : items) {
        if (item.object() == nullptr) {
            continue;
        }
        try {
            report.done(item, importer.import(*item.object(), item.part.label));
        } catch (const Failure& failure) {
            report.failed(item, failure);
        }
    }
}

Status runImport(const ImportOptions& options, Context& context) {
    ImportRules rules = rulesOf(options);
    rules.unlock = context.secret.isGiven();
    rules.refusesPatterns = true;
    PasswordSource password(PasswordSource::Which::kInput, options.password,
                            context.globals.noInput, context.output, context.standardInput);
    for (const std::string& file : options.files) {
        context.standardInput.claimIfNamed(file, "a file to import");
    }
    if (!password.isGiven()) {
        // Nobody is asked for a password in vain.
        const Hold hold = context.database.enter(Access::kRead, Need::kFiles);
    }
    const std::vector<Item> items = readItems(options, password);
    Report report(context.output);
    importObjects(items, rules, context.database, report);
    for (const Item& item : items) {
        if (item.failure() != nullptr) {
            report.failed(item, *item.failure());
        } else if (item.skipped() != nullptr) {
            report.skipped(item, *item.skipped());
        }
    }
    return report.finish();
}

}  // namespace

void addImport(Cli& cli) {
    const auto options = std::make_shared<ImportOptions>();
    Command& command =
        cli.add("import", "Import certificates, keys, CRLs and requests",
                [options](Context& context) { return runImport(*options, context); });
    command.argument(
        "FILE", &options->files,
        "PEM with any number of them, DER, PKCS#7, PKCS#12 or JKS, up to 64 MiB; \"-\" is the "
        "standard input");
    command.option("--to", "FOLDER", &options->folder, "Folder for all of them");
    command.option("--name", "NAME", &options->rules.name,
                   "Name of one object, or of one key and what belongs to it");
    command.option("--label", "TEXT", &options->rules.label, "Text to find them by");
    command.flag("--replace", &options->rules.replace, "Overwrite what is there");
    command.flag("--encrypt", &options->rules.encrypt, "Encrypt everything, as keys always are");
    addPassword(command, "--in-password", "the password of encrypted input", options->password);
}

}  // namespace fstore
