// fstore ref: a file that stands for a record where a program wants a key or certificate.
#include <memory>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/terminal/json.h"
#include "lib/base/files.h"
#include "lib/work/reference.h"
#include "lib/work/select.h"

namespace fstore {
namespace {

struct RefOptions {
    std::string record;
    std::string file{kStandardStream};
    bool isPrivate = false;
    bool force = false;
};

RecordUri uriOf(const std::string& text) {
    return isUri(text) ? parseUri(text) : RecordUri{text, std::nullopt};
}

// A reference is taken for what it names by programs that load keys, certificates and CRLs.
void warnOfOthers(Kind kind, const RecordUri& uri, Output& output) {
    if (kind == Kind::kRequest || kind == Kind::kRaw) {
        output.warn(
            fmt::format("{} is no key, certificate or CRL but of kind {}; no program can load it "
                        "by this reference",
                        uri.path, nameOf(kind)));
    }
}

struct Checked {
    RecordUri uri;
    Kind kind;
};

// The record whose address is given in full, so that the reference does not become ambiguous with
// the next import; a selector stays as it is. Throws what meaningOf() throws: a reference to
// nothing would show in a server's log only.
Checked checkedUri(Database& database, const std::string& text) {
    RecordUri uri = uriOf(text);
    const Meaning meaning = meaningOf(database, uri);
    if (meaning.isFolder) {
        throw Failure(kInvalid, fmt::format("{} is a folder; a reference is to one record", text));
    }
    if (!uri.selector) {
        uri.path = meaning.records.front().address.print();
    }
    return {std::move(uri), meaning.records.front().kind};
}

Status runRef(const RefOptions& options, Context& context) {
    OutputFile file(options.file, options.force);
    const auto [uri, kind] = withSecrets(context.database, Access::kRead, [&] {
        return checkedUri(context.database, options.record);
    });
    warnOfOthers(kind, uri, context.output);
    const std::string text = referenceOf(uri);
    const bool inDocument = context.output.json() && file.isStandardOutput();
    Json json = {{"uri", printUri(uri)}};
    if (inDocument) {
        json["text"] = text;
    } else {
        if (!options.isPrivate) {
            file.allow(kReadableByAll);  // a server's workers read it, too
        }
        file.write({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
        file.commit();
    }
    context.output.document(json);
    return kOk;
}

}  // namespace

void addRef(Cli& cli) {
    const auto options = std::make_shared<RefOptions>();
    Command& command = cli.add("ref", "Write a file that stands for a record",
                               [options](Context& context) { return runRef(*options, context); });
    command.argument("ADDRESS", &options->record,
                     "An address, or a URI: fstore:///?for=www.example.com&type=key");
    command.readsMeant(&options->record);
    command.option("-o,--output", "FILE", &options->file,
                   "The file, readable by all: it holds no secret");
    command.flag("--private", &options->isPrivate,
                 "Readable by its owner only, for programs that insist");
    addForce(command, &options->force);
}

}  // namespace fstore
