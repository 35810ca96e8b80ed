// fstore put, fstore get: any bytes as a record's body.
#include "lib/work/put.h"

#include <algorithm>
#include <array>
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/base/digits.h"
#include "lib/base/files.h"
#include "lib/base/printable.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "lib/work/change.h"
#include "lib/work/get.h"
#include "lib/work/meant.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr double kMostRandom = 1 << 20;

struct PutOptions {
    std::string address;
    std::string file;
    PutRules rules;
    std::optional<int> random;
    bool force = false;
};

struct GetOptions {
    std::string address;
    std::string file{kStandardStream};
    bool force = false;
};

// Others have their turn while the user thinks: what they change is asked about again.
void confirmReplacing(const Address& address, const Globals& globals) {
    if (!confirm(fmt::format("Replace the body of {}?", address.print()), globals.noInput)) {
        throw Failure(kInvalid,
                      fmt::format("{} exists and you did not confirm that it is replaced; nothing "
                                  "was changed (--force does not ask)",
                                  address.print()),
                      address.print());
    }
}

SecretBytes readInput(const std::string& file, Context& context) {
    context.standardInput.claimIfNamed(file, "the body");
    return InputFile(file).readAll(Record::kMostBody);
}

Status runPut(const PutOptions& options, Context& context) {
    const Address address = parseNewAddress(options.address);
    refuseInternal(address);  // before the input is waited for
    if (options.file.empty() == !options.random) {
        throw Failure(
            kUsage,
            "name the file to store, or say how many bytes with --random; see `fstore put "
            "--help`");
    }
    SecretBytes bytes = options.random ? randomBytes(static_cast<std::size_t>(*options.random))
                                       : readInput(options.file, context);
    PutRules rules = options.rules;
    rules.isNew = !options.force;
    const auto store = [&, size = bytes.size(), plain = rules.plain] {
        refusePattern(address);
        putBody(context.database, address, bytes, rules);
        context.output.note(fmt::format("stored {}: {} bytes{}", address.print(), size,
                                        plain ? "" : ", encrypted"));
        if (context.output.json()) {
            // As it is on disk: the digest of a secret is one too.
            const RecordInfo stored = infoOf(Record::read(address));
            context.output.document({{"records", Json::array({toJson(stored)})}});
        }
        return kOk;
    };
    const std::array named{AddressText::of(address)};
    const auto change = [&] {
        return changeNamed(context.database, named, store, needFor(!rules.plain));
    };
    for (;;) {
        try {
            return change();
        } catch (const RecordExists& there) {
            if (!rules.replaced.empty()) {
                context.output.warn(
                    fmt::format("{} has been changed in the meantime", address.print()));
            }
            confirmReplacing(address, context.globals);
            rules.replaced = there.state();
        }
    }
}

bool isForTerminals(std::span<const unsigned char> body) {
    const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
    return std::ranges::all_of(text, [](char c) { return c == '\n' || c == '\t' || c >= ' '; }) &&
           isUtf8(text);
}

Status runGet(const GetOptions& options, Context& context) {
    // With --json the document has the body, unless a file gets it.
    const bool inDocument = context.output.json() && options.file == kStandardStream;
    std::optional<OutputFile> file;
    if (!inDocument) {
        file.emplace(options.file, options.force);
    }
    const Record record = readNamed(context.database, {&options.address, 1},
                                    [&] { return readBody(context.database, options.address); });
    Json json = toJson(infoOf(record));
    if (inDocument) {
        json["body"]["bytes"] = toHex(record.body());
    } else if (file->isStandardOutput() && os::isTerminal(os::kStandardOutput) &&
               !isForTerminals(record.body())) {
        throw Failure(kUsage,
                      fmt::format("the body of {} is not text and would garble the terminal; write "
                                  "it to a file with -o",
                                  record.address().print()),
                      record.address().print());
    } else {
        file->write(record.body());
        file->commit();
    }
    context.output.document({{"records", Json::array({json})}});
    return kOk;
}

}  // namespace

void addPut(Cli& cli) {
    const auto options = std::make_shared<PutOptions>();
    Command& command = cli.add("put", "Store the bytes of a file as a record",
                               [options](Context& context) { return runPut(*options, context); });
    command.argument("ADDRESS", &options->address,
                     "FOLDER/NAME of a new record or of one to replace");
    command.argument("FILE", &options->file, "The file; \"-\" is the standard input").required =
        false;
    command.option("--random", "N", Number{&options->random, 1, kMostRandom},
                   "Instead of a file: N random bytes");
    command.option("--label", "TEXT", &options->rules.label, "Text to find it by");
    command.flag("--plain-body", &options->rules.plain, "Do not encrypt it; needs no password");
    command.flag("-f,--force", &options->force, "Replace the body of a record without asking");
}

void addGet(Cli& cli) {
    const auto options = std::make_shared<GetOptions>();
    Command& command = cli.add("get", "Write a record's body to a file",
                               [options](Context& context) { return runGet(*options, context); });
    addAddressToRead(command, &options->address);
    addOutput(command, &options->file);
    addForce(command, &options->force);
}

}  // namespace fstore
