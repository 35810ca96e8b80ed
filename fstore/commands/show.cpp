// fstore show: what is known about one record.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/base/files.h"
#include "lib/pki/decode.h"
#include "lib/records/attributes.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "lib/work/object_record.h"

namespace fstore {
namespace {

struct ShowOptions {
    RecordChoice choice;
    std::optional<std::string> sameAs;
    bool unlock = false;
};

// The first certificate of the file: of a chain, the one that the others issued.
SecretBytes certificateIn(const std::string& file) {
    const SecretBytes bytes = InputFile(file).readAll(kMostInput);
    const InputPassword none = [&]() -> const SecretText& {
        throw Failure(kInvalid, "the file is encrypted", file);
    };
    for (PkiPart& part : decodePki(bytes, none)) {
        auto* const object = std::get_if<PkiObject>(&part.content);
        if (object != nullptr && object->kind == Kind::kCertificate) {
            return std::move(object->der);
        }
    }
    throw Failure(kInvalid, fmt::format("{} has no certificate", file), file);
}

// A step of withSecrets().
void requireSame(Database& database, const Address& address, const SecretBytes& certificate,
                 const std::string& file) {
    const Record record = readObject(database, address);
    if (!std::ranges::equal(record.body(), certificate)) {
        throw Failure(kMissing,
                      fmt::format("the certificate in {} is not {}", file, address.print()),
                      address.print());
    }
}

std::string describeBody(const Record& record) {
    if (!record.hasBody()) {
        return "none";
    }
    return record.isReadable() || !record.isBodyEncrypted()
               ? fmt::format("{} bytes{}", record.body().size(),
                             record.isBodyEncrypted() ? ", encrypted" : "")
               : fmt::format("{} bytes of ciphertext", record.body().size());
}

void print(const Record& record, Output& output) {
    const auto line = [&](std::string_view name, std::string_view value) {
        output.field(name, value);
    };
    line("address", record.address().print());
    for (unsigned int i = 0; i < record.count(); ++i) {
        const std::string_view known = attributeName(record.id(i));
        const std::string name =
            known.empty() ? fmt::format("0x{:x}", record.id(i)) : std::string(known);
        const std::string value = record.id(i) == attr::kKind && record.type(i) == kTypeNumber
                                      ? nameOf(infoOf(record).kind)
                                      : valueText(record, i);
        line(name, record.isKnown(i) ? value + (record.isEncrypted(i) ? " (encrypted)" : "")
                                     : "(encrypted; --unlock shows it)");
    }
    line("body", describeBody(record));
}

Status runShow(const ShowOptions& options, Context& context) {
    refuseChoice(options.choice);
    SecretBytes wanted;
    if (options.sameAs) {
        wanted = certificateIn(*options.sameAs);
    }
    const auto show = [&] {
        const Address address = chosen(context.database, options.choice);
        if (options.sameAs) {
            requireSame(context.database, address, wanted, *options.sameAs);
        }
        Record record = Record::read(address);
        if (options.unlock) {
            record.decrypt();
        }
        print(record, context.output);
        Json json = toJson(infoOf(record));
        json["attributes"] = attributesToJson(record);
        context.output.document({{"records", Json::array({json})}});
    };
    const Need need = needFor(options.unlock);
    if (options.choice.address) {
        readNamed(context.database, {&*options.choice.address, 1}, show, need);
    } else {
        withSecrets(context.database, Access::kRead, show, need);
    }
    return kOk;
}

}  // namespace

void addShow(Cli& cli) {
    const auto options = std::make_shared<ShowOptions>();
    Command& command = cli.add("show", "Print the attributes of a record",
                               [options](Context& context) { return runShow(*options, context); });
    addRecordChoice(command, &options->choice);
    command.option("--same-as", "FILE", &options->sameAs,
                   "Fail (50) unless the record is the first certificate of this file");
    command.flag("-u,--unlock", &options->unlock,
                 "Take the password, and show encrypted parts too");
}

}  // namespace fstore
