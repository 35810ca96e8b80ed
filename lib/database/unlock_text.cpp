#include "lib/database/unlock_text.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "lib/base/time.h"

namespace fstore {
namespace {

constexpr std::string_view kEndLine = "end sha256=";
constexpr std::string_view kSmallDigits = "0123456789abcdef";

// The kinds that have a name here; any other is unknown.
constexpr struct {
    SlotKind kind;
    std::string_view name;
} kKinds[] = {{SlotKind::kPassword, "password"},
              {SlotKind::kRecovery, "recovery"},
              {SlotKind::kFile, "file"}};

bool isDecimal(char c) {
    return c >= '0' && c <= '9';
}

// One line, read from its beginning to its end.
class Line {
public:
    Line(std::string_view text, std::size_t number) : rest_(text), number_(number) {}

    [[noreturn]] void fail(const std::string& why) const {
        throw Failure(kMalformed, fmt::format("line {}: {}", number_, why));
    }

    // Takes "<head>" off the front.
    bool skip(std::string_view head) {
        if (!rest_.starts_with(head)) {
            return false;
        }
        rest_.remove_prefix(head.size());
        return true;
    }

    // Takes "<head><word>" off the front, a word being what comes before the next blank.
    std::string_view word(std::string_view head) {
        if (!skip(head)) {
            fail(fmt::format("\"{}\" is missing", head.substr(head.find_first_not_of(' '))));
        }
        const std::string_view found = rest_.substr(0, rest_.find(' '));
        rest_.remove_prefix(found.size());
        return found;
    }

    // A number in its shortest form.
    std::uint32_t number(std::string_view head, std::uint32_t least, std::uint32_t most) {
        const std::string_view digits = word(head);
        const bool isShort = !digits.empty() && digits.size() <= 10 && digits[0] != '0' &&
                             std::ranges::all_of(digits, isDecimal);
        std::uint64_t value = 0;
        for (const char c : isShort ? digits : std::string_view()) {
            value = value * 10 + static_cast<unsigned int>(c - '0');
        }
        if (!isShort || value < least || value > most) {
            fail(fmt::format("\"{}\" is not a number from {} to {}",
                             head.substr(head.find_first_not_of(' ')), least, most));
        }
        return static_cast<std::uint32_t>(value);
    }

    // As many bytes as the array has, in hexadecimal digits of lower case.
    template <std::size_t N>
    void bytes(std::string_view head, std::array<unsigned char, N>& value) {
        const std::string_view digits = word(head);
        const bool isHex = digits.size() == 2 * N &&
                           digits.find_first_not_of(kSmallDigits) == std::string_view::npos;
        const auto read = isHex ? fromHex(digits) : std::nullopt;
        if (!read) {
            fail(fmt::format("\"{}\" does not have {} hexadecimal digits",
                             head.substr(head.find_first_not_of(' ')), 2 * N));
        }
        std::ranges::copy(*read, value.begin());
    }

    void finish() const {
        if (!rest_.empty()) {
            fail("there is more than belongs into it");
        }
    }

private:
    std::string_view rest_;
    std::size_t number_;  // for messages; the first line has 1
};

bool isPlainInLabel(unsigned char c) {
    return c >= 0x21 && c <= 0x7e && c != '\\';
}

std::string escapedLabel(std::string_view label) {
    std::string text;
    for (const char c : label) {
        const auto byte = static_cast<unsigned char>(c);
        isPlainInLabel(byte) ? text.push_back(c)
                             : static_cast<void>(text += fmt::format("\\{:02x}", byte));
    }
    return text;
}

// None unless escapedLabel() writes it so.
std::optional<std::string> unescapedLabel(std::string_view text) {
    std::string label;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            label.push_back(text[i]);
            continue;
        }
        const auto byte = fromHex(text.substr(i + 1, 2));
        if (!byte || byte->size() != 1) {
            return std::nullopt;
        }
        label.push_back(static_cast<char>(byte->front()));
        i += 2;
    }
    return escapedLabel(label) == text ? std::optional(label) : std::nullopt;
}

bool isKindName(std::string_view name) {
    return !name.empty() && name.size() <= UnlockSlot::kMostKindName &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") ==
               std::string_view::npos;
}

void readKind(Line& line, UnlockSlot& slot) {
    const std::string_view name = line.word(" kind=");
    if (!isKindName(name)) {
        line.fail("\"kind=\" is not 1 to 16 of a-z, 0-9 and -");
    }
    const auto known = std::ranges::find(kKinds, name, [](const auto& each) { return each.name; });
    slot.kind = known != std::end(kKinds) ? known->kind : SlotKind::kUnknown;
    if (slot.kind == SlotKind::kUnknown) {
        slot.kindName = name;
    }
}

void readMade(Line& line, UnlockSlot& slot) {
    const std::string_view text = line.word(" made=");
    const auto time = parseTime(text);
    if (!time || printTime(*time) != text) {
        line.fail("\"made=\" is not a time as 2030-01-31T23:59:59Z");
    }
    slot.made = *time;
}

void readLabel(Line& line, UnlockSlot& slot) {
    const auto label = unescapedLabel(line.word(" label="));
    if (!label) {
        line.fail("\"label=\" is not written as labels are");
    }
    if (const auto fault = faultOfLabel(*label)) {
        line.fail(fmt::format("the label {}", *fault));
    }
    slot.label = *label;
}

UnlockSlot readSlot(Line& line) {
    UnlockSlot slot;
    slot.n = line.number(" n=", 1, UnlockSlot::kMostNumber);
    readKind(line, slot);
    readMade(line, slot);
    readLabel(line, slot);
    if (slot.kind == SlotKind::kPassword) {
        slot.cost.ln = line.number(" ln=", UnlockSlot::kLeastLn, UnlockSlot::kMostLn);
        slot.cost.r = line.number(" r=", UnlockSlot::kR, UnlockSlot::kR);
        slot.cost.p = line.number(" p=", 1, UnlockSlot::kMostP);
    }
    line.bytes(" salt=", slot.salt);
    if (line.word(" wrap=") != "aead") {
        line.fail("\"wrap=\" names a method that this version does not know");
    }
    line.bytes(" key=", slot.key);
    line.bytes(" nonce=", slot.nonce);
    line.bytes(" box=", slot.box);
    line.finish();
    return slot;
}

// A line from before there were slots.
std::optional<Slot> readOld(const Line& line, const std::string& text) {
    const std::optional<Slot> slot = parseSlot(text);
    if (slot) {
        if (const auto excess = excessOf(*slot)) {
            line.fail(*excess);
        }
    }
    return slot;
}

// Adds a slot to the set that it belongs to, which is the last one or a new one.
void addTo(std::vector<SlotSet>& sets, UnlockSlot slot, const Line& line) {
    if (sets.empty() || sets.back().line || sets.back().slots.front().key != slot.key) {
        sets.emplace_back();
    }
    std::vector<UnlockSlot>& slots = sets.back().slots;
    if (!slots.empty() && slots.back().n >= slot.n) {
        line.fail("the slots of a set are not in the order of their numbers");
    }
    for (const UnlockSlot& other : slots) {
        if (!slot.label.empty() && sameLabel(slot.label, other.label)) {
            line.fail("two slots of a set have the same label");
        }
    }
    slots.push_back(std::move(slot));
    if (slots.size() > SlotSet::kMostSlots) {
        line.fail(fmt::format("a set has more than {} slots", SlotSet::kMostSlots));
    }
}

void requireAffordable(const SlotSet& set) {
    std::vector<const UnlockSlot*> distinct;
    std::size_t passwords = 0;
    std::uint64_t work = 0;
    for (const UnlockSlot& slot : set.slots) {
        if (slot.kind != SlotKind::kPassword) {
            continue;
        }
        ++passwords;
        if (std::ranges::none_of(distinct, [&](const UnlockSlot* other) {
                return other->salt == slot.salt && other->cost == slot.cost;
            })) {
            distinct.push_back(&slot);
            work += slot.cost.work();
        }
    }
    if (passwords > SlotSet::kMostPasswords) {
        throw Failure(kMalformed,
                      fmt::format("a set has more than {} passwords", SlotSet::kMostPasswords));
    }
    if (work > SlotSet::kMostWork) {
        throw Failure(
            kMalformed,
            fmt::format("the passwords of a set take {} times the work of the default "
                        "cost, and {} times is the limit",
                        work / ScryptCost().work(), SlotSet::kMostWork / ScryptCost().work()));
    }
}

void requireSound(const std::vector<SlotSet>& sets) {
    if (sets.empty() || sets.size() > 2) {
        throw Failure(kMalformed, "it has neither one nor two sets of slots");
    }
    if (sets.size() == 2 && sets[0].key() == sets[1].key()) {
        throw Failure(kMalformed, "its two sets of slots have the same key");
    }
    std::ranges::for_each(sets, requireAffordable);
}

// The record "kdf" of a database from before there were slots.
UnlockRecord parseOld(std::span<const std::string> lines) {
    UnlockRecord record;
    if (lines.empty() || lines.size() > 2) {
        throw Failure(kMalformed, "it has neither one nor two slots");
    }
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const Line line(lines[i], i + 1);
        const std::optional<Slot> slot = readOld(line, lines[i]);
        if (!slot) {
            line.fail("it cannot be read, or its ln, r or p is out of bounds");
        }
        record.sets.push_back({.line = slot, .slots = {}});
    }
    return record;
}

Sha256Digest digestOfLines(std::span<const std::string> lines) {
    Sha256 digest;
    for (const std::string& line : lines) {
        digest.add(line);
        digest.add(std::string_view("\n"));
    }
    return digest.finish();
}

void requireEnd(std::span<const std::string> lines) {
    Line end(lines.back(), lines.size());
    Sha256Digest digest;
    end.bytes(kEndLine, digest);
    end.finish();
    if (digest != digestOfLines(lines.first(lines.size() - 1))) {
        throw Failure(kMalformed, "its checksum is not that of its lines");
    }
}

std::vector<SlotSet> readSets(std::span<const std::string> lines) {
    constexpr std::size_t kFirst = 1, kLast = 1;  // "unlock" and "end"
    std::vector<SlotSet> sets;
    for (std::size_t i = kFirst; i + kLast < lines.size(); ++i) {
        Line line(lines[i], i + 1);
        if (line.skip("slot")) {
            addTo(sets, readSlot(line), line);
        } else if (const auto old = i == kFirst ? readOld(line, lines[i]) : std::nullopt) {
            sets.push_back({.line = old, .slots = {}});
        } else {
            line.fail("it is not a slot");
        }
        if (sets.size() > 2) {
            line.fail("it begins a third set of slots");
        }
    }
    return sets;
}

std::string printEnd(std::span<const std::string> lines) {
    return fmt::format("{}{}", kEndLine, toHex(digestOfLines(lines)));
}

}  // namespace

std::string nameOfKind(const UnlockSlot& slot) {
    const auto known =
        std::ranges::find(kKinds, slot.kind, [](const auto& each) { return each.kind; });
    return known != std::end(kKinds) ? std::string(known->name) : slot.kindName;
}

std::optional<Digest> SlotSet::key() const {
    if (!line) {
        return slots.front().key;
    }
    return line->form == Slot::Form::kNone ? std::nullopt : std::optional(line->digest);
}

UnlockRecord parseUnlock(std::span<const std::string> lines) {
    std::size_t bytes = 0;
    for (const std::string& line : lines) {
        bytes += line.size() + 1;
    }
    if (bytes > UnlockRecord::kMostBytes) {
        throw Failure(kMalformed, "it is larger than 64 KiB");
    }
    UnlockRecord record;
    if (lines.empty() || !lines.front().starts_with("unlock")) {
        record = parseOld(lines);
    } else {
        Line head(lines.front(), 1);
        if (!head.skip("unlock v=1")) {
            head.fail("it is of a version that this one does not know");
        }
        record.framed = true;
        head.bytes(" db=", record.db);
        record.seq = head.number(" seq=", 1, UnlockRecord::kMostSeq);
        head.finish();
        requireEnd(lines);
        record.sets = readSets(lines);
    }
    requireSound(record.sets);
    return record;
}

std::string headOf(const UnlockSlot& slot) {
    const std::string cost =
        slot.kind == SlotKind::kPassword
            ? fmt::format(" ln={} r={} p={}", slot.cost.ln, slot.cost.r, slot.cost.p)
            : "";
    return fmt::format("slot n={} kind={} made={} label={}{} salt={} wrap=aead key={} nonce={}",
                       slot.n, nameOfKind(slot), printTime(slot.made), escapedLabel(slot.label),
                       cost, toHex(slot.salt), toHex(slot.key), toHex(slot.nonce));
}

std::vector<std::string> printUnlock(const UnlockRecord& record) {
    std::vector<std::string> lines;
    if (record.framed) {
        lines.push_back(fmt::format("unlock v=1 db={} seq={}", toHex(record.db), record.seq));
    }
    for (const SlotSet& set : record.sets) {
        if (set.line) {
            lines.push_back(printSlot(*set.line));
        }
        for (const UnlockSlot& slot : set.slots) {
            lines.push_back(fmt::format("{} box={}", headOf(slot), toHex(slot.box)));
        }
    }
    if (record.framed) {
        lines.push_back(printEnd(lines));
    }
    try {
        (void)parseUnlock(lines);
    } catch (const Failure& failure) {
        throw Failure(kInvalid, fmt::format("the slots cannot be written: {}", failure.what()));
    }
    return lines;
}

std::optional<std::string> faultOfLabel(std::string_view label) {
    if (label.size() > UnlockSlot::kMostLabel) {
        return fmt::format("is longer than {} bytes", UnlockSlot::kMostLabel);
    }
    if (!label.empty() && std::ranges::all_of(label, isDecimal)) {
        return "consists of digits, as the number of a slot does";
    }
    return std::nullopt;
}

bool sameLabel(std::string_view one, std::string_view other) {
    const auto small = [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    };
    return std::ranges::equal(one, other, {}, small, small);
}

}  // namespace fstore
