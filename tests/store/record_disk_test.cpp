// Records on the disk: how they are written, read, repaired and removed.
#include "store/record_disk.h"

#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "store/file_store.h"
#include "tests/support/fs_fault.h"
#include "tests/support/test_store.h"

namespace {

using std::string_literals::operator""s;
using support::readFile;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

using Files = std::map<std::string, std::string>;

unsigned int numberOf(const std::string& name) {
    return static_cast<unsigned int>(std::stoul(name, nullptr, 16));
}

std::string nameOf(unsigned int number) {
    char name[9];
    (void)std::snprintf(name, sizeof name, "%08x", number);
    return name;
}

// The next name that getUniqueName() will look at.
std::string nextName() {
    return nameOf(numberOf(getUniqueName("./no such folder", nullptr)) + 1);
}

std::vector<std::string> namesOf(const Files& files) {
    std::vector<std::string> names;
    for (const auto& [name, content] : files) {
        names.push_back(name);
    }
    return names;
}

class RecordDiskTest : public testing::Test {
protected:
    // The folder holds these files and no others.
    void place(const Files& files) {
        fs::remove_all(TestStore::kFolder);
        fs::create_directory(TestStore::kFolder);
        for (const auto& [name, content] : files) {
            writeFile(store.path(name), content);
        }
    }

    static Files files() { return TestStore::files(); }

    static std::vector<std::string> listed() {
        aFileStoreList list;
        EXPECT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
        std::vector<std::string> names;
        for (aFileStore record = list.getFirst(); record.target() != nullptr;
             record = list.getNext()) {
            names.emplace_back(record.getFileName());
        }
        return names;
    }

    TestStore store;
};

Contents plain(const std::string& text) {
    return {{{kTypeText, 1, text, false}}, text + " body", false};
}

Contents bodiless(const std::string& text) {
    return {{{kTypeText, 1, text, false}}, {}, false};
}

// Fresh names.

class UniqueNameTest : public RecordDiskTest {};

TEST_F(UniqueNameTest, IsEightDigitsThatCountUp) {
    const std::string first = getUniqueName(TestStore::kFolder, nullptr);
    EXPECT_THAT(first, MatchesRegex("[0-9a-f]{8}"));
    EXPECT_EQ(nameOf(numberOf(first) + 1), getUniqueName(TestStore::kFolder, nullptr));
    EXPECT_EQ(nameOf(numberOf(first) + 2), getUniqueName("./db", ".dsc")) << "all folders share it";
}

TEST_F(UniqueNameTest, PassesOverNamesThatAreTaken) {
    const unsigned int next = numberOf(nextName());
    writeFile(store.path(nameOf(next)), "");
    writeFile(store.path(nameOf(next + 1)), "");
    writeFile(store.path(nameOf(next + 3) + ".dsc"), "");
    EXPECT_EQ(nameOf(next + 2), getUniqueName(TestStore::kFolder, nullptr));
    EXPECT_EQ(nameOf(next + 4), getUniqueName(TestStore::kFolder, ".dsc"));
}

TEST_F(UniqueNameTest, NullFolderMeansNoFolderPart) {
    const unsigned int next = numberOf(nextName());
    writeFile(nameOf(next), "");
    EXPECT_EQ(nameOf(next + 1), getUniqueName(nullptr, nullptr));
    EXPECT_EQ(nameOf(next + 2), getUniqueName(nullptr, nullptr));
}

// 100,000 names in a row are taken. Of all but the last one the file system only says
// so; that one is a file with another's bytes.
class TakenNamesTest : public RecordDiskTest {
protected:
    static constexpr unsigned int kMost = 100000;

    explicit TakenNamesTest(const char* suffix = "") {
        writeFile(store.path(last + suffix), "another's");
    }

    const unsigned int first = numberOf(nextName());
    const std::string last = nameOf(first + kMost - 1);
    const std::string behind = nameOf(first + kMost);
    fault::TakenNames taken{kMost - 1};
};

TEST_F(TakenNamesTest, TheLastOneIsGivenUntested) {
    EXPECT_EQ(last, getUniqueName(TestStore::kFolder, nullptr));
    EXPECT_EQ(behind, getUniqueName(TestStore::kFolder, nullptr));
}

// The file system says of all names that they are taken. What is then given untested is a file with
// another's bytes.
class AllNamesTakenTest : public RecordDiskTest {
protected:
    static constexpr unsigned int kInOrder = 32;  // before it looks further ahead
    static constexpr int kLooks = kInOrder + 32;  // before one is given untested

    explicit AllNamesTakenTest(const char* suffix = "") {
        writeFile(store.path(given + suffix), "another's");
    }

    const unsigned int first = numberOf(nextName());
    const std::string given = nameOf(first + kInOrder);
};

TEST_F(AllNamesTakenTest, NoBodyIsOverwritten) {
    {
        const fault::TakenNames taken(2 * kLooks);
        ASSERT_EQ(kOk, TestStore::save("a", plain("mine")));
    }
    EXPECT_EQ("mine body", readFile(store.path(nameOf(first + 2 * kInOrder + 1))));
    EXPECT_EQ("another's", readFile(store.path(given)));
    EXPECT_EQ(plain("mine"), TestStore::load("a"));
}

class AllRecordNamesTakenTest : public AllNamesTakenTest {
protected:
    AllRecordNamesTakenTest() : AllNamesTakenTest(".dsc") {}
};

// A descriptor is not created exclusively, so nothing untested is good enough for one.
TEST_F(AllRecordNamesTakenTest, NoDescriptorIsOverwritten) {
    const fault::TakenNames taken(2 * kLooks);
    aFileStore record = TestStore::record();
    fill(record, bodiless("mine"));
    ASSERT_EQ(kOk, record.write());
    EXPECT_NE(given, record.getName());
    EXPECT_EQ("another's", readFile(store.path(given + ".dsc")));
    EXPECT_EQ(bodiless("mine"), TestStore::load(record.getName()));
}

TEST_F(RecordDiskTest, ManyBodiesAreNotLookedAtOneByOne) {
    constexpr unsigned int kBodies = 2000;
    const unsigned int first = numberOf(nextName());
    for (unsigned int n = 0; n < kBodies; ++n) {
        writeFile(store.path(nameOf(first + n)), "");
    }
    const long before = fault::callCount({fault::Call::kAccess});
    ASSERT_EQ(kOk, TestStore::save("a", plain("mine")));
    EXPECT_LE(fault::callCount({fault::Call::kAccess}) - before, 100);
    EXPECT_EQ("mine body", readFile(store.path(nameOf(first + kBodies))));
}

// Writing.

TEST_F(RecordDiskTest, UnnamedRecordTakesAFreshNameAndKeepsIt) {
    aFileStore record = TestStore::record();
    fill(record, bodiless("first"));
    ASSERT_EQ(kOk, record.write());
    const std::string name = record.getName();
    EXPECT_THAT(name, MatchesRegex("[0-9a-f]{8}"));
    EXPECT_EQ(name + ".dsc", record.getFileName());
    fill(record, bodiless("second"));
    ASSERT_EQ(kOk, record.write());
    EXPECT_THAT(namesOf(files()), ElementsAre(name + ".dsc"));
    EXPECT_EQ(bodiless("second"), TestStore::load(name));
}

TEST_F(RecordDiskTest, SuffixAloneIsNoName) {
    aFileStore record = TestStore::record();
    ASSERT_EQ(kOk, record.setFileName(".dsc"));
    ASSERT_EQ(kOk, record.write());
    EXPECT_THAT(record.getFileName(), MatchesRegex("[0-9a-f]{8}\\.dsc"));
}

TEST_F(RecordDiskTest, FileNameIsUsedAsItIs) {
    aFileStore record = TestStore::record();
    for (const char* const name : {"abc.", "abc", "a.b.dsc"}) {
        ASSERT_EQ(kOk, record.setFileName(name));
        ASSERT_EQ(kOk, record.write());
    }
    EXPECT_THAT(namesOf(files()), ElementsAre("a.b.dsc", "abc", "abc."));
}

TEST_F(RecordDiskTest, DescriptorAndBodyAreAllThatIsThere) {
    ASSERT_EQ(kOk, TestStore::save("a", plain("one")));
    const Files after = files();
    ASSERT_EQ(2U, after.size());
    const std::string body = after.begin()->first;
    EXPECT_THAT(body, MatchesRegex("[0-9a-f]{8}"));
    EXPECT_EQ((Files{{body, "one body"},
                     {"a.dsc", "10000003 00000000 " + body + "\n00000004 00000001 one\n"}}),
              after);
}

TEST_F(RecordDiskTest, EveryWriteHasABodyFileOfItsOwn) {
    aFileStore record = TestStore::record("a");
    std::string before;
    for (const char* const text : {"one", "two", "three"}) {
        fill(record, plain(text));
        ASSERT_EQ(kOk, record.write());
        const Files after = files();
        ASSERT_EQ(2U, after.size());
        EXPECT_NE(before, after.begin()->first);
        before = after.begin()->first;
        EXPECT_EQ(plain(text), TestStore::load("a"));
    }
}

TEST_F(RecordDiskTest, WritingWithoutBodyDeletesTheOldOne) {
    ASSERT_EQ(kOk, TestStore::save("a", plain("old")));
    ASSERT_EQ(kOk, TestStore::save("a", bodiless("new")));
    EXPECT_EQ((Files{{"a.dsc", "00000004 00000001 new\n"}}), files());
    ASSERT_EQ(kOk, TestStore::save("a", plain("newer")));
    EXPECT_EQ(plain("newer"), TestStore::load("a"));
}

TEST_F(RecordDiskTest, FailedWriteLeavesTheFolderAsItWas) {
    ASSERT_EQ(kOk, TestStore::save("a", plain("old")));
    const Files before = files();
    const struct {
        const char* name;
        std::function<Status(aFileStore&)> spoil;
    } rows[] = {
        {"unprintable attribute",
         [](aFileStore& record) { return record.addAttr(5, 1, dataOf("x"s), 1); }},
        {"empty body", [](aFileStore& record) { return record.setBody(nullptr, 0); }},
        {"missing folder", [](aFileStore& record) { return record.setFolderName("./none"); }},
        {"folder that is a file",
         [](aFileStore& record) { return record.setFolderName("./db/keys/a.dsc"); }},
        {"name with a missing folder", [](aFileStore& record) { return record.setName("x/y"); }},
        {"name that leaves no room for a marker",
         [](aFileStore& record) { return record.setName(std::string(249, 'n').c_str()); }},
        {"folder of an impossible length",
         [](aFileStore& record) { return record.setFolderName(std::string(5000, 'f').c_str()); }},
        {"unnamed, and such a folder",
         [](aFileStore& record) {
             return record.setName(nullptr) == kOk
                        ? record.setFolderName(std::string(5000, 'f').c_str())
                        : kIo;
         }},
    };
    for (const auto& row : rows) {
        for (const Contents& contents : {plain("new"), bodiless("new")}) {
            SCOPED_TRACE(row.name + (contents.body ? ", with body"s : ", without body"s));
            aFileStore record = TestStore::record("a");
            fill(record, contents);
            ASSERT_EQ(kOk, row.spoil(record));
            const std::string name = record.getName();
            EXPECT_EQ(kIo, record.write());
            EXPECT_EQ(name, record.getName());
            EXPECT_EQ(before, files());
        }
    }
}

// A record whose body was lost names a file that is not there: a fresh body may get
// that very name, and is not the old one to be deleted.
TEST_F(RecordDiskTest, FreshBodyUnderTheNameOfALostOneStays) {
    const std::string lost = nextName();
    place({{"a.dsc", "10000003 00000000 " + lost + "\n"}});
    ASSERT_EQ(kOk, TestStore::save("a", plain("new")));
    EXPECT_EQ("new body", readFile(store.path(lost)));
    EXPECT_EQ(plain("new"), TestStore::load("a"));
}

// The record of a saved descriptor is there, though nothing has its name yet.
TEST_F(RecordDiskTest, UnnamedRecordTakesNoNameThatARepairWillGiveBack) {
    const std::string taken = nextName();
    place({{taken + ".dsc.$o$", "00000004 00000001 interrupted\n"}});
    aFileStore record = TestStore::record();
    fill(record, bodiless("new"));
    ASSERT_EQ(kOk, record.write());
    EXPECT_NE(taken, record.getName());
    EXPECT_EQ(bodiless("interrupted"), TestStore::load(taken));
}

TEST_F(RecordDiskTest, LeftoversOfTheNewDescriptorAreReplacedNotWrittenThrough) {
    const struct {
        const char* name;
        std::function<void(const char*)> leave;
    } rows[] = {
        {"file", [](const char* path) { writeFile(path, std::string(1000, 'x')); }},
        {"link to another file",
         [](const char* path) {
             writeFile("./other", "other");
             fs::create_symlink("../../other", path);
         }},
        {"link to nowhere", [](const char* path) { fs::create_symlink("nowhere", path); }},
        {"fifo", [](const char* path) { ASSERT_EQ(0, mkfifo(path, 0600)); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        place({});
        row.leave(store.path("a.dsc.$n$").c_str());
        ASSERT_EQ(kOk, TestStore::save("a", bodiless("new")));
        EXPECT_EQ((Files{{"a.dsc", "00000004 00000001 new\n"}}), files());
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(store.path("a.dsc"))));
    }
    EXPECT_EQ("other", readFile("./other"));
}

TEST_F(RecordDiskTest, FolderInTheNewDescriptorsPlaceIsNotReplaced) {
    fs::create_directory(store.path("a.dsc.$n$"));
    EXPECT_EQ(kIo, TestStore::save("a", plain("new")));
    EXPECT_THAT(files(), ElementsAre(testing::Pair("a.dsc.$n$", "<folder>")));
}

// Reading.

TEST_F(RecordDiskTest, ReadingReplacesWhatIsInMemory) {
    ASSERT_EQ(kOk, TestStore::save("with", {{{kTypeText, 1, "x", false}}, "body", true}));
    ASSERT_EQ(kOk, TestStore::save("without", bodiless("y")));
    aFileStore record = TestStore::record("with");
    ASSERT_EQ(kOk, record.addAttr(kTypeText, 9, dataOf("gone"s), 4));
    ASSERT_EQ(kOk, record.read());
    EXPECT_EQ(1U, record.getAttrCount());
    EXPECT_EQ(1U, record.getBodyFlag());
    ASSERT_EQ(kOk, record.setName("without"));
    ASSERT_EQ(kOk, record.read());
    EXPECT_EQ(bodiless("y"), contentsOf(record));
    EXPECT_EQ(0, record.hasBody());
    EXPECT_EQ(nullptr, record.getBody());
    EXPECT_NE(0U, record.getBodySize()) << "the bytes are left as they were";
    EXPECT_EQ(kOk, record.decrypt()) << "and are nothing to decrypt";
}

TEST_F(RecordDiskTest, FailedReadsTellWhatIsWrong) {
    const struct {
        const char* name;
        Files files;
        Status status;
        Contents left;  // in the record
    } rows[] = {
        {"no descriptor", {}, kMissing, {}},
        {"empty descriptor", {{"a.dsc", ""}}, kOk, {}},
        {"bad line",
         {{"a.dsc", "00000004 00000001 good\nbad\n00000004 00000002 late\n"}},
         kMalformed,
         bodiless("good")},
        {"bad line behind a body reference",
         {{"a.dsc", "10000003 00000000 0000000b\n00000004 00000001 good\nbad\n"}},
         kMalformed,
         bodiless("good")},
        {"no body file",
         {{"a.dsc", "10000003 00000000 0000000b\n00000004 00000001 good\n"}},
         kMissing,
         {{{kTypeText, 1, "good", false}}, "", false}},
        {"second reference is dropped",
         {{"a.dsc", "10000003 00000000 0000000b\n10000003 00000000 0000000c\n"},
          {"0000000b", "first"}},
         kOk,
         {{}, "first", false}},
        {"reference flag with an id is no reference and dropped",
         {{"a.dsc", "10000003 00000001 0000000b\n00000004 00000001 good\n"}, {"0000000b", "x"}},
         kOk,
         bodiless("good")},
        {"empty body file",
         {{"a.dsc", "10000003 00000000 0000000b\n"}, {"0000000b", ""}},
         kOk,
         {{}, "", false}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        place(row.files);
        aFileStore record = TestStore::record("a");
        ASSERT_EQ(kOk, record.addAttr(kTypeText, 9, dataOf("gone"s), 4));
        EXPECT_EQ(row.status, record.read());
        EXPECT_EQ(row.left, contentsOf(record));
    }
}

// Otherwise writing it would encrypt cipher text.
TEST_F(RecordDiskTest, EncryptedAttributesBeforeABadLineAreStillInCipherForm) {
    place({{"a.dsc", "01000002 00000001 aabbcc\nbad\n"}});
    aFileStore record = TestStore::record("a");
    ASSERT_EQ(kMalformed, record.read());
    EXPECT_EQ(1U, record.getAttrCount());
    EXPECT_EQ(kIo, record.decrypt());
    EXPECT_EQ(kIo, record.write());
}

TEST_F(RecordDiskTest, MissingRecordKeepsNothingButItsNames) {
    aFileStore record = TestStore::record("a");
    fill(record, plain("old"));
    EXPECT_EQ(kMissing, record.read());
    EXPECT_STREQ("a", record.getName());
    EXPECT_EQ(0U, record.getAttrCount());
    EXPECT_EQ(0, record.isExist());
}

// Removing.

TEST_F(RecordDiskTest, RemovingDeletesBothFilesAndKeepsTheRecordInMemory) {
    aFileStore record = TestStore::record("a");
    fill(record, plain("old"));
    ASSERT_EQ(kOk, record.write());
    EXPECT_EQ(1, record.isExist());
    EXPECT_EQ(kOk, record.remove());
    EXPECT_THAT(files(), IsEmpty());
    EXPECT_EQ(0, record.isExist());
    EXPECT_EQ(plain("old"), contentsOf(record));
    EXPECT_EQ(kOk, record.write());
    EXPECT_EQ(plain("old"), TestStore::load("a"));
}

TEST_F(RecordDiskTest, RemovingTakesWhatItFinds) {
    const struct {
        const char* name;
        Files before;
        Status status;
        Files after;
    } rows[] = {
        {"missing record", {{"b.dsc", ""}}, kIo, {{"b.dsc", ""}}},
        {"no body", {{"a.dsc", "00000004 00000001 a\n"}}, kOk, {}},
        {"body that is gone", {{"a.dsc", "10000003 00000000 0000000b\n"}}, kOk, {}},
        {"damaged descriptor goes alone",
         {{"a.dsc", "10000003 00000000 0000000b\nbad"}, {"0000000b", "orphan"}},
         kOk,
         {{"0000000b", "orphan"}}},
        {"stale file being deleted",
         {{"a.dsc", ""}, {"a.dsc.$d$", "10000003 00000000 0000000b\n"}, {"0000000b", "of another"}},
         kOk,
         {{"0000000b", "of another"}}},
        {"saved descriptor beside it",
         {{"a.dsc", "new"}, {"a.dsc.$o$", "00000004 00000001 old\n"}},
         kOk,
         {}},
        {"saved descriptor alone",
         {{"a.dsc.$o$", "10000003 00000000 0000000b\n"}, {"0000000b", "old"}},
         kOk,
         {}},
        {"unfinished descriptor is nobody's",
         {{"a.dsc", ""}, {"a.dsc.$n$", "x"}},
         kOk,
         {{"a.dsc.$n$", "x"}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        place(row.before);
        EXPECT_EQ(row.status, TestStore::erase("a"));
        EXPECT_EQ(row.after, files());
    }
}

TEST_F(RecordDiskTest, StaleFolderBeingDeletedDoesNotBlockARemoval) {
    ASSERT_EQ(kOk, TestStore::save("a", plain("old")));
    fs::create_directory(store.path("a.dsc.$d$"));
    EXPECT_EQ(kOk, TestStore::erase("a"));
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordDiskTest, RemovalThatCannotBeMadeLeavesTheRecord) {
    ASSERT_EQ(kOk, TestStore::save("a", plain("old")));
    fs::create_directories(store.path("a.dsc.$d$/x"));
    EXPECT_EQ(kIo, TestStore::erase("a"));
    EXPECT_EQ(plain("old"), TestStore::load("a"));
}

TEST_F(RecordDiskTest, RemoveObjDeletesADescriptorAndItsBody) {
    const struct {
        const char* name;
        const char* folder;
        const char* fileName;
        Files before;
        Status status;
        std::vector<std::string> after;
    } rows[] = {
        {"null folder", nullptr, "x", {{"x", ""}}, kInvalid, {"x"}},
        {"null name", TestStore::kFolder, nullptr, {{"x", ""}}, kInvalid, {"x"}},
        {"missing", TestStore::kFolder, "x", {{"y", ""}}, kMissing, {"y"}},
        {"malformed",
         TestStore::kFolder,
         "x",
         {{"x", "10000003 00000000 b\nbad"}, {"b", ""}},
         kMalformed,
         {"b", "x"}},
        {"without body", TestStore::kFolder, "x", {{"x", "4 1 a"}, {"a", ""}}, kOk, {"a"}},
        {"with body", TestStore::kFolder, "x", {{"x", "10000003 0 b"}, {"b", ""}}, kOk, {}},
        {"body that is gone", TestStore::kFolder, "x", {{"x", "10000003 0 b"}}, kOk, {}},
        {"first of two bodies",
         TestStore::kFolder,
         "x",
         {{"x", "10000003 0 b\n10000003 0 c\n"}, {"b", ""}, {"c", ""}},
         kOk,
         {"c"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        place(row.before);
        EXPECT_EQ(row.status, FileStore::removeObj(row.folder, row.fileName));
        EXPECT_EQ(row.after, namesOf(files()));
    }
}

// Repairs.

TEST_F(RecordDiskTest, RepairLeavesOneDescriptor) {
    const struct {
        const char* name;
        Files before;
        Files after;
    } rows[] = {
        {"nothing", {}, {}},
        {"nothing saved", {{"a.dsc", "new"}}, {{"a.dsc", "new"}}},
        {"only the saved one", {{"a.dsc.$o$", "old"}}, {{"a.dsc", "old"}}},
        {"both", {{"a.dsc", "new"}, {"a.dsc.$o$", "old"}}, {{"a.dsc", "new"}}},
        {"another's", {{"b.dsc.$o$", "old"}}, {{"b.dsc.$o$", "old"}}},
        {"other markers",
         {{"a.dsc.$n$", "n"}, {"a.dsc.$d$", "d"}},
         {{"a.dsc.$n$", "n"}, {"a.dsc.$d$", "d"}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        place(row.before);
        EXPECT_EQ(kOk, tryCorrectName(TestStore::kFolder, "a.dsc"));
        EXPECT_EQ(row.after, files());
        EXPECT_EQ(kOk, tryCorrectName(TestStore::kFolder, "a.dsc"));
        EXPECT_EQ(row.after, files());
    }
}

TEST_F(RecordDiskTest, RepairThatCannotBeMadeIsToldAndStopsARemoval) {
    place({{"a.dsc", "00000004 00000001 a\n"}});
    fs::create_directories(store.path("a.dsc.$o$/x"));
    EXPECT_EQ(kIo, tryCorrectName(TestStore::kFolder, "a.dsc"));
    EXPECT_EQ(kIo, TestStore::erase("a"));
    EXPECT_EQ(bodiless("a"), TestStore::load("a"));
}

TEST_F(RecordDiskTest, ReadingRepairs) {
    place({{"a.dsc.$o$", "00000004 00000001 old\n"}});
    EXPECT_EQ(bodiless("old"), TestStore::load("a"));
    EXPECT_THAT(namesOf(files()), ElementsAre("a.dsc"));
}

// What a crash leaves behind, one row for every step of a write over an old record
// and of a removal. `finds` is what every reader finds from then on.

const std::string kOldDescriptor = "10000003 00000000 a0000001\n00000004 00000001 old\n";
const std::string kNewDescriptor = "10000003 00000000 a0000002\n00000004 00000001 new\n";

struct CrashState {
    const char* name;
    Files files;
    std::optional<Contents> finds;
    std::vector<std::string> orphans;  // what a reader leaves lying beside the record
};

std::ostream& operator<<(std::ostream& out, const CrashState& state) {
    return out << state.name;
}

class CrashStateTest : public RecordDiskTest, public testing::WithParamInterface<CrashState> {
protected:
    CrashStateTest() { place(GetParam().files); }

    static void expectFound(const std::optional<Contents>& contents) {
        Contents found;
        ASSERT_EQ(contents ? kOk : kMissing, TestStore::tryLoad("a", found));
        if (contents) {
            EXPECT_EQ(*contents, found);
        }
        EXPECT_EQ(contents ? 1 : 0, TestStore::record("a").isExist());
    }
};

TEST_P(CrashStateTest, ReaderFindsTheOldRecordOrTheNewOne) {
    expectFound(GetParam().finds);
    expectFound(GetParam().finds);
}

TEST_P(CrashStateTest, ScanListsItOnce) {
    const std::vector<std::string> names = listed();
    if (GetParam().finds) {
        EXPECT_THAT(names, ElementsAre("a.dsc"));
    } else {
        EXPECT_THAT(names, IsEmpty());
    }
    expectFound(GetParam().finds);
}

TEST_P(CrashStateTest, NextWriteReplacesIt) {
    ASSERT_EQ(kOk, TestStore::save("a", plain("newer")));
    expectFound(plain("newer"));
    EXPECT_THAT(listed(), ElementsAre("a.dsc"));
    EXPECT_FALSE(fs::exists(store.path("a.dsc.$o$")));
    EXPECT_FALSE(fs::exists(store.path("a.dsc.$n$")));
}

TEST_P(CrashStateTest, RemovedItStaysAway) {
    EXPECT_EQ(GetParam().finds ? kOk : kIo, TestStore::erase("a"));
    expectFound({});
    EXPECT_THAT(listed(), IsEmpty());
    expectFound({});
}

TEST_P(CrashStateTest, RemovalAfterAReadLeavesOrphansOnly) {
    expectFound(GetParam().finds);
    EXPECT_EQ(GetParam().finds ? kOk : kIo, TestStore::erase("a"));
    expectFound({});
    EXPECT_EQ(GetParam().orphans, namesOf(files()));
}

const CrashState kCrashStates[] = {
    {"BodyWritten",
     {{"a.dsc", kOldDescriptor}, {"a0000001", "old body"}, {"a0000002", "new body"}},
     plain("old"),
     {"a0000002"}},
    {"BodyHalfWritten",
     {{"a.dsc", kOldDescriptor}, {"a0000001", "old body"}, {"a0000002", ""}},
     plain("old"),
     {"a0000002"}},
    {"NewDescriptorHalfWritten",
     {{"a.dsc", kOldDescriptor},
      {"a0000001", "old body"},
      {"a.dsc.$n$", kNewDescriptor.substr(0, 13)},
      {"a0000002", "new body"}},
     plain("old"),
     {"a.dsc.$n$", "a0000002"}},
    {"NewDescriptorWritten",
     {{"a.dsc", kOldDescriptor},
      {"a0000001", "old body"},
      {"a.dsc.$n$", kNewDescriptor},
      {"a0000002", "new body"}},
     plain("old"),
     {"a.dsc.$n$", "a0000002"}},
    {"OldDescriptorAside",
     {{"a.dsc.$o$", kOldDescriptor},
      {"a0000001", "old body"},
      {"a.dsc.$n$", kNewDescriptor},
      {"a0000002", "new body"}},
     plain("old"),
     {"a.dsc.$n$", "a0000002"}},
    {"NewDescriptorInPlace",
     {{"a.dsc.$o$", kOldDescriptor},
      {"a0000001", "old body"},
      {"a.dsc", kNewDescriptor},
      {"a0000002", "new body"}},
     plain("new"),
     {"a0000001"}},
    {"OldDescriptorDeleted",
     {{"a0000001", "old body"}, {"a.dsc", kNewDescriptor}, {"a0000002", "new body"}},
     plain("new"),
     {"a0000001"}},
    {"WriteDone", {{"a.dsc", kNewDescriptor}, {"a0000002", "new body"}}, plain("new"), {}},
    {"OldDescriptorBackAfterItsBodyWent",
     {{"a.dsc.$o$", kOldDescriptor}, {"a.dsc", kNewDescriptor}, {"a0000002", "new body"}},
     plain("new"),
     {}},
    {"FirstWriteUnfinished",
     {{"a.dsc.$n$", kNewDescriptor}, {"a0000002", "new body"}},
     {},
     {"a.dsc.$n$", "a0000002"}},
    {"RemovalRenamed", {{"a.dsc.$d$", kOldDescriptor}, {"a0000001", "old body"}}, {}, {"a0000001"}},
    {"RemovalDeletedTheDescriptor", {{"a0000001", "old body"}}, {}, {"a0000001"}},
    {"RemovalBackWithoutItsBody", {{"a.dsc.$d$", kOldDescriptor}}, {}, {}},
    {"RemovalDone", {}, {}, {}},
};

INSTANTIATE_TEST_SUITE_P(, CrashStateTest, testing::ValuesIn(kCrashStates),
                         [](const auto& param) { return param.param.name; });

// Durable closing of a stream.

TEST(SyncCloseTest, WritesOutAndCloses) {
    const support::TempWorkingDir folder;
    std::FILE* const stream = std::fopen("file", "wb");
    ASSERT_NE(nullptr, stream);
    ASSERT_EQ(3U, std::fwrite("abc", 1, 3, stream));
    EXPECT_EQ(0, syncClose(stream));
    EXPECT_EQ("abc", readFile("file"));
}

TEST(SyncCloseTest, LeavesTheStreamOpenWhenItCannotWriteOut) {
    std::FILE* const stream = std::fopen("/dev/full", "wb");
    ASSERT_NE(nullptr, stream);
    ASSERT_EQ(3U, std::fwrite("abc", 1, 3, stream));
    EXPECT_EQ(-1, syncClose(stream));
    EXPECT_NE(0, std::ferror(stream));
    (void)std::fclose(stream);
}

TEST(SyncCloseTest, LeavesTheStreamOpenWhenItCannotSync) {
    const support::TempWorkingDir folder;
    std::FILE* const stream = std::fopen("file", "wb");
    ASSERT_NE(nullptr, stream);
    fault::FailingCall fault(1, EIO, fault::Mode::kOnce, {fault::Call::kFsync});
    EXPECT_EQ(-1, syncClose(stream));
    EXPECT_TRUE(fault.lift());
    EXPECT_EQ(3U, std::fwrite("abc", 1, 3, stream));
    EXPECT_EQ(0, std::fclose(stream));
}

// The store-wide lock.

class RecordLockTest : public RecordDiskTest {
protected:
    // Whether `operation` ends while this thread holds the lock; it has ended when
    // this returns.
    static bool endsWhile(int (*acquire)(pthread_rwlock_t*),
                          const std::function<void()>& operation) {
        EXPECT_EQ(0, acquire(&RWLocker::m_RWMutex));
        std::atomic<bool> ended{false};
        std::thread other([&] {
            operation();
            ended = true;
        });
        for (int i = 0; i < 20 && !ended; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        const bool inTime = ended;
        EXPECT_EQ(0, pthread_rwlock_unlock(&RWLocker::m_RWMutex));
        other.join();
        return inTime;
    }
};

TEST_F(RecordLockTest, ReadersShareItAndWritersDoNot) {
    ASSERT_EQ(kOk, TestStore::save("a", plain("a")));
    const struct {
        const char* name;
        std::function<void(aFileStore&)> operation;
        bool shares;
    } rows[] = {
        {"read", [](aFileStore& record) { EXPECT_EQ(kOk, record.read()); }, true},
        {"isExist", [](aFileStore& record) { EXPECT_EQ(1, record.isExist()); }, true},
        {"write", [](aFileStore& record) { EXPECT_EQ(kOk, record.write()); }, false},
        {"remove",
         [](aFileStore& record) {
             EXPECT_EQ(kOk, record.remove());
             EXPECT_EQ(kOk, aFileStoreExt(record).setLockType(RWLocker::kNoLock));
             EXPECT_EQ(kOk, record.write());
         },
         false},
    };
    for (const auto& row : rows) {
        for (const int lockType : {RWLocker::kNoLock, 0, 1, -2}) {
            SCOPED_TRACE(row.name + " with lock type "s + std::to_string(lockType));
            aFileStore record = TestStore::record("a");
            fill(record, plain("a"));
            ASSERT_EQ(kOk, aFileStoreExt(record).setLockType(lockType));
            const bool free = lockType == RWLocker::kNoLock;
            EXPECT_EQ(free, endsWhile(pthread_rwlock_wrlock, [&] { row.operation(record); }));
            ASSERT_EQ(kOk, aFileStoreExt(record).setLockType(lockType));
            EXPECT_EQ(free || row.shares,
                      endsWhile(pthread_rwlock_rdlock, [&] { row.operation(record); }));
        }
    }
}

TEST_F(RecordLockTest, IsGivenBackOnEveryPath) {
    aFileStore record = TestStore::record("a");
    EXPECT_EQ(kMissing, record.read());
    EXPECT_EQ(kIo, record.remove());
    ASSERT_EQ(kOk, record.setBody(nullptr, 0));
    EXPECT_EQ(kIo, record.write());
    EXPECT_EQ(0, record.isExist());
    ASSERT_EQ(0, pthread_rwlock_trywrlock(&RWLocker::m_RWMutex));
    EXPECT_EQ(0, pthread_rwlock_unlock(&RWLocker::m_RWMutex));
}

// Pending contents are made plain before the lock is taken, and the lock is not
// taken when there is no file name.
TEST_F(RecordLockTest, IsNotTakenForNothing) {
    aFileStore unnamed = TestStore::record();
    EXPECT_TRUE(endsWhile(pthread_rwlock_wrlock, [&] {
        EXPECT_EQ(kMissing, unnamed.read());
        EXPECT_EQ(kMissing, unnamed.remove());
        EXPECT_EQ(0, unnamed.isExist());
    }));
}

}  // namespace
