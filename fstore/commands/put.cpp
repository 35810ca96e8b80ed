// fstore put, fstore get: any bytes as a record's body.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/change.h"
#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/base/digits.h"
#include "lib/base/files.h"
#include "lib/base/printable.h"
#include "lib/base/sha256.h"
#include "lib/base/time.h"
#include "lib/database/deep_read.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr int kStdout = 1;

struct PutOptions {
    std::string address;
    std::string file;
    std::string label;
    bool plain = false;
};

struct GetOptions {
    std::string address;
    std::string file{kStandardStream};
    bool force = false;
};

// The record that gets the body, readable: what is there, or a new one.
Record recordFor(Database& database, const Address& address) {
    if (!Record::isThere(address)) {
        requireFolder(address.folder);
        Record record(address);
        record.setNumber(attr::kSchema, 1);
        record.setNumber(attr::kKind, static_cast<unsigned int>(Kind::kRaw));
        return record;
    }
    Record record = Record::read(address);
    const Kind kind = infoOf(record).kind;
    if (kind != Kind::kRaw && kind != Kind::kUnknown) {
        throw Failure(kInvalid,
                      fmt::format("{} is a {}; replace it with `fstore import --replace`, or "
                                  "remove it with `fstore rm`",
                                  address.print(), nameOf(kind)),
                      address.print());
    }
    if (record.hasSecrets()) {
        database.needSecrets();
        record.decrypt();
    }
    return record;
}

// A step of withSecrets(). Gives the bytes' memory back before it writes: one copy less.
void putBody(const PutOptions& options, const Address& address, SecretBytes& bytes,
             Database& database) {
    if (!options.plain) {
        database.requireSecrecy();
    }
    Record record = recordFor(database, address);
    // A plaintext digest would let anyone test guesses of a weak secret.
    record.setBinary(attr::kSha256, sha256(bytes), /*encrypted=*/!options.plain);
    record.setText(attr::kImported, printTime(now()));
    if (!options.label.empty()) {
        record.setText(attr::kLabel, options.label);
    }
    record.setBody(bytes, !options.plain);
    bytes = SecretBytes();
    BodyOwners owners;
    record.write(owners);
}

Status runPut(const PutOptions& options, Context& context) {
    const Address address = parseNewAddress(options.address);
    refuseInternal(address);
    context.standardInput.claimIfNamed(options.file, "the body");
    SecretBytes bytes = InputFile(options.file).readAll(Record::kMostBody);
    if (bytes.empty() && options.plain) {
        throw Failure(kInvalid,
                      "an empty body cannot be stored in plain form; leave out --plain-body");
    }
    const auto store = [&, size = bytes.size()] {
        putBody(options, address, bytes, context.database);
        context.output.note(fmt::format("stored {}: {} bytes{}", address.print(), size,
                                        options.plain ? "" : ", encrypted"));
        if (context.output.json()) {
            // As it is on disk: the digest of a secret is one too.
            const RecordInfo stored = infoOf(Record::read(address));
            context.output.document({{"records", Json::array({toJson(stored)})}});
        }
        return kOk;
    };
    return withSecrets(context.database, Access::kChange, store, needFor(!options.plain));
}

bool isForTerminals(std::span<const unsigned char> body) {
    const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
    return std::ranges::all_of(text, [](char c) { return c == '\n' || c == '\t' || c >= ' '; }) &&
           isUtf8(text);
}

bool hasUnknownDigest(const Record& record) {
    const auto digest = record.find(kTypeBinary, attr::kSha256);
    return digest && !record.isKnown(*digest);
}

// A step of withSecrets(). What it returns is the body that the record was given, where its digest
// can tell.
Record readBody(Database& database, const std::string& text) {
    Record record = Record::read(resolve(text));
    if (record.isBodyEncrypted() || hasUnknownDigest(record)) {
        database.needSecrets();
        record.decrypt();
    }
    if (!record.hasBody()) {
        throw Failure(kEnd, fmt::format("{} has no body", record.address().print()),
                      record.address().print());
    }
    checkBody(record);
    return record;
}

Status runGet(const GetOptions& options, Context& context) {
    // With --json the document has the body, unless a file gets it.
    const bool inDocument = context.output.json() && options.file == kStandardStream;
    std::optional<OutputFile> file;
    if (!inDocument) {
        file.emplace(options.file, options.force);
    }
    const Record record = withSecrets(context.database, Access::kRead,
                                      [&] { return readBody(context.database, options.address); });
    Json json = toJson(infoOf(record));
    if (inDocument) {
        json["body"]["bytes"] = toHex(record.body());
    } else if (file->isStandardOutput() && os::isTerminal(kStdout) &&
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
    command.argument("FILE", &options->file, "The file; \"-\" is the standard input");
    command.option("--label", "TEXT", &options->label, "Text to find it by");
    command.flag("--plain-body", &options->plain, "Do not encrypt it; needs no password");
}

void addGet(Cli& cli) {
    const auto options = std::make_shared<GetOptions>();
    Command& command = cli.add("get", "Write a record's body to a file",
                               [options](Context& context) { return runGet(*options, context); });
    addAddress(command, &options->address);
    addOutput(command, &options->file);
    addForce(command, &options->force);
}

}  // namespace fstore
