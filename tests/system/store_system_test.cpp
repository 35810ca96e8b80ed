// The module as it ships, from its loading to its unloading, used through the proxies
// by a program that has none of its code.
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "host/store_host.h"
#include "tests/support/contents.h"
#include "tests/support/temp_dir.h"
#include "tests/system/store_modules.h"

namespace {

constexpr int kRecords = 1000;

constexpr const char* kFolders[] = {
    "./db",
    "./db/settings",
    "./db/lsps",
    "./db/keys",
    "./db/crls",
    "./db/crm",
    "./db/certificates",
    "./db/certificates/local",
    "./db/certificates/remote",
};

// Folder and name.
using Key = std::pair<std::string, std::string>;

// Contents of every shape, the same in every run.
class Generator {
public:
    Contents next() {
        Contents contents;
        for (unsigned int count = below(6); count != 0; --count) {
            contents.attributes.push_back(attribute());
        }
        if (const unsigned int kind = below(4); kind != 0) {
            contents.body = bytes(1 + (below(50) == 0 ? 200000 : below(3000)));
            contents.encrypted = kind != 1;
        }
        return contents;
    }

private:
    unsigned int below(unsigned int bound) { return static_cast<unsigned int>(random_()) % bound; }

    std::string bytes(unsigned int size) {
        std::string made(size, '\0');
        for (char& byte : made) {
            byte = static_cast<char>(below(256));
        }
        return made;
    }

    std::string text() {
        static const std::string kCharacters = "abcXYZ 019!\t\xc3\xa4";
        std::string made = "t";  // blanks that lead are lost
        for (unsigned int size = below(40); size != 0; --size) {
            made += kCharacters[below(static_cast<unsigned int>(kCharacters.size()))];
        }
        return made;
    }

    Contents::Attribute attribute() {
        const unsigned int id = below(1000);
        switch (below(4)) {
            case 0:
                return {1, id, bytes(4), false};
            case 1:
                return {3, id, text() + '\0', false};
            case 2:
                return {4, id, text(), false};
            default:
                return {2, id, bytes(below(300)), below(2) == 0};
        }
    }

    std::minstd_rand random_{20240229};
};

aFileStore recordOf(const Key& key) {
    aFileStore record;
    EXPECT_EQ(kOk, record.setFolderName(key.first.c_str()));
    EXPECT_EQ(kOk, record.setName(key.second.c_str()));
    return record;
}

class StoreSystemTest : public testing::TestWithParam<StoreModules> {
protected:
    void load() {
        const Result started = host_.start(GetParam().setup);
        ASSERT_TRUE(started.ok()) << started.message;
        for (const std::string& module : GetParam().setup.modules) {
            EXPECT_TRUE(isMapped(module)) << module;
        }
    }

    void unload() {
        const Result stopped = host_.stop();
        ASSERT_TRUE(stopped.ok()) << stopped.message;
        for (const std::string& module : GetParam().setup.modules) {
            EXPECT_FALSE(isMapped(module)) << module;
        }
    }

    void write(Key key, const Contents& contents) {
        aFileStore record = recordOf(key);
        if (key.second.empty()) {
            ASSERT_EQ(kOk, record.setName(nullptr));
        }
        fill(record, contents);
        ASSERT_EQ(kOk, record.write());
        key.second = record.getName();
        ASSERT_FALSE(key.second.empty());
        expected_[key] = contents;
    }

    void expectAllThere() const {
        std::set<Key> found;
        for (const char* const folder : kFolders) {
            aFileStoreList list;
            ASSERT_EQ(kOk, list.readFromFolder(folder));
            for (aFileStore item = list.getFirst(); item.target() != nullptr;
                 item = list.getNext()) {
                const Key key(item.getFolderName(), item.getName());
                if (key == Key("./db", "key")) {
                    continue;  // the password's
                }
                SCOPED_TRACE(key.first + "/" + key.second);
                ASSERT_TRUE(found.insert(key).second);
                ASSERT_EQ(1U, expected_.count(key));
                ASSERT_EQ(kOk, item.read());
                ASSERT_EQ(kOk, item.decrypt());
                ASSERT_EQ(expected_.at(key), contentsOf(item));
            }
        }
        EXPECT_EQ(expected_.size(), found.size());
    }

    support::TempWorkingDir dir_;
    StoreHost host_;
    std::map<Key, Contents> expected_;
};

TEST_P(StoreSystemTest, ThousandRecordsComeBackByteForByte) {
    ASSERT_NO_FATAL_FAILURE(load());
    Generator generator;
    {
        aFileStoreSrv store;
        ASSERT_EQ(kOk, store.prepareDBFolders());
        EXPECT_EQ(kWrongPassword, store.open("any"));
        ASSERT_EQ(kOk, store.open(""));
        for (int i = 0; i < kRecords; ++i) {
            const std::string name = i % 5 == 0 ? "" : "record " + std::to_string(i);
            ASSERT_NO_FATAL_FAILURE(write({kFolders[i % 9], name}, generator.next()));
        }
        ASSERT_EQ(std::size_t{kRecords}, expected_.size());
        ASSERT_NO_FATAL_FAILURE(expectAllThere());

        ASSERT_EQ(kOk, store.recrypt("", "one"));
        ASSERT_NO_FATAL_FAILURE(expectAllThere());
        int turn = 0;
        for (auto item = expected_.begin(); item != expected_.end(); ++turn) {
            const Key key = item->first;
            if (turn % 7 == 0) {
                ASSERT_EQ(kOk, recordOf(key).remove());
                item = expected_.erase(item);
                continue;
            }
            ++item;
            if (turn % 3 == 0) {
                ASSERT_NO_FATAL_FAILURE(write(key, generator.next()));
            }
        }
        ASSERT_EQ(kOk, store.recrypt("one", "two"));
        ASSERT_NO_FATAL_FAILURE(expectAllThere());
        ASSERT_EQ(kOk, store.close());
    }
    ASSERT_NO_FATAL_FAILURE(unload());
    ASSERT_NO_FATAL_FAILURE(load());
    {
        aFileStoreSrv store;
        ASSERT_EQ(kOk, store.prepareDBFolders());
        EXPECT_EQ(kWrongPassword, store.open("one"));
        ASSERT_EQ(kOk, store.open("two"));
        ASSERT_NO_FATAL_FAILURE(expectAllThere());
    }
    ASSERT_NO_FATAL_FAILURE(unload());
}

// Of each record not a byte of what is to be secret is on the disk.
TEST_P(StoreSystemTest, SecretsAreNotOnTheDisk) {
    ASSERT_NO_FATAL_FAILURE(load());
    aFileStoreSrv store;
    ASSERT_EQ(kOk, store.prepareDBFolders());
    ASSERT_EQ(kOk, store.open(""));
    const Contents contents{
        {{2, 1, "attribute that is secret", true}, {4, 2, "in the open", false}},
        "body that is secret",
        true};
    ASSERT_NO_FATAL_FAILURE(write({"./db/keys", "a"}, contents));
    ASSERT_EQ(kOk, store.recrypt("", "password that is secret"));
    std::string hex;
    for (const char byte : std::string("secret")) {
        const char* const digits = "0123456789abcdef";
        hex += {digits[byte >> 4], digits[byte & 15]};
    }
    bool open = false;
    for (const auto& [path, bytes] : support::tree(".")) {
        EXPECT_EQ(std::string::npos, bytes.find("secret")) << path;
        EXPECT_EQ(std::string::npos, bytes.find(hex)) << path;
        open = open || bytes.find("in the open") != std::string::npos;
    }
    EXPECT_TRUE(open);
}

TEST_P(StoreSystemTest, UnloadingAnOpenStoreClosesIt) {
    ASSERT_NO_FATAL_FAILURE(load());
    aFileStoreSrv store;
    ASSERT_EQ(kOk, store.prepareDBFolders());
    ASSERT_EQ(kOk, store.open(""));
    const aFileStore record = recordOf({"./db/keys", "a"});
    ASSERT_NO_FATAL_FAILURE(unload());
    EXPECT_EQ(nullptr, record.target());
    EXPECT_EQ(0, store.isOpen());
    EXPECT_EQ(kNoObject, store.open(""));
    ASSERT_NO_FATAL_FAILURE(load());
    EXPECT_EQ(0, store.isOpen());
    EXPECT_EQ(kOk, store.open(""));
}

// What the module's own copy of the framework counts is not this program's.
TEST_P(StoreSystemTest, RegistriesStayApart) {
    ASSERT_NO_FATAL_FAILURE(load());
    const int before = ObjectManager.size();
    aFileStoreSrv store;
    const aFileStore record;
    EXPECT_NE(nullptr, record.target());
    EXPECT_EQ(before, ObjectManager.size());
}

INSTANTIATE_TEST_SUITE_P(Services, StoreSystemTest, testing::ValuesIn(allServices()),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
