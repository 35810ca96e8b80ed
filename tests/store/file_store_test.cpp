// The record in memory. Its files have tests of their own: dsc_file_test,
// body_file_test, record_disk_test.
#include "store/file_store.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/test_store.h"

namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;

// The bytes of a literal, which live as long as the program.
const unsigned char* raw(const char* literal) {
    return reinterpret_cast<const unsigned char*>(literal);
}

constexpr unsigned int kNotFound = 0xFFFFFFFFU;

// A record of its own, which needs no store.
class FileStoreTest : public testing::Test {
protected:
    // The data, ids and flags of the record's attributes.
    std::vector<std::string> attributes() {
        std::vector<std::string> told;
        for (unsigned int i = 0; i < record.getAttrCount(); ++i) {
            told.push_back(std::to_string(record.getAttrType(i)) + ' ' +
                           std::to_string(record.getAttrID(i)) +
                           (record.getAttrFlag(i) != 0 ? " encrypted " : " ") + data(i));
        }
        return told;
    }

    std::string data(unsigned int index) {
        return {reinterpret_cast<const char*>(record.getAttr(index)), record.getAttrSize(index)};
    }

    Status add(unsigned int type, unsigned int id, const std::string& data) {
        return record.addAttr(type, id, dataOf(data), sizeOf(data));
    }

    Status set(unsigned int type, unsigned int id, const std::string& data) {
        return record.setAttr(type, id, dataOf(data), sizeOf(data));
    }

    CMN_GRefPtr<FileStore> held{new FileStore};
    FileStore& record = *held.get();
};

TEST_F(FileStoreTest, StartsWithTheDefaults) {
    EXPECT_STREQ(".", record.getFolderName());
    EXPECT_STREQ("", record.getName());
    EXPECT_STREQ("", record.getFileName());
    EXPECT_EQ(nullptr, record.getBody());
    EXPECT_EQ(0U, record.getBodySize());
    EXPECT_EQ(0U, record.getBodyFlag());
    EXPECT_EQ(0, record.hasBody());
    EXPECT_EQ(0U, record.getAttrCount());
    EXPECT_EQ(kOk, record.init());
    EXPECT_EQ(kOk, record.fini());
    EXPECT_EQ(kOk, record.decrypt());  // nothing is in cipher form
}

TEST_F(FileStoreTest, FolderKeepsItsValueForNull) {
    EXPECT_EQ(kOk, record.setFolderName("./db/keys"));
    EXPECT_STREQ("./db/keys", record.getFolderName());
    EXPECT_EQ(kOk, record.setFolderName(nullptr));
    EXPECT_STREQ("./db/keys", record.getFolderName());
    EXPECT_EQ(kOk, record.setFolderName(""));
    EXPECT_STREQ("", record.getFolderName());
}

TEST_F(FileStoreTest, NameMakesTheFileName) {
    const struct {
        const char* name;
        const char* fileName;
    } rows[] = {{"alice", "alice.dsc"}, {"a.b", "a.b.dsc"}, {"", ".dsc"}, {"x.dsc", "x.dsc.dsc"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(kOk, record.setName(row.name));
        EXPECT_STREQ(row.name, record.getName());
        EXPECT_STREQ(row.fileName, record.getFileName());
    }
}

TEST_F(FileStoreTest, FileNameMakesTheName) {
    const struct {
        const char* fileName;
        const char* name;
    } rows[] = {{"0000002a.dsc", "0000002a"},
                {"a.b.dsc", "a.b"},
                {"abc", "abc"},
                {"abc.", "abc"},
                {".dsc", ""},
                {"", ""},
                {"a.", "a"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fileName);
        EXPECT_EQ(kOk, record.setFileName(row.fileName));
        EXPECT_STREQ(row.fileName, record.getFileName());
        EXPECT_STREQ(row.name, record.getName());
    }
}

TEST_F(FileStoreTest, NullEmptiesBothNames) {
    ASSERT_EQ(kOk, record.setName("alice"));
    EXPECT_EQ(kOk, record.setName(nullptr));
    EXPECT_STREQ("", record.getName());
    EXPECT_STREQ("", record.getFileName());
    ASSERT_EQ(kOk, record.setName("alice"));
    EXPECT_EQ(kOk, record.setFileName(nullptr));
    EXPECT_STREQ("", record.getName());
    EXPECT_STREQ("", record.getFileName());
}

TEST_F(FileStoreTest, NamesMayBeSetFromTheRecordItself) {
    const std::string longName(100, 'n');  // longer than a string keeps without memory
    ASSERT_EQ(kOk, record.setName(longName.c_str()));
    EXPECT_EQ(kOk, record.setName(record.getFileName()));
    EXPECT_EQ(longName + ".dsc", record.getName());
    EXPECT_EQ(kOk, record.setFileName(record.getName()));
    EXPECT_EQ(longName + ".dsc", record.getFileName());
    EXPECT_EQ(longName, record.getName());
    EXPECT_EQ(kOk, record.setFileName(record.getFileName() + 1));
    EXPECT_EQ(longName.substr(1), record.getName());
    EXPECT_EQ(kOk, record.setFolderName(record.getName()));
    EXPECT_EQ(kOk, record.setFolderName(record.getFolderName() + 1));
    EXPECT_EQ(longName.substr(2), record.getFolderName());
}

TEST_F(FileStoreTest, DataIsCheckedByItsType) {
    const unsigned char* const none = nullptr;
    const auto* const text = reinterpret_cast<const unsigned char*>("abc");
    const struct {
        const char* name;
        unsigned int type;
        const unsigned char* data;
        unsigned int size;
        Status status;
        std::string stored;  // when the status is kOk
    } rows[] = {
        {"number", 1, raw("\x2a\0\0\0"), 4, kOk, "\x2a\0\0\0"s},
        {"number too short", 1, text, 3, kMalformed, ""},
        {"number too long", 1, raw("12345"), 5, kMalformed, ""},
        {"number of no bytes", 1, text, 0, kMalformed, ""},
        {"binary", 2, raw("a\nb\0c"), 5, kOk, "a\nb\0c"s},
        {"binary of no bytes", 2, text, 0, kOk, ""},
        {"binary null", 2, none, 0, kInvalid, ""},
        {"string takes its own length", 3, text, 1, kOk, "abc\0"s},
        {"string takes its own length also when less", 3, raw("ab\0cd"), 6, kOk, "ab\0"s},
        {"empty string", 3, raw(""), 0, kOk, "\0"s},
        {"string with line feed", 3, raw("a\nb"), 4, kMalformed, ""},
        {"string with line feed behind its end", 3, raw("ab\0\n"), 4, kOk, "ab\0"s},
        {"string null", 3, none, 0, kInvalid, ""},
        {"text", 4, text, 2, kOk, "ab"},
        {"empty text", 4, text, 0, kOk, ""},
        {"text with line feed", 4, raw("a\nb"), 3, kMalformed, ""},
        {"text with line feed behind its end", 4, raw("ab\n"), 2, kOk, "ab"},
        {"text with NUL", 4, raw("a\0b"), 3, kOk, "a\0b"s},
        {"text null", 4, none, 1, kInvalid, ""},
        {"type 0 is kept in memory", 0, text, 3, kOk, "abc"},
        {"type 5", 5, raw("\n"), 1, kOk, "\n"},
        {"type 15", 15, text, 3, kOk, "abc"},
        {"null before the type is looked at", 1, none, 4, kInvalid, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        record.removeAttrs();
        EXPECT_EQ(row.status, record.addAttr(row.type, 7, row.data, row.size));
        ASSERT_EQ(row.status == kOk ? 1U : 0U, record.getAttrCount());
        if (row.status == kOk) {
            EXPECT_EQ(row.type, record.getAttrType(0));
            EXPECT_EQ(7U, record.getAttrID(0));
            EXPECT_EQ(row.stored, data(0));
        }
        // What is replaced has the same rules, and stays when they are broken.
        record.removeAttrs();
        ASSERT_EQ(kOk, record.addAttr(row.type, 7, raw("old"), row.type == 1 ? 4 : 3));
        const std::string old = data(0);
        EXPECT_EQ(row.status, record.setAttr(row.type, 7, row.data, row.size));
        ASSERT_EQ(1U, record.getAttrCount());
        EXPECT_EQ(row.status == kOk ? row.stored : old, data(0));
    }
}

TEST_F(FileStoreTest, AddAttrDropsFlagsOfTheType) {
    ASSERT_EQ(kOk, add(0xFFFFFFF2, 5, "ab"));
    EXPECT_EQ(2U, record.getAttrType(0));
    EXPECT_EQ(0U, record.getAttrFlag(0));
}

TEST_F(FileStoreTest, AddAttrAllowsDuplicatesAndSetAttrReplacesTheFirst) {
    ASSERT_EQ(kOk, add(2, 5, "other"));
    ASSERT_EQ(kOk, record.addAttr(4, 5, raw("first"), 5));
    ASSERT_EQ(kOk, record.addAttr(4, 5, raw("second"), 6));
    EXPECT_EQ(kOk, set(4, 5, "new"));
    EXPECT_THAT(attributes(), ElementsAre("2 5 other", "4 5 new", "4 5 second"));
}

TEST_F(FileStoreTest, SetAttrAddsWhatIsNotThere) {
    ASSERT_EQ(kOk, set(2, 5, "a"));
    ASSERT_EQ(kOk, set(4, 5, "b"));           // another data type
    ASSERT_EQ(kOk, set(2, 6, "c"));           // another id
    ASSERT_EQ(kOk, set(0x01000002, 7, "d"));  // flags are dropped, as by addAttr
    EXPECT_THAT(attributes(), ElementsAre("2 5 a", "4 5 b", "2 6 c", "2 7 d"));
}

TEST_F(FileStoreTest, SetAttrKeepsTheFlags) {
    ASSERT_EQ(kOk, add(2, 5, "old"));
    ASSERT_EQ(kOk, record.setAttrFlag(0, 1));
    EXPECT_EQ(kOk, set(2, 5, "new"));
    EXPECT_THAT(attributes(), ElementsAre("2 5 encrypted new"));
    EXPECT_EQ(kOk, set(0x01000002, 5, "newer"));  // found by its data type alone
    EXPECT_THAT(attributes(), ElementsAre("2 5 encrypted newer"));
}

TEST_F(FileStoreTest, AttributesAreCopies) {
    std::string mine = "mine";
    ASSERT_EQ(kOk, record.addAttr(2, 5, dataOf(mine), 4));
    mine = "gone";
    EXPECT_EQ("mine", data(0));
    EXPECT_EQ(kOk, record.setAttr(2, 5, record.getAttr(0) + 1, 3));  // out of itself
    EXPECT_EQ("ine", data(0));
    EXPECT_EQ(kOk, record.addAttr(2, 6, record.getAttr(0), 2));
    EXPECT_EQ("in", data(1));
}

TEST_F(FileStoreTest, PointersStayValidUntilTheNextChange) {
    ASSERT_EQ(kOk, add(2, 5, "data"));
    ASSERT_EQ(kOk, record.setName("alice"));
    ASSERT_EQ(kOk, record.setBody(raw("body"), 4));
    const unsigned char* const attr = record.getAttr(0);
    const char* const name = record.getName();
    const unsigned char* const body = record.getBody();
    (void)record.getAttrCount();
    (void)record.findAttr(2, 5, raw("data"), 4);
    (void)record.isExist();
    EXPECT_EQ(attr, record.getAttr(0));
    EXPECT_EQ(0, std::memcmp(attr, "data", 4));
    EXPECT_STREQ("alice", name);
    EXPECT_EQ(body, record.getBody());
}

TEST_F(FileStoreTest, GettersOfABadIndexGiveNothing) {
    ASSERT_EQ(kOk, add(2, 5, "ab"));
    for (const unsigned int index : {1U, 2U, kNotFound}) {
        EXPECT_EQ(0U, record.getAttrType(index));
        EXPECT_EQ(0U, record.getAttrID(index));
        EXPECT_EQ(0U, record.getAttrSize(index));
        EXPECT_EQ(nullptr, record.getAttr(index));
        EXPECT_EQ(0U, record.getAttrFlag(index));
    }
}

TEST_F(FileStoreTest, FlagsAreOneOrZero) {
    for (unsigned int id = 0; id < 5; ++id) {
        ASSERT_EQ(kOk, add(2, id, "ab"));
    }
    EXPECT_EQ(kEnd, record.setAttrFlag(5, 1));
    EXPECT_EQ(kEnd, record.setAttrFlag(5, 2));  // the index comes first
    EXPECT_EQ(kInvalid, record.setAttrFlag(0, 2));
    EXPECT_EQ(0U, record.getAttrFlag(0));
    EXPECT_EQ(0U, record.getAttrFlag(5));
    EXPECT_EQ(kOk, record.setAttrFlag(4, 1));
    EXPECT_EQ(1U, record.getAttrFlag(4));
    EXPECT_EQ(2U, record.getAttrType(4));
    EXPECT_EQ(kInvalid, record.setAttrFlag(4, 0x01000000));
    EXPECT_EQ(1U, record.getAttrFlag(4));
    EXPECT_EQ(kOk, record.setAttrFlag(4, 0));
    EXPECT_EQ(0U, record.getAttrFlag(4));
}

TEST_F(FileStoreTest, FindsTheFirstThatMatches) {
    ASSERT_EQ(kOk, add(2, 5, "ab"));
    ASSERT_EQ(kOk, add(2, 5, "abc"));
    ASSERT_EQ(kOk, add(4, 5, "ab"));
    ASSERT_EQ(kOk, add(2, 6, ""));
    ASSERT_EQ(kOk, record.setAttrFlag(1, 1));
    const struct {
        const char* name;
        unsigned int type;
        unsigned int id;
        const unsigned char* data;
        unsigned int size;
        unsigned int index;
    } rows[] = {
        {"any data", 2, 5, nullptr, 0, 0},
        {"null data ignores the size", 2, 5, nullptr, 77, 0},
        {"same bytes", 2, 5, raw("abc"), 3, 1},
        {"other type", 4, 5, raw("ab"), 2, 2},
        {"no bytes", 2, 6, raw(""), 0, 3},
        {"no bytes of one that has some", 2, 5, raw(""), 0, kNotFound},
        {"other bytes", 2, 5, raw("abd"), 3, kNotFound},
        {"fewer bytes", 2, 5, raw("a"), 1, kNotFound},
        {"no such id", 2, 7, nullptr, 0, kNotFound},
        {"no such type", 3, 5, nullptr, 0, kNotFound},
        {"flags of the type do not count", 0x11000004, 5, nullptr, 0, 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.index, record.findAttr(row.type, row.id, row.data, row.size));
    }
}

TEST_F(FileStoreTest, RemoveAttrMovesLaterOnesDown) {
    for (unsigned int id = 0; id < 3; ++id) {
        ASSERT_EQ(kOk, add(2, id, std::to_string(id)));
    }
    ASSERT_EQ(kOk, record.setAttrFlag(2, 1));
    EXPECT_EQ(kInvalid, record.removeAttr(3));  // setAttrFlag says kEnd
    EXPECT_EQ(kInvalid, record.removeAttr(kNotFound));
    EXPECT_EQ(kOk, record.removeAttr(1));
    EXPECT_THAT(attributes(), ElementsAre("2 0 0", "2 2 encrypted 2"));
    EXPECT_EQ(kOk, record.removeAttr(1));
    EXPECT_EQ(kOk, record.removeAttr(0));
    EXPECT_EQ(kInvalid, record.removeAttr(0));
}

TEST_F(FileStoreTest, RemoveAttrsEmptiesTheRecord) {
    EXPECT_EQ(kOk, record.removeAttrs());
    ASSERT_EQ(kOk, add(2, 1, "a"));
    ASSERT_EQ(kOk, add(2, 2, "b"));
    EXPECT_EQ(kOk, record.removeAttrs());
    EXPECT_EQ(0U, record.getAttrCount());
}

TEST_F(FileStoreTest, BodyIsACopyOrIsAbsent) {
    EXPECT_EQ(kInvalid, record.setBody(nullptr, 5));
    EXPECT_EQ(0, record.hasBody());
    std::string mine = "mine";
    EXPECT_EQ(kOk, record.setBody(dataOf(mine), 4));
    mine = "gone";
    EXPECT_EQ(1, record.hasBody());
    ASSERT_EQ(4U, record.getBodySize());
    EXPECT_EQ(0, std::memcmp("mine", record.getBody(), 4));
    EXPECT_EQ(kInvalid, record.setBody(nullptr, 5));
    EXPECT_EQ(4U, record.getBodySize());
    EXPECT_EQ(kOk, record.setBody(record.getBody() + 1, 2));  // out of itself
    ASSERT_EQ(2U, record.getBodySize());
    EXPECT_EQ(0, std::memcmp("in", record.getBody(), 2));
}

TEST_F(FileStoreTest, EmptyBodyIsPresent) {
    EXPECT_EQ(kOk, record.setBody(nullptr, 0));
    EXPECT_EQ(1, record.hasBody());
    EXPECT_EQ(nullptr, record.getBody());
    EXPECT_EQ(0U, record.getBodySize());
    EXPECT_EQ(kOk, record.setBody(raw("abc"), 3));
    EXPECT_EQ(kOk, record.setBody(raw("abc"), 0));
    EXPECT_EQ(nullptr, record.getBody());
    EXPECT_EQ(0U, record.getBodySize());
}

TEST_F(FileStoreTest, BodyFlagIsOneOrZeroAndOutlivesTheBody) {
    EXPECT_EQ(kInvalid, record.setBodyFlag(2));
    EXPECT_EQ(0U, record.getBodyFlag());
    EXPECT_EQ(kOk, record.setBodyFlag(1));
    EXPECT_EQ(kInvalid, record.setBodyFlag(0x01000000));
    EXPECT_EQ(1U, record.getBodyFlag());
    EXPECT_EQ(kOk, record.setBody(raw("abc"), 3));
    EXPECT_EQ(1U, record.getBodyFlag());
    EXPECT_EQ(kOk, record.setBodyFlag(0));
    EXPECT_EQ(0U, record.getBodyFlag());
}

TEST_F(FileStoreTest, UniqueIdTellsLiveRecordsApart) {
    const unsigned int id = record.getUniqueID();
    EXPECT_NE(0U, id);
    const CMN_GRefPtr<FileStore> other(new FileStore);
    EXPECT_NE(0U, other.get()->getUniqueID());
    EXPECT_NE(id, other.get()->getUniqueID());
    ASSERT_EQ(kOk, record.setName("alice"));
    EXPECT_EQ(id, record.getUniqueID());
}

TEST_F(FileStoreTest, LockTypeAndLoginCheckTakeAnyValue) {
    for (const int value : {-2, -1, 0, 1, 0x7fffffff}) {
        EXPECT_EQ(kOk, record.setLockType(value));
        EXPECT_EQ(kOk, record.setLoginCheck(value));
    }
}

TEST_F(FileStoreTest, OperationsOfFilesWantAFileName) {
    EXPECT_EQ(kMissing, record.read());
    EXPECT_EQ(kMissing, record.remove());
    EXPECT_EQ(0, record.isExist());
}

// The attribute by itself.

TEST(FileStoreAttrTest, SetLeavesPendingAndOldDataOnRefusal) {
    FileStore::Attr attr;
    attr.pending = 1;
    ASSERT_EQ(kOk, attr.set(0x11000002, 9, raw("ab"), 2));
    EXPECT_EQ(0x11000002U, attr.type);  // the whole word
    EXPECT_EQ(2U, attr.dataType());
    EXPECT_EQ(9U, attr.id);
    EXPECT_EQ(1U, attr.pending);
    EXPECT_EQ(kInvalid, attr.set(2, 1, nullptr, 0));
    EXPECT_EQ(kMalformed, attr.set(1, 1, raw("abc"), 3));
    EXPECT_EQ(kMalformed, attr.set(0x01000003, 1, raw("a\nb"), 4));
    EXPECT_EQ(0x11000002U, attr.type);
    EXPECT_EQ("ab", std::string(reinterpret_cast<const char*>(attr.data), attr.size));
}

TEST(FileStoreAttrTest, ClearLeavesPending) {
    FileStore::Attr attr;
    ASSERT_EQ(kOk, attr.set(2, 9, raw("ab"), 2));
    attr.pending = 1;
    attr.clear();
    attr.clear();
    EXPECT_EQ(0U, attr.type);
    EXPECT_EQ(0U, attr.id);
    EXPECT_EQ(0U, attr.size);
    EXPECT_EQ(nullptr, attr.data);
    EXPECT_EQ(1U, attr.pending);
}

TEST(FileStoreAttrTest, MovesAndLeavesNothingBehind) {
    FileStore::Attr attr;
    ASSERT_EQ(kOk, attr.set(2, 9, raw("ab"), 2));
    attr.pending = 1;
    FileStore::Attr moved(std::move(attr));
    EXPECT_EQ(nullptr, attr.data);  // NOLINT(bugprone-use-after-move): what is left is the point
    EXPECT_EQ(0U, attr.pending);
    FileStore::Attr& self = moved;
    moved = std::move(self);
    EXPECT_EQ("ab", moved.text());
    EXPECT_EQ(9U, moved.id);
    EXPECT_EQ(1U, moved.pending);
}

TEST(FileStoreAttrTest, TextEndsAtTheFirstNulOrTheEnd) {
    FileStore::Attr attr;
    EXPECT_EQ("", attr.text());
    ASSERT_EQ(kOk, attr.set(2, 0, raw("ab\0cd"), 5));
    EXPECT_EQ("ab", attr.text());
    ASSERT_EQ(kOk, attr.set(2, 0, raw("abcd"), 3));
    EXPECT_EQ("abc", attr.text());
}

TEST(FileStoreAttrTest, BodyReferenceHasFlagAndIdZero) {
    const struct {
        unsigned int type;
        unsigned int id;
        bool is;
    } rows[] = {{0x10000003, 0, true},  {0x11000003, 0, true},  {0x10000002, 0, true},
                {0x10000003, 1, false}, {0x01000003, 0, false}, {3, 0, false}};
    for (const auto& row : rows) {
        FileStore::Attr attr;
        ASSERT_EQ(kOk, attr.set(row.type, row.id, raw("a"), 1));
        EXPECT_EQ(row.is, attr.isBodyReference()) << row.type << ' ' << row.id;
    }
}

}  // namespace
