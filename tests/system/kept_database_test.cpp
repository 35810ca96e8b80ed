// Databases that an earlier build has written, tests/data/databases/: every later one
// reads them, byte for byte, and goes on with them.
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "host/store_host.h"
#include "tests/support/contents.h"
#include "tests/support/temp_dir.h"
#include "tests/system/store_modules.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

struct Kept {
    const char* folder;
    const char* name;
    Contents contents;
};

std::string everyByte(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 7 + i / 256);
    }
    return bytes;
}

// What was written, and what the saved descriptor among it stands for.
const std::vector<Kept>& keptRecords() {
    static const std::vector<Kept> kRecords = {
        {"./db", "at the top", {{{4, 1, "text", false}}, "plain body", false}},
        {"./db/settings",
         "types",
         {{{1, 1, "\x2a\0\0\x80"s, false},
           {2, 2, everyByte(256), false},
           {2, 3, "", false},
           {3, 4, "string\0"s, false},
           {4, 5, "\xc3\xa4\xe2\x82\xac text", false}},
          {},
          false}},
        {"./db/settings", "00000001", {{{3, 1, "without a name\0"s, false}}, {}, false}},
        {"./db/keys", "alice", {{{2, 1, "secret attribute", true}}, "secret body", true}},
        {"./db/keys", "large", {{}, everyByte(5000), true}},
        {"./db/keys", "empty and encrypted", {{}, "", true}},
        {"./db/crm",
         "mixed",
         {{{2, 1, everyByte(300), true},
           {2, 1, "in the open", false},
           {2, 0xffffffff, "\0"s, true}},
          everyByte(33),
          false}},
        {"./db/certificates/remote", "dots.in.it", {{{1, 0, "\1\0\0\0"s, false}}, "\0"s, false}},
        {"./db/lsps", "cut off", {{{2, 1, "the older one", true}}, "the older one's body", true}},
    };
    return kRecords;
}

class KeptDatabaseTest : public testing::TestWithParam<StoreModules> {
protected:
    void SetUp() override {
        fs::copy(fs::path(DATABASES) / "v1" / GetParam().name / "db", "db",
                 fs::copy_options::recursive);
        const Result started = host_.start(GetParam().setup);
        ASSERT_TRUE(started.ok()) << started.message;
        ASSERT_EQ(kOk, aFileStoreSrv().prepareDBFolders());
    }

    static void expectAllThere() {
        std::set<std::pair<std::string, std::string>> listed;
        for (const char* const folder :
             {"./db", "./db/settings", "./db/lsps", "./db/keys", "./db/crls", "./db/crm",
              "./db/certificates", "./db/certificates/local", "./db/certificates/remote"}) {
            aFileStoreList list;
            ASSERT_EQ(kOk, list.readFromFolder(folder));
            for (aFileStore item = list.getFirst(); item.target() != nullptr;
                 item = list.getNext()) {
                listed.emplace(item.getFolderName(), item.getName());
            }
        }
        EXPECT_EQ(keptRecords().size() + 1, listed.size()) << "and the password's";
        for (const Kept& kept : keptRecords()) {
            SCOPED_TRACE(kept.name);
            EXPECT_EQ(1U, listed.count({kept.folder, kept.name}));
            aFileStore record;
            ASSERT_EQ(kOk, record.setFolderName(kept.folder));
            ASSERT_EQ(kOk, record.setName(kept.name));
            ASSERT_EQ(kOk, record.read());
            ASSERT_EQ(kOk, record.decrypt());
            EXPECT_EQ(kept.contents, contentsOf(record));
        }
    }

    support::TempWorkingDir dir_;
    StoreHost host_;
};

TEST_P(KeptDatabaseTest, OpensAndHoldsWhatWasWritten) {
    aFileStoreSrv store;
    EXPECT_EQ(kWrongPassword, store.open(""));
    EXPECT_EQ(kWrongPassword, store.open("first password"));
    ASSERT_EQ(kOk, store.open("kept \xc3\xa4 password"));
    expectAllThere();
}

TEST_P(KeptDatabaseTest, PasswordChangesAndAllIsThere) {
    aFileStoreSrv store;
    ASSERT_EQ(kOk, store.recrypt("kept \xc3\xa4 password", "another"));
    ASSERT_EQ(kOk, store.open("another"));
    expectAllThere();
}

INSTANTIATE_TEST_SUITE_P(Services, KeptDatabaseTest, testing::ValuesIn(allServices()),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
