// fstore dump: a record's descriptor as it is on disk.
#include <memory>

#include <fmt/format.h>

#include "format/body_reference.h"
#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/base/files.h"
#include "lib/records/attributes.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"

namespace fstore {
namespace {

struct DumpOptions {
    std::string address;
    bool raw = false;
};

std::string describe(const DescriptorLine& line) {
    using Form = DescriptorLine::Form;
    switch (line.form) {
        case Form::kSkipped:
            return "skipped";
        case Form::kNoNumbers:
            return "damaged: it does not begin with two numbers";
        case Form::kBadData:
            return "damaged: its data is not of its type";
        case Form::kNul:
            return "damaged: it begins with a NUL byte, and nothing is read from there on";
        case Form::kAttribute:
            break;
    }
    const bool encrypted = (line.type & kFlagEncrypted) != 0;
    if (isBodyReference(line.type, line.id)) {
        return fmt::format("body in the file {}{}", bodyNameIn(line.value),
                           encrypted ? ", encrypted" : "");
    }
    const std::string_view name = attributeName(line.id);
    return fmt::format("{} {}{}", typeName(line.type & kTypeMask),
                       name.empty() ? fmt::format("0x{:x}", line.id) : std::string(name),
                       encrypted ? ", encrypted" : "");
}

Status runDump(const DumpOptions& options, Context& context) {
    const Hold hold = context.database.enter(Access::kRead);
    const Address address = resolve(options.address);
    const std::vector<DescriptorLine> lines = readDescriptor(descriptorPath(address));
    Json listed = Json::array();
    for (const DescriptorLine& line : lines) {
        context.output.line(line.text);
        if (!options.raw) {
            context.output.line("    " + describe(line));
        }
        Json one = {{"text", jsonText(line.text)}, {"meaning", jsonText(describe(line))}};
        if (line.hasNumbers()) {
            one["typeNumber"] = line.type;
            one["id"] = line.id;
            one["data"] = jsonText(line.data);
        }
        listed.push_back(std::move(one));
    }
    context.output.document({{"path", jsonText(descriptorPath(address))}, {"lines", listed}});
    return kOk;
}

}  // namespace

void addDump(Cli& cli) {
    const auto options = std::make_shared<DumpOptions>();
    Command& command = cli.add("dump", "Print a record's descriptor as it is on disk",
                               [options](Context& context) { return runDump(*options, context); });
    addAddressToRead(command, &options->address);
    command.flag("--raw", &options->raw, "Print the lines alone, without explanation");
}

}  // namespace fstore
