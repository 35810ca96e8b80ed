// fstore set, fstore unset: a record's attributes.
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/assignment.h"
#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/records/kept_type.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "lib/work/change.h"

namespace fstore {
namespace {

struct SetOptions {
    std::string address;
    std::vector<std::string> assignments;
    bool encrypt = false;
};

struct UnsetOptions {
    std::string address;
    std::vector<std::string> ids;
};

// As it is on disk, so that what was given to be kept encrypted is not told.
void tell(const Address& address, Output& output) {
    const Record stored = Record::read(address);
    Json json = toJson(infoOf(stored));
    json["attributes"] = attributesToJson(stored);
    output.document({{"records", Json::array({json})}});
    output.detail(fmt::format("changed {}", address.print()));
}

Status runSet(const SetOptions& options, Context& context) {
    std::vector<Assignment> assignments;
    for (const std::string& text : options.assignments) {
        assignments.push_back(Assignment::parse(text, context.standardInput));
    }
    return changeNamed(context.database, namesIn({&options.address, 1}), [&] {
        Record record = readForChange(context.database, options.address, options.encrypt);
        for (const Assignment& assignment : assignments) {
            assignment.applyTo(record, options.encrypt);
        }
        BodyOwners owners(Lookup::current());
        record.write(owners);
        tell(record.address(), context.output);
        return kOk;
    });
}

// `names` are what the user calls them.
void removeAttributes(Record& record, const std::vector<unsigned int>& ids,
                      const std::vector<std::string>& names) {
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (record.removeAll(ids[i]) == 0) {
            throw Failure(kEnd,
                          fmt::format("{} has no attribute {}; nothing was changed",
                                      record.address().print(), names[i]),
                          record.address().print());
        }
        keepType(record, ids[i], kTypeBinary);
    }
}

Status runUnset(const UnsetOptions& options, Context& context) {
    std::vector<unsigned int> ids;
    for (const std::string& text : options.ids) {
        ids.push_back(parseEditableId(text));
    }
    return changeNamed(context.database, namesIn({&options.address, 1}), [&] {
        Record record = readForChange(context.database, options.address, /*getsSecret=*/false);
        removeAttributes(record, ids, options.ids);
        BodyOwners owners(Lookup::current());
        record.write(owners);
        tell(record.address(), context.output);
        return kOk;
    });
}

}  // namespace

void addSet(Cli& cli) {
    const auto options = std::make_shared<SetOptions>();
    Command& command = cli.add("set", "Set a record's label or attributes of your own",
                               [options](Context& context) { return runSet(*options, context); });
    addAddress(command, &options->address);
    command.argument("ASSIGNMENT", &options->assignments,
                     "label=TEXT or ID[:TYPE]=VALUE; ID from 0x8000 on, TYPE number, binary, "
                     "string or text, VALUE @FILE for the contents of a file");
    command.flag("--encrypt", &options->encrypt, "Encrypt the values, as binary attributes");
}

void addUnset(Cli& cli) {
    const auto options = std::make_shared<UnsetOptions>();
    Command& command = cli.add("unset", "Remove a record's label or attributes of your own",
                               [options](Context& context) { return runUnset(*options, context); });
    addAddress(command, &options->address);
    command.argument("ID", &options->ids, "label, or a number from 0x8000 on");
}

}  // namespace fstore
