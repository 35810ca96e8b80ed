#include "format/record_name.h"

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(RecordNameTest, DescriptorNameAddsTheSuffix) {
    EXPECT_EQ("0000002a.dsc", descriptorName("0000002a"));
    EXPECT_EQ("a.b.dsc", descriptorName("a.b"));
    EXPECT_EQ(".dsc", descriptorName(""));
}

TEST(RecordNameTest, RecordNameEndsBeforeTheLastDot) {
    const struct {
        const char* name;
        const char* file;
        const char* record;
    } rows[] = {
        {"unique name", "0000002a.dsc", "0000002a"},
        {"dot inside", "a.b.dsc", "a.b"},
        {"no dot", "abc", "abc"},
        {"dot at the end", "abc.", "abc"},
        {"suffix alone", ".dsc", ""},
        {"empty", "", ""},
        {"dot alone", ".", ""},
        {"marker behind the suffix", "a.dsc.$n$", "a.dsc"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.record, recordName(row.file));
    }
}

TEST(RecordNameTest, RecordNameUndoesDescriptorName) {
    for (const char* record : {"", "a", "a.b", ".", "..", "a.dsc", "0000002a"}) {
        EXPECT_EQ(record, recordName(descriptorName(record)));
    }
}

TEST(RecordNameTest, UniqueNamesAreThoseThatAreGiven) {
    for (const unsigned int n : {0u, 1u, 0x2au, 0xffffffffu}) {
        EXPECT_TRUE(isUniqueName(uniqueName(n)));
    }
    for (const char* name : {"", "0000002", "0000002aa", "0000002A", "0000002g", "0000/02a"}) {
        EXPECT_FALSE(isUniqueName(name)) << name;
    }
}

TEST(RecordNameTest, HasMarkerWantsANameInFrontOfIt) {
    const struct {
        const char* name;
        const char* file;
        std::string_view marker;
        bool has;
    } rows[] = {
        {"new", "a.dsc.$n$", kNewMarker, true},
        {"old", "a.dsc.$o$", kOldMarker, true},
        {"deleted", "a.dsc.$d$", kDeletedMarker, true},
        {"descriptor", "a.dsc", kDscSuffix, true},
        {"one character in front", "x.$o$", kOldMarker, true},
        {"marker alone", ".$o$", kOldMarker, false},
        {"suffix alone", ".dsc", kDscSuffix, false},
        {"shorter than the marker", "$o$", kOldMarker, false},
        {"empty", "", kOldMarker, false},
        {"another marker", "a.dsc.$n$", kOldMarker, false},
        {"marker inside", "a.$o$.dsc", kOldMarker, false},
        {"suffix inside", "x.dsc.bak", kDscSuffix, false},
        {"upper case", "a.DSC", kDscSuffix, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.has, hasMarker(row.file, row.marker));
    }
}

TEST(RecordNameTest, WithoutMarkerCutsOneMarkerOff) {
    EXPECT_EQ("a.dsc", withoutMarker("a.dsc.$o$", kOldMarker));
    EXPECT_EQ("a.dsc.$o$", withoutMarker("a.dsc.$o$.$o$", kOldMarker));
    EXPECT_EQ("x", withoutMarker("x.dsc", kDscSuffix));
}

TEST(RecordNameTest, UniqueNameIsEightLowerCaseDigits) {
    EXPECT_EQ("00000000", uniqueName(0));
    EXPECT_EQ("0000002a", uniqueName(42));
    EXPECT_EQ("89abcdef", uniqueName(0x89abcdef));
    EXPECT_EQ("ffffffff", uniqueName(0xffffffff));
}

TEST(RecordNameTest, PlainNameStaysInItsFolder) {
    for (const char* name : {"a", "0000002a", "...", ".dsc", "a b", "..a", "-"}) {
        EXPECT_TRUE(isPlainName(name)) << name;
    }
    for (const char* name : {"", ".", "..", "/", "a/b", "../a", "a/", "/etc"}) {
        EXPECT_FALSE(isPlainName(name)) << name;
    }
}

TEST(RecordNameTest, BodyNameIsPlainAndNoDescriptors) {
    for (const char* name : {"0000002a", "a", "dsc", "a.dsc.bak", "$o$", "a.$o", "a.b"}) {
        EXPECT_TRUE(isBodyName(name)) << name;
    }
    for (const char* name :
         {"", ".", "..", "a/b", "a.dsc", ".dsc", "a.dsc.$n$", "a.dsc.$o$", "a.dsc.$d$", ".$o$"}) {
        EXPECT_FALSE(isBodyName(name)) << name;
    }
}

TEST(RecordNameTest, JoinPathPutsOneSlashBetween) {
    EXPECT_EQ("./db/keys/a.dsc", joinPath("./db/keys", "a.dsc"));
    EXPECT_EQ("/a", joinPath("", "a"));
    EXPECT_EQ("a/", joinPath("a", ""));
    EXPECT_EQ("a//b", joinPath("a/", "b"));
}

TEST(CorrectFileNameListTest, KeepsRecordsAsTabled) {
    using Names = std::vector<std::string>;
    const struct {
        const char* name;
        Names before;
        Names after;
    } rows[] = {
        {"empty folder", {}, {}},
        {"bodies only", {"00000001", "00000002"}, {}},
        {"descriptors keep their order", {"b.dsc", "a.dsc", "c.dsc"}, {"b.dsc", "a.dsc", "c.dsc"}},
        {"saved copy of a standing descriptor", {"a.dsc", "a.dsc.$o$"}, {"a.dsc"}},
        {"saved copy comes first", {"a.dsc.$o$", "a.dsc"}, {"a.dsc"}},
        {"orphaned saved copy", {"b.dsc.$o$"}, {"b.dsc.$o$"}},
        {"orphans follow the descriptors",
         {"z.dsc.$o$", "a.dsc", "y.dsc.$o$", "b.dsc"},
         {"a.dsc", "b.dsc", "z.dsc.$o$", "y.dsc.$o$"}},
        {"other markers are dropped", {"a.dsc.$n$", "b.dsc.$d$", "c.dsc"}, {"c.dsc"}},
        {"marker or suffix alone", {".dsc", ".$o$"}, {}},
        {"suffix inside", {"x.dsc.bak"}, {}},
        {"saved copy of no descriptor name", {"body.$o$"}, {"body.$o$"}},
        {"saved copy of a name too short to be listed", {".dsc", ".dsc.$o$"}, {".dsc.$o$"}},
        {"names must match exactly", {"A.dsc", "a.dsc.$o$"}, {"A.dsc", "a.dsc.$o$"}},
        {"saved twice", {"a.dsc", "a.dsc.$o$.$o$"}, {"a.dsc", "a.dsc.$o$.$o$"}},
        {"long names",
         {std::string(200, 'n') + ".dsc.$o$", std::string(200, 'n') + ".dsc"},
         {std::string(200, 'n') + ".dsc"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Names names = row.before;
        correctFileNameList(names);
        EXPECT_EQ(row.after, names);
    }
}

// A pair-by-pair search would need 10^10 comparisons here and run into the timeout.
TEST(CorrectFileNameListTest, LargeFoldersTakeLinearTime) {
    constexpr unsigned int kRecords = 100'000;
    std::vector<std::string> names;
    for (unsigned int i = 0; i < kRecords; ++i) {
        names.push_back(descriptorName(uniqueName(i)));
        names.push_back(descriptorName(uniqueName(i + kRecords / 2)).append(kOldMarker));
    }
    const auto start = std::chrono::steady_clock::now();
    correctFileNameList(names);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    ASSERT_EQ(kRecords + kRecords / 2, names.size());
    EXPECT_EQ("00000000.dsc", names.front());
    EXPECT_EQ(descriptorName(uniqueName(kRecords)).append(kOldMarker), names[kRecords]);
}

}  // namespace
