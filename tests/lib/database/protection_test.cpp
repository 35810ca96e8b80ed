// Which slot is in force, by every combination of slots and digest.
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

const Slot kNone = slotOf(Slot::Form::kNone);
const Slot kRawOld = slotOf(Slot::Form::kRaw, kOld);
const Slot kScryptOld = slotOf(Slot::Form::kScrypt, kOld);
const Slot kScryptNew = slotOf(Slot::Form::kScrypt, kNew);

TEST(ProtectionTest, TheDigestTellsWhichSlotIsInForce) {
    const struct {
        const char* name;
        std::vector<Slot> slots;
        std::optional<Digest> key;
        Slot inForce;
        bool unfinished;
        bool undone;
    } rows[] = {
        {"no password", {}, std::nullopt, kNone, false, false},
        {"a password as it is", {}, kOld, kRawOld, false, false},
        {"one slot", {kScryptOld}, kOld, kScryptOld, false, false},
        {"one slot, none", {kNone}, std::nullopt, kNone, false, false},
        {"from old to new, before", {kScryptOld, kScryptNew}, kOld, kScryptOld, true, true},
        {"from old to new, after", {kScryptOld, kScryptNew}, kNew, kScryptNew, true, false},
        {"from none to new, before", {kNone, kScryptNew}, std::nullopt, kNone, true, true},
        {"from none to new, after", {kNone, kScryptNew}, kNew, kScryptNew, true, false},
        {"from raw to new, before", {kRawOld, kScryptNew}, kOld, kRawOld, true, true},
        {"from raw to new, after", {kRawOld, kScryptNew}, kNew, kScryptNew, true, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Protection protection = protectionOf({row.slots, /*keepOld=*/true}, row.key);
        EXPECT_EQ(row.inForce, protection.inForce);
        EXPECT_EQ(row.unfinished, protection.isUnfinished());
        EXPECT_EQ(row.undone, protection.isUndone());
        EXPECT_EQ(row.inForce.form != Slot::Form::kNone, protection.hasPassword());
        EXPECT_EQ(row.slots, protection.kdf.slots);
        EXPECT_TRUE(protection.kdf.keepOld);
    }
}

// The empty password, which the store takes without "key", is never tried then.
TEST(ProtectionTest, RecordsThatDoNotBelongTogetherAreRefused) {
    const struct {
        const char* name;
        std::vector<Slot> slots;
        std::optional<Digest> key;
    } rows[] = {
        {"key of another password", {kScryptOld}, kNew},
        {"key is lost", {kScryptOld}, std::nullopt},
        {"key is lost during a change", {kScryptOld, kScryptNew}, std::nullopt},
        {"key beside none", {kNone}, kOld},
        {"key of a third password", {kScryptOld, kScryptNew}, digestOfAll(3)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        try {
            (void)protectionOf({row.slots, false}, row.key);
            ADD_FAILURE() << "not refused";
        } catch (const Failure& failure) {
            EXPECT_EQ(kNoDigest, failure.status());
            EXPECT_EQ("./key", failure.path());
        }
    }
}

}  // namespace
}  // namespace fstore
