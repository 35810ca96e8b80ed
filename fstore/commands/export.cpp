// fstore export: objects in the forms in which other programs read them.
#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "fstore/terminal/json.h"
#include "lib/base/digits.h"
#include "lib/base/files.h"
#include "lib/database/deep_read.h"
#include "lib/pki/chain.h"
#include "lib/pki/encode.h"
#include "lib/pki/object.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr int kStdout = 1;

enum class Format { kPem, kDer, kPkcs12 };

struct Options {
    std::string address;
    std::string file{kStandardStream};
    Format format = Format::kPem;
    bool chain = false;
    bool plain = false;
    bool force = false;
    PasswordOptions password;
};

// What is exported: the object of the address, and what goes with it.
struct Selection {
    RecordInfo info;                        // of the address
    std::optional<SecretBytes> key;         // PKCS#8
    std::vector<SecretBytes> certificates;  // the key's own first, then its issuers
    SecretBytes other;                      // a CRL or request
    bool chainIsComplete = true;
};

// A certificate or key of the database that may go with the one of the address.
struct Candidate {
    RecordInfo info;
    SecretBytes der;
};

SecretBytes bodyOf(const Record& record) {
    return {record.body().begin(), record.body().end()};
}

Record readReadable(const Address& address, Database& database) {
    Record record = Record::read(address);
    if (record.hasSecrets()) {
        database.needSecrets();
        record.decrypt();
    }
    checkBody(record);
    return record;
}

std::vector<Candidate> candidatesOf(Kind kind, Database& database) {
    std::vector<Candidate> found;
    Unread elsewhere;  // as damaged records
    for (const Address& address : allRecords(&elsewhere)) {
        try {
            if (infoOf(RecordHead::read(address)).kind == kind) {
                const Record record = readReadable(address, database);
                found.push_back({infoOf(record), bodyOf(record)});
            }
        } catch (const Failure&) {
            continue;  // skip damaged records
        }
    }
    return found;
}

// The one for this public key; of several the one that ends last.
std::optional<Candidate> candidateFor(const std::string& keySha256,
                                      std::vector<Candidate> candidates) {
    std::erase_if(candidates, [&](const Candidate& candidate) {
        return candidate.info.keySha256 != keySha256 || keySha256.empty();
    });
    const auto last = std::ranges::max_element(candidates, {}, [](const Candidate& candidate) {
        return candidate.info.notAfter;  // none comes before all
    });
    return last == candidates.end() ? std::nullopt : std::optional(std::move(*last));
}

void addChain(Selection& selection, std::vector<Candidate> known) {
    if (selection.certificates.empty()) {
        return;
    }
    std::vector<SecretBytes> ders;
    ders.reserve(known.size());
    for (Candidate& candidate : known) {
        ders.push_back(std::move(candidate.der));
    }
    const Chain chain = chainOf(selection.certificates.front(), ders);
    for (const std::size_t issuer : chain.issuers) {
        selection.certificates.push_back(ders[issuer]);
    }
    selection.chainIsComplete = chain.complete;
}

void refuseUnlessExportable(const RecordInfo& info, const Options& options) {
    const bool known = info.kind == Kind::kCertificate || info.kind == Kind::kKey ||
                       info.kind == Kind::kCrl || info.kind == Kind::kRequest;
    if (!known || !info.hasBody) {
        throw Failure(
            kInvalid,
            fmt::format("{} is a {}, which has no such format; `fstore get` writes its body",
                        info.address.print(), nameOf(info.kind)),
            info.address.print());
    }
    const bool alone = info.kind == Kind::kCrl || info.kind == Kind::kRequest;
    if (alone && (options.chain || options.format == Format::kPkcs12)) {
        throw Failure(kInvalid,
                      fmt::format("{} is a {}, which has no chain and does not go into PKCS#12",
                                  info.address.print(), nameOf(info.kind)),
                      info.address.print());
    }
}

// A step of withSecrets().
Selection select(const Options& options, Database& database) {
    const Record record = readReadable(resolve(options.address), database);
    Selection selection;
    selection.info = infoOf(record);
    refuseUnlessExportable(selection.info, options);
    const bool asPkcs12 = options.format == Format::kPkcs12;
    switch (selection.info.kind) {
        case Kind::kKey:
            selection.key = bodyOf(record);
            if (asPkcs12 || options.chain) {
                auto own = candidateFor(selection.info.keySha256,
                                        candidatesOf(Kind::kCertificate, database));
                if (own) {
                    selection.certificates.push_back(std::move(own->der));
                }
            }
            break;
        case Kind::kCertificate:
            selection.certificates.push_back(bodyOf(record));
            if (asPkcs12) {
                auto key =
                    candidateFor(selection.info.keySha256, candidatesOf(Kind::kKey, database));
                if (key) {
                    selection.key = std::move(key->der);
                }
            }
            break;
        default:
            selection.other = bodyOf(record);
            break;
    }
    if (options.chain) {
        addChain(selection, candidatesOf(Kind::kCertificate, database));
    }
    return selection;
}

void append(SecretBytes& bytes, const SecretBytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

SecretBytes encodePem(const Selection& selection, const SecretText* password) {
    SecretBytes text;
    if (selection.key) {
        append(text, password != nullptr ? pemOfEncrypted(encryptedKey(*selection.key, *password))
                                         : pemOf(Kind::kKey, *selection.key));
    }
    for (const SecretBytes& certificate : selection.certificates) {
        append(text, pemOf(Kind::kCertificate, certificate));
    }
    if (!selection.other.empty()) {
        append(text, pemOf(selection.info.kind, selection.other));
    }
    return text;
}

SecretBytes encodeDer(const Selection& selection, const SecretText* password) {
    if (selection.key) {
        return password != nullptr ? encryptedKey(*selection.key, *password) : *selection.key;
    }
    return selection.certificates.empty() ? selection.other : selection.certificates.front();
}

SecretBytes encodePkcs12(const Selection& selection, const SecretText* password) {
    Pkcs12Content content;
    if (selection.key) {
        content.key = *selection.key;
    }
    content.certificates.assign(selection.certificates.begin(), selection.certificates.end());
    content.label =
        selection.info.label.empty() ? selection.info.address.name : selection.info.label;
    return pkcs12Of(content, password);
}

SecretBytes encode(const Selection& selection, Format format, const SecretText* password) {
    switch (format) {
        case Format::kPem:
            return encodePem(selection, password);
        case Format::kDer:
            return encodeDer(selection, password);
        case Format::kPkcs12:
            break;
    }
    return encodePkcs12(selection, password);
}

Json describe(const Selection& selection, const Options& options, bool encrypted) {
    constexpr const char* kNames[] = {"pem", "der", "p12"};
    return {{"records", Json::array({toJson(selection.info)})},
            {"format", kNames[static_cast<int>(options.format)]},
            {"key", selection.key.has_value()},
            {"certificates", selection.certificates.size()},
            {"encrypted", encrypted}};
}

void refuseOptions(const Options& options, bool inDocument) {
    if (options.chain && options.format == Format::kDer) {
        throw Failure(kUsage, "--chain needs --format pem or p12: DER is one object");
    }
    if (options.format != Format::kPem && options.file == kStandardStream && !inDocument &&
        os::isTerminal(kStdout)) {
        throw Failure(
            kUsage,
            "this format is not text and would garble the terminal; write it to a file with -o");
    }
}

Status run(const Options& options, Context& context) {
    // With --json the document has what is exported, unless a file gets it.
    const bool inDocument = context.output.json() && options.file == kStandardStream;
    refuseOptions(options, inDocument);
    std::optional<OutputFile> file;
    if (!inDocument) {
        file.emplace(options.file, options.force);
    }
    PasswordSource password(PasswordSource::Which::kOutput, options.password,
                            context.globals.noInput, context.output, context.standardInput);
    // Nobody has to wait while a password is typed.
    const Selection selection = withSecrets(context.database, Access::kRead,
                                            [&] { return select(options, context.database); });
    const bool encrypted = !options.plain && (selection.key || options.format == Format::kPkcs12);
    const SecretText* const secret =
        encrypted ? &password.get(PasswordSource::Entry::kTwice) : nullptr;
    const SecretBytes bytes = encode(selection, options.format, secret);
    Json json = describe(selection, options, encrypted);
    if (!selection.chainIsComplete) {
        context.output.warn("the chain ends before a root: its next issuer is not in the database");
    }
    if (!inDocument) {
        file->write(bytes);
        file->commit();
    } else if (options.format == Format::kPem) {
        json["text"] = std::string(bytes.begin(), bytes.end());
    } else {
        json["bytes"] = toHex(bytes);
    }
    context.output.document(json);
    return kOk;
}

}  // namespace

void addExport(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command = cli.add("export", "Write an object for other programs",
                               [options](Context& context) { return run(*options, context); });
    addAddress(command, &options->address);
    addOutput(command, &options->file);
    command.option("--format", "FORMAT",
                   Choice(&options->format,
                          {{"pem", Format::kPem}, {"der", Format::kDer}, {"p12", Format::kPkcs12}}),
                   "pem, der or p12 (PKCS#12)");
    command.flag("--chain", &options->chain, "Add the certificate's issuers, up to the root");
    command.flag("--plain", &options->plain, "Do not encrypt a key or PKCS#12");
    addForce(command, &options->force);
    addPassword(command, "--out-password", "the password for the exported file", options->password);
}

}  // namespace fstore
