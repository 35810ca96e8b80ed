#include "lib/database/unlock_text.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "tests/lib/database/unlock_example.h"

namespace fstore {
namespace {

using Lines = std::vector<std::string>;

// Why the lines are refused; empty if they are not.
std::string faultOf(const Lines& lines) {
    try {
        (void)parseUnlock(lines);
        return {};
    } catch (const Failure& failure) {
        EXPECT_EQ(kMalformed, failure.status());
        return failure.what();
    }
}

// The lines with the checksum that they need.
Lines withEnd(Lines lines) {
    Sha256 digest;
    for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
        digest.add(lines[i]);
        digest.add(std::string_view("\n"));
    }
    lines.back() = "end sha256=" + toHex(digest.finish());
    return lines;
}

Lines replaced(std::size_t line, const std::string& what, const std::string& by) {
    Lines lines = example::kLines;
    const std::size_t at = lines[line].find(what);
    EXPECT_NE(std::string::npos, at) << what;
    lines[line].replace(at, what.size(), by);
    return withEnd(lines);
}

UnlockRecord exampleRecord() {
    return parseUnlock(example::kLines);
}

std::string faultOf(const UnlockRecord& record) {
    try {
        (void)printUnlock(record);
        return {};
    } catch (const Failure& failure) {
        EXPECT_EQ(kInvalid, failure.status());
        return failure.what();
    }
}

// Lines that the record would have, whether they may be written or not.
UnlockRecord with(const std::function<void(UnlockRecord&)>& change) {
    UnlockRecord record = exampleRecord();
    change(record);
    return record;
}

TEST(UnlockTextTest, ReadsTheExample) {
    const UnlockRecord record = exampleRecord();
    EXPECT_TRUE(record.framed);
    EXPECT_EQ("7bdc25d1694ef984782a16f6f1710c1c", toHex(record.db));
    EXPECT_EQ(7u, record.seq);
    ASSERT_EQ(1u, record.sets.size());
    const std::vector<UnlockSlot>& slots = record.sets[0].slots;
    ASSERT_EQ(3u, slots.size());
    EXPECT_EQ(SlotKind::kPassword, slots[0].kind);
    EXPECT_EQ(SlotKind::kRecovery, slots[1].kind);
    EXPECT_EQ(SlotKind::kFile, slots[2].kind);
    EXPECT_EQ(1u, slots[0].n);
    EXPECT_EQ(3u, slots[2].n);
    EXPECT_EQ("operator", slots[0].label);
    EXPECT_EQ("web server", slots[2].label);
    EXPECT_EQ(14u, slots[0].cost.ln);
    EXPECT_EQ(1795262400, slots[0].made);
    EXPECT_EQ("7805baa85ec5b04322a58aeb2a15ee06", toHex(record.sets[0].key().value()));
}

TEST(UnlockTextTest, WritesTheExample) {
    EXPECT_EQ(example::kLines, printUnlock(exampleRecord()));
}

TEST(UnlockTextTest, EveryByteOfEveryLineCounts) {
    for (std::size_t line = 0; line < example::kLines.size(); ++line) {
        for (std::size_t i = 0; i < example::kLines[line].size(); ++i) {
            Lines lines = example::kLines;
            lines[line][i] = static_cast<char>(lines[line][i] ^ 1);
            EXPECT_NE("", faultOf(lines)) << line << " " << i;
            lines = example::kLines;
            lines[line].erase(i, 1);
            EXPECT_NE("", faultOf(lines)) << line << " " << i;
            lines = example::kLines;
            lines[line].insert(i, " ");
            EXPECT_NE("", faultOf(lines)) << line << " " << i;
        }
    }
}

// Whoever alters a line can also write the checksum.
TEST(UnlockTextTest, WhatIsReadIsWhatIsWritten) {
    for (std::size_t line = 0; line + 1 < example::kLines.size(); ++line) {
        for (std::size_t i = 0; i < example::kLines[line].size(); ++i) {
            for (const char c : {' ', '0', 'A', 'z', '=', '\\', '\n', '\x7f', '\0'}) {
                Lines lines = example::kLines;
                lines[line][i] = c;
                lines = withEnd(lines);
                if (faultOf(lines).empty()) {
                    EXPECT_EQ(lines, printUnlock(parseUnlock(lines)));
                }
            }
        }
    }
}

TEST(UnlockTextTest, LinesThatAreMissingOrDoubleAreDamage) {
    for (std::size_t line = 0; line < example::kLines.size(); ++line) {
        Lines lines = example::kLines;
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(line));
        EXPECT_NE("", faultOf(lines)) << line;
        lines = example::kLines;
        lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(line), lines[line]);
        EXPECT_NE("", faultOf(withEnd(lines))) << line;
    }
    EXPECT_NE("", faultOf(Lines()));
    EXPECT_NE("", faultOf(withEnd({example::kLines[0], ""})));
}

TEST(UnlockTextTest, SaysWhatIsWrongInWhichLine) {
    const struct {
        std::size_t line;
        const char* what;
        const char* by;
        const char* fault;
    } rows[] = {
        {0, "v=1", "v=2", "line 1: it is of a version that this one does not know"},
        {0, "seq=7", "seq=0", "line 1: \"seq=\" is not a number from 1 to 2147483648"},
        {0, "seq=7", "seq=07", "line 1: \"seq=\" is not a number from 1 to 2147483648"},
        {0, "seq=7", "seq=7 ", "line 1: there is more than belongs into it"},
        {1, "n=1", "n=0", "line 2: \"n=\" is not a number from 1 to 99"},
        {1, "kind=password", "kind=Password", "line 2: \"kind=\" is not 1 to 16 of a-z, 0-9 and -"},
        {1, "made=2026-11-21", "made=2026-11-31",
         "line 2: \"made=\" is not a time as 2030-01-31T23:59:59Z"},
        {1, "label=operator", "label=17",
         "line 2: the label consists of digits, as the number of a slot does"},
        {1, "ln=14", "ln=13", "line 2: \"ln=\" is not a number from 14 to 20"},
        {1, "r=8", "r=9", "line 2: \"r=\" is not a number from 8 to 8"},
        {1, "p=1", "p=5", "line 2: \"p=\" is not a number from 1 to 4"},
        {2, " salt=db", " salt=DB", "line 3: \"salt=\" does not have 64 hexadecimal digits"},
        {2, " salt=db", " salt=b", "line 3: \"salt=\" does not have 64 hexadecimal digits"},
        {2, "wrap=aead", "wrap=x25519",
         "line 3: \"wrap=\" names a method that this version does not know"},
        {3, "n=3", "n=2", "line 4: the slots of a set are not in the order of their numbers"},
        {3, "label=web\\20server", "label=SAFE", "line 4: two slots of a set have the same label"},
        {3, "label=web\\20server", "label=web\\2Dserver",
         "line 4: \"label=\" is not written as labels are"},
        {3, "label=web\\20server", "label=web\\7",
         "line 4: \"label=\" is not written as labels are"},
        {3, "slot", "slut", "line 4: it is not a slot"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.fault, faultOf(replaced(row.line, row.what, row.by))) << row.by;
    }
}

TEST(UnlockTextTest, AKindThatIsNotKnownIsKept) {
    const Lines lines = replaced(2, "kind=recovery", "kind=fido2-0123456789");
    const UnlockRecord record = parseUnlock(lines);
    EXPECT_EQ(SlotKind::kUnknown, record.sets[0].slots[1].kind);
    EXPECT_EQ("fido2-0123456789", nameOfKind(record.sets[0].slots[1]));
    EXPECT_EQ(lines, printUnlock(record));
    EXPECT_NE("", faultOf(replaced(2, "kind=recovery", "kind=fido2-01234567890")));
    EXPECT_NE("", faultOf(replaced(2, "kind=recovery", "kind=")));
}

TEST(UnlockTextTest, NumbersReachTheirBounds) {
    for (const char* const seq : {"seq=1", "seq=2147483648"}) {
        EXPECT_EQ("", faultOf(replaced(0, "seq=7", seq))) << seq;
    }
    EXPECT_NE("", faultOf(replaced(0, "seq=7", "seq=2147483649")));
    EXPECT_EQ("", faultOf(replaced(3, "n=3", "n=99")));
    EXPECT_NE("", faultOf(replaced(3, "n=3", "n=100")));
    EXPECT_EQ("", faultOf(replaced(1, "ln=14", "ln=20")));
    EXPECT_NE("", faultOf(replaced(1, "ln=14", "ln=21")));
    EXPECT_EQ("", faultOf(replaced(1, "p=1", "p=4")));
    EXPECT_NE("", faultOf(replaced(1, "r=8", "r=7")));
    EXPECT_NE("", faultOf(replaced(1, "p=1", "p=0")));
}

TEST(UnlockTextTest, LabelsReachTheirBound) {
    const auto labelled = [](const std::string& label) {
        return with([&](UnlockRecord& record) { record.sets[0].slots[0].label = label; });
    };
    for (const std::string& label :
         {std::string(), std::string(64, 'a'), std::string(64, ' '), std::string("a\\b\n"),
          std::string("\0\x7f\xff", 3), std::string("1a")}) {
        const UnlockRecord record = labelled(label);
        EXPECT_EQ(record, parseUnlock(printUnlock(record)));
    }
    EXPECT_NE("", faultOf(labelled(std::string(65, 'a'))));
    EXPECT_NE("", faultOf(labelled("0")));
    EXPECT_NE("", faultOf(labelled("Safe")));
    EXPECT_EQ("", faultOf(with([](UnlockRecord& record) {
                  record.sets[0].slots[0].label = record.sets[0].slots[1].label = "";
              })));
}

// `count` slots of a kind, each with a salt of its own unless `shared`.
UnlockRecord recordOf(std::size_t count, SlotKind kind, ScryptCost cost, bool shared) {
    return with([&](UnlockRecord& record) {
        const UnlockSlot model = record.sets[0].slots[0];
        record.sets[0].slots.clear();
        for (std::size_t i = 0; i < count; ++i) {
            UnlockSlot slot = model;
            slot.n = static_cast<unsigned int>(i + 1);
            slot.kind = kind;
            slot.label.clear();
            slot.cost = cost;
            slot.salt[0] = static_cast<unsigned char>(shared ? 0 : i);
            record.sets[0].slots.push_back(slot);
        }
    });
}

TEST(UnlockTextTest, ASetHasUpTo16SlotsAnd8Passwords) {
    const ScryptCost least{.ln = 14};
    EXPECT_EQ("", faultOf(recordOf(16, SlotKind::kFile, {}, false)));
    EXPECT_NE("", faultOf(recordOf(17, SlotKind::kFile, {}, false)));
    EXPECT_EQ("", faultOf(recordOf(8, SlotKind::kPassword, least, false)));
    EXPECT_NE("", faultOf(recordOf(9, SlotKind::kPassword, least, true)));
}

TEST(UnlockTextTest, TheWorkOfASetIsBounded) {
    const ScryptCost half{.ln = 20, .r = 8, .p = 2};
    EXPECT_EQ(SlotSet::kMostWork, 2 * half.work());
    EXPECT_EQ("", faultOf(recordOf(2, SlotKind::kPassword, half, false)));
    EXPECT_NE("", faultOf(recordOf(3, SlotKind::kPassword, half, false)));
    EXPECT_EQ("", faultOf(recordOf(8, SlotKind::kPassword, half, true)));
    UnlockRecord mixed = recordOf(3, SlotKind::kPassword, half, true);
    mixed.sets[0].slots[2].salt[0] = 1;
    mixed.sets[0].slots[2].cost.p = 3;
    EXPECT_NE("", faultOf(mixed));
}

SlotSet setFor(unsigned char key) {
    SlotSet set = exampleRecord().sets[0];
    for (UnlockSlot& slot : set.slots) {
        slot.key.fill(key);
    }
    return set;
}

TEST(UnlockTextTest, TwoSetsHaveTwoKeys) {
    const auto ofSets = [](std::vector<SlotSet> sets) {
        return with([&](UnlockRecord& record) { record.sets = std::move(sets); });
    };
    const UnlockRecord two = ofSets({setFor(1), setFor(2)});
    EXPECT_EQ(two, parseUnlock(printUnlock(two)));
    EXPECT_NE("", faultOf(ofSets({setFor(1), setFor(1)})));
    EXPECT_NE("", faultOf(ofSets({setFor(1), setFor(2), setFor(1)})));
    EXPECT_NE("", faultOf(ofSets({setFor(1), setFor(2), setFor(3)})));
    EXPECT_NE("", faultOf(ofSets({})));
}

const std::string kRaw = "raw digest=01010101010101010101010101010101";
const std::string kScrypt =
    "scrypt ln=17 r=8 p=1 salt=" + std::string(64, 'a') + " digest=" + std::string(32, '5');

TEST(UnlockTextTest, OldLinesAreReadAloneAndAsTheOldSet) {
    for (const std::string& line : {kRaw, kScrypt, std::string("none")}) {
        const UnlockRecord alone = parseUnlock(Lines{line});
        EXPECT_FALSE(alone.framed);
        EXPECT_EQ(0u, alone.seq);
        EXPECT_EQ(Lines{line}, printUnlock(alone));
        const Lines framed = withEnd({example::kLines[0], line, ""});
        EXPECT_EQ(framed, printUnlock(parseUnlock(framed)));
        Lines changing = example::kLines;
        changing.insert(changing.begin() + 1, line);
        changing = withEnd(changing);
        EXPECT_EQ(changing, printUnlock(parseUnlock(changing)));
        EXPECT_EQ(2u, parseUnlock(changing).sets.size());
    }
    EXPECT_EQ(2u, parseUnlock(Lines{kRaw, kScrypt}).sets.size());
    EXPECT_FALSE(parseUnlock(Lines{"none"}).sets[0].key());
    EXPECT_EQ(std::string(32, '5'), toHex(parseUnlock(Lines{kScrypt}).sets[0].key().value()));
}

TEST(UnlockTextTest, OldLinesStandNowhereElse) {
    EXPECT_NE("", faultOf({kRaw, kRaw}));
    EXPECT_NE("", faultOf({kRaw, kScrypt, "none"}));
    EXPECT_NE("", faultOf({kRaw, example::kLines[1]}));
    EXPECT_NE("", faultOf({kRaw + " "}));
    EXPECT_NE("", faultOf(withEnd({example::kLines[0], kRaw, kScrypt, ""})));
    EXPECT_NE("", faultOf(withEnd({example::kLines[0], example::kLines[1], kRaw, ""})));
    // The same key as the set behind it.
    EXPECT_NE("",
              faultOf(withEnd({example::kLines[0], "raw digest=7805baa85ec5b04322a58aeb2a15ee06",
                               example::kLines[1], ""})));
    EXPECT_NE("", faultOf({"scrypt ln=22 r=32 p=1 salt=" + std::string(64, 'a') +
                           " digest=" + std::string(32, '5')}));
}

TEST(UnlockTextTest, ARecordBeyond64KiBIsRefused) {
    EXPECT_EQ("it is larger than 64 KiB", faultOf({std::string(UnlockRecord::kMostBytes, 'a')}));
    EXPECT_NE("it is larger than 64 KiB",
              faultOf({std::string(UnlockRecord::kMostBytes - 1, 'a')}));
}

}  // namespace
}  // namespace fstore
