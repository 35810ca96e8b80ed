// fstore info: the state of the database.
#include <memory>

#include <fmt/format.h>

#include "format/layout.h"
#include "fstore/commands/commands.h"
#include "fstore/terminal/json.h"
#include "lib/base/files.h"
#include "lib/database/folders.h"
#include "lib/records/record.h"

namespace fstore {
namespace {

std::string describe(const Protection& protection) {
    const Slot& slot = protection.inForce;
    switch (protection.state) {
        case Protection::State::kNone:
            return "none";
        case Protection::State::kRaw:
            return "as it is; a guess is cheap";
        case Protection::State::kScrypt:
            break;
    }
    return fmt::format("scrypt, N=2^{}, r={}, p={}", slot.ln, slot.r, slot.p);
}

const char* nameOf(Protection::State state) {
    switch (state) {
        case Protection::State::kNone:
            return "none";
        case Protection::State::kRaw:
            return "raw";
        case Protection::State::kScrypt:
            break;
    }
    return "scrypt";
}

Json toJson(const Protection& protection) {
    Json json = {{"kind", nameOf(protection.state)}};
    if (protection.state == Protection::State::kScrypt) {
        json["ln"] = protection.inForce.ln;
        json["r"] = protection.inForce.r;
        json["p"] = protection.inForce.p;
    }
    json["changeUnfinished"] = protection.isUnfinished();
    return json;
}

Status run(Context& context) {
    context.session.enter(Access::kRead);
    const Protection& protection = context.session.protection();
    const bool hasOld = folderState().previous;
    Json folders = Json::array();
    std::size_t records = 0;
    Table table({{"FOLDER", false}, {"RECORDS", false}});
    for (const std::string& folder : allFolders()) {
        std::size_t count = 0;
        for (const Address& address : recordsOf(folder)) {
            count += address.isInternal() ? 0 : 1;
        }
        records += count;
        const std::string shown = folder.empty() ? "." : folder;
        table.add({{shown}, {std::to_string(count)}});
        folders.push_back({{"folder", jsonText(shown)}, {"records", count}});
    }
    const std::string here = absolutePath(layout::kLiveName);
    Output& output = context.output;
    output.line(fmt::format("database   {}", here));
    output.line(fmt::format("password   {}", describe(protection)));
    if (protection.isUnfinished()) {
        output.line("           its last change was broken off; opening finishes it");
    }
    if (hasOld) {
        output.line("old_db     is there, with the password before");
    }
    output.line(fmt::format("records    {}", records));
    output.table(table);
    output.document({{"database", jsonText(here)},
                     {"password", toJson(protection)},
                     {"oldDatabase", hasOld},
                     {"records", records},
                     {"folders", folders}});
    return kOk;
}

}  // namespace

void addInfo(Cli& cli) {
    (void)cli.add("info", "Print the state of the database", run);
}

}  // namespace fstore
