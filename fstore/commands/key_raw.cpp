// fstore key raw: the database's own key, for a program that hosts the module itself.
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "fstore/commands/beside_database.h"
#include "fstore/commands/key_commands.h"
#include "fstore/terminal/json.h"
#include "lib/base/files.h"
#include "lib/base/new_file.h"
#include "os/terminal.h"

namespace fstore {
namespace {

struct KeyRawOptions {
    std::optional<std::string> file;
    std::optional<int> fd;
};

// Where the key goes, opened before the database is. A terminal keeps what it shows, and a document
// never has a secret.
OutputFile outputOf(const KeyRawOptions& options, bool json) {
    if (options.file.has_value() == options.fd.has_value()) {
        throw Failure(kUsage, "name a new file with -o, or an open descriptor with --fd");
    }
    if (options.file) {
        requireNewFile(*options.file);
        return OutputFile(*options.file, /*replace=*/false);
    }
    if (os::isTerminal(*options.fd) || (json && *options.fd == os::kStandardOutput)) {
        throw Failure(kUsage, fmt::format("descriptor {} is a terminal or has the document; write "
                                          "the key to a file with -o",
                                          *options.fd));
    }
    return OutputFile(fmt::format("/dev/fd/{}", *options.fd), /*replace=*/false);
}

Status runKeyRaw(const KeyRawOptions& options, Context& context) {
    OutputFile output = outputOf(options, context.output.json());
    Database& database = context.database;
    {
        const Hold hold = database.enter(Access::kRead, Need::kSecrets);
        database.requireSecrecy();
        const SecretText& p = database.p();
        output.write({reinterpret_cast<const unsigned char*>(p.c_str()), p.size()});
    }
    output.commit();
    if (options.file) {
        warnIfBeside("raw key", *options.file, context);
    }
    const std::string where =
        options.file ? *options.file : fmt::format("descriptor {}", *options.fd);
    context.output.note(
        fmt::format("wrote the key of the database to {}; it opens nothing after the next `fstore "
                    "passwd --rotate`",
                    where));
    context.output.document(
        {{"folder", jsonText(database.place().folder)}, {"output", jsonText(where)}});
    return kOk;
}

}  // namespace

void addKeyRaw(Command& key) {
    const auto options = std::make_shared<KeyRawOptions>();
    Command& command =
        key.subcommand("raw", "Write the database's own key, for a program that hosts the module",
                       [options](Context& context) { return runKeyRaw(*options, context); });
    command.option("-o,--output", "FILE", &options->file, "A new file, readable by its owner only");
    command
        .option("--fd", "N", Number{&options->fd, 0, std::numeric_limits<int>::max()},
                "An open descriptor, not of a terminal")
        .excludes = {"--output"};
}

}  // namespace fstore
