// Which set is in force and which copy counts, by every combination of sets and digest.
#include "lib/database/protection.h"

#include <string>

#include <gtest/gtest.h>

#include "lib/base/error.h"

namespace fstore {
namespace {

Digest digestOfAll(unsigned char byte) {
    Digest digest;
    digest.fill(byte);
    return digest;
}

const Digest kOld = digestOfAll(1);
const Digest kNew = digestOfAll(2);

Slot slotOf(Slot::Form form, const Digest& digest = {}) {
    Slot slot;
    slot.form = form;
    slot.digest = digest;
    return slot;
}

SlotSet lineOf(Slot::Form form, const Digest& digest = {}) {
    return {.line = slotOf(form, digest), .slots = {}};
}

SlotSet setOf(const Digest& key, const char* label = "") {
    UnlockSlot slot;
    slot.kind = SlotKind::kFile;
    slot.key = key;
    slot.label = label;
    return {.line = {}, .slots = {slot}};
}

const SlotSet kNone = lineOf(Slot::Form::kNone);
const SlotSet kRawOld = lineOf(Slot::Form::kRaw, kOld);
const SlotSet kScryptOld = lineOf(Slot::Form::kScrypt, kOld);
const SlotSet kScryptNew = lineOf(Slot::Form::kScrypt, kNew);
const SlotSet kSlotsOld = setOf(kOld);
const SlotSet kSlotsNew = setOf(kNew);

using Sets = std::vector<SlotSet>;

// A copy with these sets; a line of its own unless it has a number.
SlotCopy copyOf(Sets sets, std::uint32_t seq = 0) {
    SlotCopy copy;
    copy.state = SlotCopy::State::kSound;
    copy.record = {.framed = seq != 0, .db = {}, .seq = seq, .sets = std::move(sets)};
    return copy;
}

SlotCopy damagedCopy() {
    SlotCopy copy;
    copy.state = SlotCopy::State::kDamaged;
    copy.fault = "its checksum is not that of its lines";
    return copy;
}

KeyRecord keyOf(const std::optional<Digest>& digest) {
    return {.digest = digest, .fault = {}};
}

KeyRecord damagedKey() {
    return {.digest = {}, .fault = "is damaged"};
}

TEST(ProtectionTest, TheDigestTellsWhichSetIsInForce) {
    const struct {
        const char* name;
        Sets sets;
        std::optional<Digest> key;
        SlotSet inForce;
        bool unfinished;
        bool undone;
    } rows[] = {
        {"one line", {kScryptOld}, kOld, kScryptOld, false, false},
        {"one line, none", {kNone}, std::nullopt, kNone, false, false},
        {"from line to line, before", {kScryptOld, kScryptNew}, kOld, kScryptOld, true, true},
        {"from line to line, after", {kScryptOld, kScryptNew}, kNew, kScryptNew, true, false},
        {"slots", {kSlotsOld}, kOld, kSlotsOld, false, false},
        {"from none to slots, before", {kNone, kSlotsNew}, std::nullopt, kNone, true, true},
        {"from none to slots, after", {kNone, kSlotsNew}, kNew, kSlotsNew, true, false},
        {"from raw to slots, before", {kRawOld, kSlotsNew}, kOld, kRawOld, true, true},
        {"from raw to slots, after", {kRawOld, kSlotsNew}, kNew, kSlotsNew, true, false},
        {"from slots to slots, before", {kSlotsOld, kSlotsNew}, kOld, kSlotsOld, true, true},
        {"from slots to slots, after", {kSlotsOld, kSlotsNew}, kNew, kSlotsNew, true, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Protection protection =
            protectionOf({.kdf = copyOf(row.sets), .copy = {}}, keyOf(row.key));
        EXPECT_EQ(row.inForce, protection.inForce);
        EXPECT_EQ(row.unfinished, protection.isUnfinished());
        EXPECT_EQ(row.undone, protection.isUndone());
        EXPECT_EQ(row.inForce != kNone, protection.hasPassword());
        EXPECT_EQ(!row.inForce.line, protection.hasSlots());
        EXPECT_EQ(row.sets, protection.record.sets);
    }
}

TEST(ProtectionTest, WithoutCopiesTheKeyAloneDecides) {
    EXPECT_EQ(kNone, protectionOf({}, {}).inForce);
    EXPECT_EQ(kRawOld, protectionOf({}, keyOf(kOld)).inForce);
    EXPECT_FALSE(protectionOf({}, {}).hasPassword());
}

TEST(ProtectionTest, TheBetterCopyCounts) {
    using Other = Protection::Other;
    const struct {
        const char* name;
        SlotCopy kdf, copy;
        bool kdfCounts;
        Other other;
    } rows[] = {
        {"the same", copyOf({kSlotsOld}, 3), copyOf({kSlotsOld}, 3), true, Other::kAgrees},
        {"the copy is missing", copyOf({kSlotsOld}, 3), {}, true, Other::kBehind},
        {"kdf is missing", {}, copyOf({kSlotsOld}, 3), false, Other::kBehind},
        {"the copy is damaged", copyOf({kSlotsOld}, 3), damagedCopy(), true, Other::kBehind},
        {"kdf is damaged", damagedCopy(), copyOf({kSlotsOld}, 3), false, Other::kBehind},
        {"the copy is older", copyOf({kSlotsOld}, 3), copyOf({setOf(kOld, "a")}, 2), true,
         Other::kBehind},
        {"kdf is older", copyOf({setOf(kOld, "a")}, 3), copyOf({kSlotsOld}, 4), false,
         Other::kBehind},
        {"the newer one is of another key", copyOf({kSlotsOld}, 3), copyOf({kSlotsNew}, 9), true,
         Other::kBehind},
        {"one has the change that is unfinished", copyOf({kSlotsOld}, 3),
         copyOf({kSlotsOld, kSlotsNew}, 4), false, Other::kBehind},
        {"they contradict each other", copyOf({kSlotsOld}, 3), copyOf({setOf(kOld, "a")}, 3), true,
         Other::kConflicts},
        {"a line and its copy", copyOf({kScryptOld}), copyOf({kScryptOld}, 1), false,
         Other::kAgrees},
        {"a line without its copy", copyOf({kScryptOld}), {}, true, Other::kBehind},
        {"an older program changed the line", copyOf({kScryptOld}), copyOf({kScryptNew}, 5), true,
         Other::kBehind},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Protection protection = protectionOf({.kdf = row.kdf, .copy = row.copy}, keyOf(kOld));
        EXPECT_EQ(row.kdfCounts, protection.kdfCounts);
        EXPECT_EQ(row.other, protection.other);
        EXPECT_EQ(kOld, protection.inForce.key());
    }
}

std::vector<SlotSet> candidatesOf(const Protection& protection) {
    std::vector<SlotSet> sets;
    for (const Protection::Candidate& candidate : protection.candidates) {
        sets.push_back(candidate.set);
    }
    return sets;
}

// The empty password, which the store takes without "key", is never tried then.
TEST(ProtectionTest, WithoutAKeyThatFitsEverySetMayBeInForce) {
    const struct {
        const char* name;
        SlotCopy kdf, copy;
        KeyRecord key;
        Sets candidates;
    } rows[] = {
        {"missing", copyOf({kScryptOld}), {}, {}, {kScryptOld}},
        {"missing, with slots", copyOf({kSlotsOld}, 1), copyOf({kSlotsOld}, 1), {}, {kSlotsOld}},
        {"missing during a change",
         copyOf({kSlotsOld, kSlotsNew}, 4),
         {},
         {},
         {kSlotsNew, kSlotsOld}},
        {"damaged during a change, one copy behind",
         copyOf({kSlotsOld}, 3),
         copyOf({kSlotsOld, kSlotsNew}, 4),
         damagedKey(),
         {kSlotsNew, kSlotsOld}},
        {"damaged, and none stands there",
         copyOf({kNone, kSlotsNew}, 1),
         {},
         damagedKey(),
         {kSlotsNew}},
        {"of another password", copyOf({kScryptOld}), {}, keyOf(kNew), {kScryptOld}},
        {"an older program left a stale copy",
         copyOf({kScryptNew}),
         copyOf({kScryptOld}, 5),
         {},
         {kScryptOld, kScryptNew}},
        {"one copy is damaged", damagedCopy(), copyOf({kSlotsOld}, 2), {}, {kSlotsOld}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Protection protection = protectionOf({.kdf = row.kdf, .copy = row.copy}, row.key);
        EXPECT_TRUE(protection.isKeyLost());
        EXPECT_EQ(row.key.digest.has_value(), protection.keyIsForeign);
        EXPECT_EQ(row.candidates, candidatesOf(protection));
        EXPECT_EQ(row.candidates.front(), protection.inForce);
        EXPECT_FALSE(protection.isUndone());
        EXPECT_EQ(Protection::Other::kAgrees, protection.other);
    }
}

Status failureOf(const SlotCopies& copies, const KeyRecord& key) {
    try {
        (void)protectionOf(copies, key);
    } catch (const Failure& failure) {
        return failure.status();
    }
    return kOk;
}

TEST(ProtectionTest, RecordsThatSayTooLittleAreRefused) {
    EXPECT_EQ(kNoDigest, failureOf({}, damagedKey()));
    EXPECT_EQ(kNoDigest, failureOf({.kdf = copyOf({kNone}), .copy = {}}, keyOf(kOld)));
    EXPECT_EQ(kNoDigest, failureOf({.kdf = copyOf({kNone}), .copy = {}}, damagedKey()));
    EXPECT_EQ(kMalformed, failureOf({.kdf = damagedCopy(), .copy = {}}, keyOf(kOld)));
    EXPECT_EQ(kMalformed, failureOf({.kdf = {}, .copy = damagedCopy()}, {}));
    EXPECT_EQ(kMalformed, failureOf({.kdf = damagedCopy(), .copy = damagedCopy()}, keyOf(kOld)));
}

}  // namespace
}  // namespace fstore
