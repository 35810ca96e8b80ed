// fstore info: the state of the database.
#include <optional>
#include <string_view>

#include <fmt/format.h>

#include "format/layout.h"
#include "fstore/commands/commands.h"
#include "fstore/commands/slot_text.h"
#include "fstore/terminal/json.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/database/folders.h"
#include "lib/database/lost.h"
#include "lib/records/catalogue.h"

namespace fstore {
namespace {

std::string describe(const ScryptCost& cost) {
    return fmt::format("scrypt, N=2^{}, r={}, p={}", cost.ln, cost.r, cost.p);
}

std::string describe(const Slot& line) {
    switch (line.form) {
        case Slot::Form::kNone:
            return "none";
        case Slot::Form::kRaw:
            return "the key itself, as there are no slots; cheap to guess if it is short";
        case Slot::Form::kScrypt:
            break;
    }
    return describe(ScryptCost{.ln = line.ln, .r = line.r, .p = line.p});
}

std::string lineFor(const UnlockSlot& slot) {
    return fmt::format("{} {}{}{}{}{}", slot.n, nameOfKind(slot), slot.label.empty() ? "" : ", ",
                       slot.label, slot.kind == SlotKind::kPassword ? ", " : "",
                       slot.kind == SlotKind::kPassword ? describe(slot.cost) : "");
}

// A line of the report.
void tell(Output& output, std::string_view text) {
    constexpr std::size_t kIndent = 11;  // where what is told begins
    output.sentence("", Style::kPlain, text, kIndent);
}

void printSlots(const Protection& protection, Output& output) {
    if (protection.inForce.line) {
        tell(output, fmt::format("password   {}", describe(*protection.inForce.line)));
    }
    for (const UnlockSlot& slot : protection.inForce.slots) {
        tell(output, fmt::format("slot       {}", lineFor(slot)));
    }
}

const char* nameOf(Slot::Form form) {
    switch (form) {
        case Slot::Form::kNone:
            return "none";
        case Slot::Form::kRaw:
            return "raw";
        case Slot::Form::kScrypt:
            break;
    }
    return "scrypt";
}

// "slots", and then which; or the kind of a password from before there were slots.
Json toJson(const Protection& protection) {
    Json json;
    if (const std::optional<Slot>& line = protection.inForce.line) {
        json["kind"] = nameOf(line->form);
        if (line->form == Slot::Form::kScrypt) {
            json["ln"] = line->ln;
            json["r"] = line->r;
            json["p"] = line->p;
        }
    } else {
        json["kind"] = "slots";
        json["slots"] = toJson(protection.inForce.slots, {});
    }
    json["changeUnfinished"] = protection.isUnfinished();
    return json;
}

const char* nameOf(LockReach reach) {
    switch (reach) {
        case LockReach::kHost:
            return "host";
        case LockReach::kHosts:
            return "hosts";
        case LockReach::kUnsure:
            break;
    }
    return "unsure";
}

// Only what is not as on the disk of one host; what is unsure there is a warning for.
void printLock(const FolderLock& lock, Output& output) {
    if (!lock.fileFault().empty()) {
        tell(output, fmt::format("lock       of the folder alone, as {} cannot be used: {}",
                                 layout::kLockFile, lock.fileFault()));
    } else if (lock.fileSystem().reach == LockReach::kHosts) {
        tell(output, fmt::format("lock       holds between hosts ({})", lock.fileSystem().name));
    }
}

Json namesOf(const std::vector<LostFolder>& lost) {
    Json names = Json::array();
    for (const LostFolder& each : lost) {
        names.push_back(jsonText(each.name));
    }
    return names;
}

// Without links and dots, where the system can tell.
std::string pathOf(const Place& place) {
    const std::string real = realPath(layout::kLiveName);
    return !real.empty() ? real : absolutePath(joined(place.folder, layout::kLiveName));
}

// A database that another process changes: who that is, and nothing of what is in it.
Status reportWriter(Context& context, const LockHolder& writer) {
    const std::string path =
        absolutePath(joined(context.database.place().folder, layout::kLiveName));
    Output& output = context.output;
    tell(output, fmt::format("database   {}", path));
    tell(output, "busy       " + writer.describe());
    output.document({{"database", jsonText(path)},
                     {"writer",
                      {{"program", jsonText(writer.program)},
                       {"pid", writer.pid},
                       {"host", jsonText(writer.host)},
                       {"since", printTime(writer.since)}}}});
    return kAlreadyOpen;
}

Status report(Context& context) {
    const Protection& protection = context.database.protection();
    const bool hasOld = folderState().previous;
    Json folders = Json::array();
    std::size_t records = 0;
    Table table({{.title = "FOLDER", .cut = Table::Cut::kInside},
                 {.title = "RECORDS", .least = Table::Column::kWhole}});
    Unread unread;
    for (const std::string& folder : allFolders(&unread)) {
        std::size_t count = 0;
        for (const Address& address : recordsIn(folder)) {
            count += address.isInternal() ? 0 : 1;
        }
        records += count;
        const std::string shown = folder.empty() ? "." : folder;
        table.add({{shown}, {std::to_string(count)}});
        folders.push_back({{"folder", jsonText(shown)}, {"recordCount", count}});
    }
    const std::string here = pathOf(context.database.place());
    Output& output = context.output;
    tell(output, fmt::format("database   {}", here));
    printSlots(protection, output);
    if (protection.isUnfinished()) {
        tell(output,
             fmt::format("           its last change was interrupted; opening the database {} it",
                         protection.isUndone() ? "undoes" : "finishes"));
    }
    if (hasOld) {
        tell(output, protection.isUnfinished() && !protection.keepOld
                         ? "old_db     is from before that change, and goes when it is finished"
                         : "old_db     is kept, with the old password");
    }
    const std::vector<std::string> kept = keptDatabases();
    for (const std::string& each : kept) {
        tell(output, fmt::format("kept       {}", each));
    }
    const std::vector<LostFolder> lost = lostFolders();
    for (const LostFolder& each : lost) {
        tell(output, fmt::format("moved away {}", describe(each)));
    }
    const FolderLock& lock = context.database.lock();
    printLock(lock, output);
    tell(output, fmt::format("records    {}", records));
    output.table(table);
    for (const Failure& failure : unread) {
        output.warn(failure.what());
    }
    output.document({{"database", jsonText(here)},
                     {"password", toJson(protection)},
                     {"oldDatabase", hasOld},
                     {"kept", Json::array(kept)},
                     {"lost", namesOf(lost)},
                     {"lock",
                      {{"isFile", lock.fileFault().empty()},
                       {"fileSystem", jsonText(lock.fileSystem().name)},
                       {"reach", nameOf(lock.fileSystem().reach)}}},
                     {"recordCount", records},
                     {"folders", folders}});
    return unread.empty() ? kOk : kPartial;
}

Status runInfo(Context& context) {
    try {
        const Hold hold = context.database.enter(Access::kRead);
        return report(context);
    } catch (const Failure& failure) {
        const std::optional<LockHolder> writer =
            failure.status() == kAlreadyOpen ? context.database.lock().writer() : std::nullopt;
        if (!writer) {
            throw;
        }
        return reportWriter(context, *writer);
    }
}

}  // namespace

void addInfo(Cli& cli) {
    (void)cli.add("info", "Print the state of the database", runInfo);
}

}  // namespace fstore
