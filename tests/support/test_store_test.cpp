// The fixture itself: several stores in one process know nothing of each other.
#include "tests/support/test_store.h"

#include "format/dsc_text.h"
#include "gtest/gtest.h"

namespace {

const Contents kSample{
    {{kTypeString, 1, std::string("alice\0", 6), false}, {kTypeBinary, 3, "\x01\xab\xff", true}},
    "body",
    true};

TEST(TestStoreTest, RecordsComeBackAlsoAfterARestart) {
    TestStore store;
    ASSERT_EQ(kOk, TestStore::save("a", kSample));
    EXPECT_EQ(kSample, TestStore::load("a"));
    store.restart("secret");
    EXPECT_EQ(kSample, TestStore::load("a"));
}

TEST(TestStoreTest, StoresFollowEachOtherAfresh) {
    for (const char* const password : {"one", "two", ""}) {
        SCOPED_TRACE(password);
        TestStore store(password);
        EXPECT_EQ(1, CMN_FILESTORE_S.isOpen());
        EXPECT_TRUE(TestStore::files().empty());
        EXPECT_EQ(kOk, TestStore::save("a", kSample));
    }
    EXPECT_EQ(nullptr, CMN_FILESTORE_S.service());
    EXPECT_EQ(nullptr, FileStoreSrvC.service());
    EXPECT_EQ(0, FileStoreSrvC.uses());
}

TEST(TestStoreTest, PasswordProtectsTheDatabase) {
    TestStore store("secret");
    store.restart(nullptr);
    EXPECT_EQ(kWrongPassword, CMN_FILESTORE_S.open("wrong"));
    EXPECT_EQ(kOk, CMN_FILESTORE_S.open("secret"));
}

}  // namespace
