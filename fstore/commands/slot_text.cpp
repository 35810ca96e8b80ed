#include "fstore/commands/slot_text.h"

#include <algorithm>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "lib/base/time.h"

namespace fstore {
namespace {

// As sentences name it.
std::string wordFor(const UnlockSlot& slot) {
    switch (slot.kind) {
        case SlotKind::kPassword:
            return "password";
        case SlotKind::kRecovery:
            return "recovery key";
        case SlotKind::kFile:
            return "key file";
        case SlotKind::kUnknown:
            break;
    }
    return fmt::format("{}, which this version does not know", slot.kindName);
}

std::string costOf(const UnlockSlot& slot) {
    return slot.kind == SlotKind::kPassword
               ? fmt::format("2^{}, {} MiB", slot.cost.ln, slot.cost.memory() >> 20)
               : std::string();
}

}  // namespace

std::string describe(const UnlockSlot& slot) {
    return slot.label.empty()
               ? fmt::format("slot {} ({})", slot.n, wordFor(slot))
               : fmt::format("slot {} ({} \"{}\")", slot.n, wordFor(slot), slot.label);
}

std::string describe(const std::vector<UnlockSlot>& slots) {
    std::vector<std::string> names;
    names.reserve(slots.size());
    for (const UnlockSlot& slot : slots) {
        names.push_back(describe(slot));
    }
    return fmt::format("{}", fmt::join(names, ", "));
}

void noteOldCopies(Output& output) {
    output.note(
        "who has an old copy of the database, too, can still open it with the old secret; `fstore "
        "passwd --rotate` ends that");
}

const UnlockSlot& slotOf(const std::vector<UnlockSlot>& slots, unsigned int n) {
    return *std::ranges::find(slots, n, &UnlockSlot::n);
}

Table tableOf(const std::vector<UnlockSlot>& slots, std::optional<unsigned int> opened) {
    constexpr std::size_t kDayColumns = 11;  // and an ellipsis
    Table table({{.title = "SLOT", .weight = 4},
                 {.title = "KIND", .weight = 4, .least = 8},
                 {.title = "LABEL", .weight = 4},
                 {.title = "MADE", .weight = 4, .least = kDayColumns},
                 {.title = "COST", .weight = 1, .least = Table::Column::kWhole},
                 {.title = "OPENED", .weight = 2, .least = Table::Column::kWhole}});
    for (const UnlockSlot& slot : slots) {
        table.add({{std::to_string(slot.n)},
                   {nameOfKind(slot)},
                   {slot.label},
                   {printTime(slot.made)},
                   {costOf(slot)},
                   {slot.n == opened ? "yes" : "", Style::kGreen}});
    }
    return table;
}

Json toJson(const UnlockSlot& slot) {
    Json json = {{"slot", slot.n},
                 {"kind", nameOfKind(slot)},
                 {"label", jsonText(slot.label)},
                 {"made", printTime(slot.made)}};
    if (slot.kind == SlotKind::kPassword) {
        json["ln"] = slot.cost.ln;
        json["r"] = slot.cost.r;
        json["p"] = slot.cost.p;
    }
    return json;
}

Json toJson(const std::vector<UnlockSlot>& slots, std::optional<unsigned int> opened) {
    Json list = Json::array();
    for (const UnlockSlot& slot : slots) {
        Json json = toJson(slot);
        if (opened) {
            json["opened"] = slot.n == *opened;
        }
        list.push_back(std::move(json));
    }
    return list;
}

}  // namespace fstore
