// Files that no store has written: every operation ends with a status, in time that
// the size of the files bounds, and touches nothing that is not the record's.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "format/dsc_text.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "store/file_store.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/test_store.h"

namespace {

namespace fs = std::filesystem;

using support::readFile;
using support::writeFile;

const Contents kFresh{{{kTypeText, 1, "fresh", false}}, "fresh body", false};
constexpr off_t k5GiB = off_t{5} << 30;

void makeSparse(const std::string& path, off_t size) {
    writeFile(path, "x");
    ASSERT_EQ(0, ::truncate(path.c_str(), size));
}

class HostileFilesTest : public testing::Test {
protected:
    HostileFilesTest() {
        writeFile("./victim", "not the record's");
        EXPECT_EQ(kOk, TestStore::save("b", kFresh));
    }

    // Everything but what may be "a"'s is as it was.
    void expectOthersUntouched() {
        EXPECT_EQ("not the record's", readFile("./victim"));
        EXPECT_EQ(kFresh, TestStore::load("b"));
        EXPECT_TRUE(fs::is_directory(TestStore::kFolder));
        EXPECT_EQ(kOk, CMN_FILESTORE_S.checkPwd("secret"));
    }

    TestStore store;
};

// What a descriptor may name as its body.
struct Reference {
    const char* name;
    std::string text;
    std::function<void()> arrange;
    Status read;  // the status of reading such a record
};

std::ostream& operator<<(std::ostream& out, const Reference& reference) {
    return out << reference.name;
}

std::string in(const char* name) {
    return std::string(TestStore::kFolder) + "/" + name;
}

class HostileReferenceTest : public HostileFilesTest,
                             public testing::WithParamInterface<Reference> {
protected:
    HostileReferenceTest() {
        GetParam().arrange();
        writeFile(store.path("a.dsc"),
                  "10000003 00000000 " + GetParam().text + "\n00000004 00000001 kept\n");
    }
};

TEST_P(HostileReferenceTest, ReadingTellsAndKeepsTheAttributes) {
    aFileStore record = TestStore::record("a");
    const fault::PeakMemory peak;
    EXPECT_EQ(GetParam().read, record.read());
    EXPECT_LT(peak.bytes(), 100000);
    EXPECT_EQ(1U, record.getAttrCount());
    expectOthersUntouched();
}

TEST_P(HostileReferenceTest, RemovingTakesTheRecordAndNothingElse) {
    EXPECT_EQ(kOk, TestStore::erase("a"));
    EXPECT_EQ(0, TestStore::record("a").isExist());
    expectOthersUntouched();
}

TEST_P(HostileReferenceTest, WritingReplacesIt) {
    EXPECT_EQ(kOk, TestStore::save("a", kFresh));
    EXPECT_EQ(kFresh, TestStore::load("a"));
    expectOthersUntouched();
}

const Reference kReferences[] = {
    {"Empty", "", [] {}, kMalformed},
    {"Dot", ".", [] {}, kMalformed},
    {"DotDot", "..", [] {}, kMalformed},
    {"Above", "../../victim", [] {}, kMalformed},
    {"Below", "x/y",
     [] {
         fs::create_directory(in("x"));
         writeFile(in("x/y"), "other");
     },
     kMalformed},
    {"SlashAtTheEnd", "x/", [] { fs::create_directory(in("x")); }, kMalformed},
    {"Absolute", "/dev/zero", [] {}, kMalformed},
    {"AnotherDescriptor", "b.dsc", [] {}, kMalformed},
    {"ItsOwnDescriptor", "a.dsc", [] {}, kMalformed},
    {"SavedDescriptor", "c.dsc.$o$", [] { writeFile(in("c.dsc.$o$"), ""); }, kMalformed},
    {"DescriptorBeingDeleted", "a.dsc.$d$", [] {}, kMalformed},
    {"Missing", "0000ffff", [] {}, kMissing},
    {"NameTooLong", std::string(300, 'x'), [] {}, kMissing},
    {"Folder", "x", [] { fs::create_directory(in("x")); }, kIo},
    {"FullFolder", "x", [] { fs::create_directories(in("x/y")); }, kIo},
    {"Fifo", "x", [] { ASSERT_EQ(0, mkfifo(in("x").c_str(), 0600)); }, kIo},
    {"LinkLoop", "x", [] { fs::create_symlink("x", in("x")); }, kMissing},
    {"LinkToNowhere", "x", [] { fs::create_symlink("nowhere", in("x")); }, kMissing},
    // Whoever can write into a folder could otherwise have any file read that a privileged
    // process can read.
    {"LinkToADevice", "x", [] { fs::create_symlink("/dev/zero", in("x")); }, kMissing},
    {"LinkToAFolder", "x", [] { fs::create_symlink("..", in("x")); }, kMissing},
    {"LinkToAFile", "x", [] { fs::create_symlink("../../victim", in("x")); }, kMissing},
    {"MoreThan32Bits", "x", [] { makeSparse(in("x"), k5GiB); }, kIo},
};

INSTANTIATE_TEST_SUITE_P(, HostileReferenceTest, testing::ValuesIn(kReferences),
                         [](const auto& param) { return param.param.name; });

// What may stand in a descriptor's place. All operations are tried on it, and records
// written over it. A folder with something in it is moved aside and can then neither
// be replaced nor deleted.
struct Place {
    const char* name;
    std::function<void(const std::string& path)> arrange;
    Status read;
    bool goes = true;  // for good, once a record has replaced it
};

std::ostream& operator<<(std::ostream& out, const Place& place) {
    return out << place.name;
}

class HostilePlaceTest : public HostileFilesTest, public testing::WithParamInterface<Place> {
protected:
    HostilePlaceTest() { GetParam().arrange(store.path("a.dsc")); }
};

TEST_P(HostilePlaceTest, EveryOperationEndsWithAStatus) {
    aFileStore record = TestStore::record("a");
    const fault::PeakMemory peak;
    EXPECT_EQ(GetParam().read, record.read());
    EXPECT_LT(peak.bytes(), 1000000);
    aFileStoreList list;
    EXPECT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
    (void)record.isExist();
    expectOthersUntouched();

    fill(record, kFresh);
    EXPECT_EQ(kOk, record.write());
    EXPECT_EQ(kFresh, TestStore::load("a"));
    EXPECT_EQ(GetParam().goes ? kOk : kIo, record.write());
    EXPECT_EQ(kFresh, TestStore::load("a"));
    EXPECT_EQ(GetParam().goes ? kOk : kIo, record.remove());
    EXPECT_EQ(GetParam().goes ? 0 : 1, record.isExist());
    expectOthersUntouched();
}

TEST_P(HostilePlaceTest, RemovingEndsWithAStatus) {
    const Status status = TestStore::erase("a");
    EXPECT_TRUE(status == kOk || status == kIo) << status;
    expectOthersUntouched();
}

std::string randomBytes(unsigned int seed, std::size_t size) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random() & 0xff);
    }
    return bytes;
}

const Place kPlaces[] = {
    {"EmptyFile", [](const std::string& path) { writeFile(path, ""); }, kOk},
    {"EmptyFolder", [](const std::string& path) { fs::create_directory(path); }, kMalformed},
    {"FullFolder", [](const std::string& path) { fs::create_directories(path + "/x"); }, kMalformed,
     false},
    {"Fifo", [](const std::string& path) { ASSERT_EQ(0, mkfifo(path.c_str(), 0600)); }, kMalformed},
    {"LinkToNowhere", [](const std::string& path) { fs::create_symlink("nowhere", path); },
     kMissing},
    {"LinkToItself", [](const std::string& path) { fs::create_symlink("a.dsc", path); }, kMissing},
    {"LinkToADevice", [](const std::string& path) { fs::create_symlink("/dev/zero", path); },
     kMissing},
    {"LinkToTheFolder", [](const std::string& path) { fs::create_symlink(".", path); }, kMissing},
    {"LinkToARecord", [](const std::string& path) { fs::create_symlink("b.dsc", path); }, kMissing},
    {"Zeros", [](const std::string& path) { writeFile(path, std::string(100000, '\0')); },
     kMalformed},
    {"RandomBytes", [](const std::string& path) { writeFile(path, randomBytes(1, 100000)); },
     kMalformed},
    {"MoreThan32Bits", [](const std::string& path) { makeSparse(path, k5GiB); }, kNoMemory},
};

INSTANTIATE_TEST_SUITE_P(, HostilePlaceTest, testing::ValuesIn(kPlaces),
                         [](const auto& param) { return param.param.name; });

// Nothing can be reached by such a name, so there is no such record.
TEST_F(HostileFilesTest, NameThatCannotExistIsAbsent) {
    fs::create_symlink("a.dsc", store.path("a.dsc"));
    fs::create_symlink("loop", in("loop"));
    const std::string deep = std::string(5000, '/') + "x";
    const struct {
        const char* name;
        std::string folder;
        std::string record;
    } rows[] = {
        {"link to itself", TestStore::kFolder, "a"},
        {"folder that is a link to itself", in("loop"), "a"},
        {"too long", TestStore::kFolder, std::string(300, 'x')},
        {"too long with its ending only", TestStore::kFolder, std::string(253, 'x')},
        {"too long a folder", in(std::string(300, 'x').c_str()), "a"},
        {"too long a path", TestStore::kFolder + deep, "a"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        aFileStore record = TestStore::record(row.record);
        ASSERT_EQ(kOk, record.setFolderName(row.folder.c_str()));
        EXPECT_EQ(0, record.isExist());
        EXPECT_EQ(kMissing, record.read());
    }
    expectOthersUntouched();
}

// Random bytes behind a proper beginning, which reach further than random bytes alone.
TEST_F(HostileFilesTest, RandomDescriptorsEndWithAStatus) {
    const std::string beginnings[] = {"", "00000002 00000001 ", "00000003 1 ", "01000004 1 ",
                                      "10000003 0 "};
    for (unsigned int seed = 0; seed < 500; ++seed) {
        SCOPED_TRACE(seed);
        writeFile(store.path("a.dsc"),
                  beginnings[seed % 5] + randomBytes(seed, 1 + seed * 7 % 3000));
        aFileStore record = TestStore::record("a");
        const Status status = record.read();
        EXPECT_TRUE(status == kOk || status == kMalformed || status == kMissing || status == kIo)
            << status;
        (void)record.decrypt();
    }
    expectOthersUntouched();
}

TEST_F(HostileFilesTest, ManyAttributesAreReadAndWrittenWithin10TimesTheirSize) {
    constexpr unsigned int kMany = 200000;
    std::string text;
    for (unsigned int i = 0; i < kMany; ++i) {
        text += "00000002 00000007 0123456789\n";
    }
    writeFile(store.path("a.dsc"), text);
    aFileStore record = TestStore::record("a");
    const fault::PeakMemory peak;
    ASSERT_EQ(kOk, record.read());
    EXPECT_LT(peak.bytes(), 10 * static_cast<long>(text.size()));
    EXPECT_EQ(kMany, record.getAttrCount());
    ASSERT_EQ(kOk, record.write());
    EXPECT_TRUE(text == readFile(store.path("a.dsc")));
}

TEST_F(HostileFilesTest, LongLinesAreReadWithinThreeTimesTheirSize) {
    constexpr long kSize = 10 << 20;
    for (const char* const head : {"00000003 00000001 ", "00000002 00000001 ", "!"}) {
        SCOPED_TRACE(head);
        writeFile(store.path("a.dsc"), head + std::string(kSize, 'a'));
        aFileStore record = TestStore::record("a");
        const fault::PeakMemory peak;
        EXPECT_EQ(kOk, record.read());
        EXPECT_LT(peak.bytes(), 3 * kSize);
    }
}

}  // namespace
