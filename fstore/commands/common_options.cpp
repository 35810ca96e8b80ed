#include "fstore/commands/common_options.h"

#include <limits>
#include <string>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/slots.h"
#include "lib/records/catalogue.h"
#include "lib/work/select.h"
#include "os/links.h"

namespace fstore {
namespace {

constexpr const char* kAddress = "ADDRESS";
constexpr const char* kCost = "Cost of a guess at the password: 14 to 20, each step doubles it";
constexpr const char* kAddressText = "FOLDER/NAME, a unique NAME, or sha256:PREFIX";
constexpr const char* kMeantText =
    "FOLDER/NAME, a unique NAME, label, beginning or pattern, or sha256:PREFIX";

}  // namespace

void addAddress(Command& command, std::string* target) {
    command.argument(kAddress, target, kAddressText);
}

void addAddressToRead(Command& command, std::string* target) {
    command.argument(kAddress, target, kMeantText);
    command.readsMeant(target);
}

void addAddresses(Command& command, std::vector<std::string>* target) {
    command.argument(kAddress, target, kAddressText);
}

void addRecordChoice(Command& command, RecordChoice* target) {
    using Type = Selector::Type;
    command.argument(kAddress, &target->address, kMeantText).required = false;
    command.readsMeant(&target->address);
    command.option("--for", "HOST", &target->host,
                   "Instead of ADDRESS: what serves this host now, by its certificate in force");
    command.option("--type", "TYPE",
                   Choice(&target->type, {{"cert", Type::kCertificate}, {"key", Type::kKey}}),
                   "With --for: cert, the default, or key");
    command.option("--alg", "NAME", &target->algorithm,
                   "With --for: the key's algorithm, RSA, EC*");
}

void refuseChoice(const RecordChoice& choice) {
    if (choice.address.has_value() == choice.host.has_value()) {
        throw Failure(kUsage,
                      "name the record by ADDRESS or by --for HOST, one of the two; "
                      "see `fstore --help`");
    }
    if (choice.host) {
        (void)hostNameOf(*choice.host);
    }
}

Address chosen(Database& database, const RecordChoice& choice) {
    if (choice.address) {
        return resolve(*choice.address);
    }
    const Selector selector{hostNameOf(*choice.host), choice.type, choice.algorithm};
    const Selected selected = select(database, selector);
    for (const Failure& failure : selected.leftOut) {
        database.observer().warn(fmt::format("passed over: {}", failure.what()));
    }
    for (const std::string& warning : selected.warnings) {
        database.observer().warn(warning);
    }
    return mainOf(selected, selector.type).address;
}

std::string thisProgram() {
    constexpr const char* kSelf = "/proc/self/exe";
    auto path = os::readLink(kSelf);
    if (!path) {
        failWithErrno("read the link", kSelf);
    }
    return *std::move(path);
}

void warnWithoutDatabase(const Globals& globals, Output& output) {
    const std::string folder = absolutePath(globals.folder);
    bool isThere = false;
    try {
        isThere =
            exists(joined(folder, layout::kLive)) || exists(joined(folder, layout::kPrevious));
    } catch (const Failure&) {
        return;  // whoever runs what is written may look into the folder
    }
    if (!isThere) {
        output.warn(fmt::format(
            "there is no database in {} yet; `fstore init` makes one, --dir names another folder",
            folder));
    }
}

void addCost(Command& command, unsigned int* target) {
    command.option("--cost", "LN", Number{target, UnlockSlot::kLeastLn, UnlockSlot::kMostLn}, kCost)
        .showsDefault = true;
}

void addCost(Command& command, std::optional<int>* target) {
    command.option("--cost", "LN", Number{target, UnlockSlot::kLeastLn, UnlockSlot::kMostLn},
                   kCost);
}

void addFilters(Command& command, Filters& target) {
    command.startGroup("Filters (a record must pass all)");
    command.option("--expires-within", "PERIOD", &target.expiresWithin,
                   "Has expired, or will within a period: 30d, 12h, 2w, 1y");
    command.flag("--expired", &target.expired, "Has expired");
    command.option("--subject", "GLOB", &target.subject, "Subject: a pattern, or a part of it");
    command.option("--issuer", "GLOB", &target.issuer, "Issuer");
    command.option("--san", "GLOB", &target.altName,
                   "Subject alternative name: a pattern, or a part of it");
    command.option("--serial", "HEX", &target.serial, "Serial number");
    command.option("--sha256", "HEX", &target.sha256, "SHA-256 of the body: its first digits");
    command.option("--alg", "NAME", &target.algorithm, "Key algorithm: RSA, RSA-2048, EC*");
    command.flag("--has-key", &target.hasKey,
                 "Certificates and requests whose key is in the database");
    command
        .flag("--no-key", &target.noKey,
              "Certificates and requests whose key is not in the database")
        .excludes = {"--has-key"};
    command.option("--attr", "ID[=VALUE]", &target.attributes,
                   "Attribute, by id or name, and its value");
    command.startGroup({});
}

void addForce(Command& command, bool* target) {
    command.flag("-f,--force", target, "Replace a file that exists");
}

void addOutput(Command& command, std::string* target) {
    command.option("-o,--output", "FILE", target, "The file, readable by its owner only");
}

void addPassword(Command& command, const std::string& prefix, const std::string& what,
                 PasswordOptions& target) {
    command.option(prefix + "-file", "FILE", &target.file,
                   "Read " + what + " from a file; \"-\" is the standard input");
    command
        .option(prefix + "-fd", "N", Number{&target.fd, 0, std::numeric_limits<int>::max()},
                "Read " + what + " from an open descriptor")
        .excludes = {prefix + "-file"};
}

}  // namespace fstore
