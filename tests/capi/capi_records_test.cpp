// Opening, unlocking and records, through the C functions.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capi/filestore.h"
#include "tests/capi/support.h"
#include "tests/support/temp_dir.h"

namespace capi_test {
namespace {

using support::TempDir;
using support::writeFile;
using testing::HasSubstr;
using testing::StrEq;

const std::string kPassword = "correct horse";

class CapiTest : public testing::Test {
protected:
    TempDir folder_;
    Db db_ = openWith(folder_.path(), kPassword, FILESTORE_CREATE);
    filestore_error error_ = FILESTORE_ERROR_INIT;
};

TEST(CapiOpenTest, SaysThatThereIsNoFolder) {
    const TempDir folder;
    filestore_error error = FILESTORE_ERROR_INIT;
    filestore_db* db = nullptr;
    const std::string path = folder / "none";
    EXPECT_EQ(FILESTORE_MISSING, filestore_open(path.c_str(), nullptr, &db, &error));
    EXPECT_EQ(nullptr, db);
    EXPECT_EQ(FILESTORE_MISSING, error.status);
    EXPECT_EQ(path, error.path);
    EXPECT_THAT(error.message, HasSubstr(path));
}

TEST(CapiOpenTest, SaysThatThereIsNoDatabase) {
    const TempDir folder;
    const Db db = open(folder.path());
    const filestore_key key = passwordOf(kPassword);
    EXPECT_EQ(FILESTORE_MISSING, filestore_unlock(db.get(), &key, nullptr, nullptr));
    EXPECT_EQ(FILESTORE_MISSING, statusOfGet(db, "keys/a"));
}

TEST(CapiOpenTest, MakesTheFolderAndTheDatabase) {
    const TempDir folder;
    put(openWith(folder / "new", kPassword, FILESTORE_CREATE), "keys/a", "body");
    EXPECT_EQ("body", bodyOf(get(openWith(folder / "new", kPassword), "keys/a")));
}

TEST(CapiOpenTest, RefusesWhatCannotBe) {
    const TempDir folder;
    filestore_db* db = nullptr;
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    EXPECT_EQ(FILESTORE_INVALID, filestore_open(nullptr, &options, &db, nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_open("", &options, &db, nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_open(folder.path().c_str(), nullptr, nullptr, nullptr));
    options.flags = 64;
    EXPECT_EQ(FILESTORE_INVALID, filestore_open(folder.path().c_str(), &options, &db, nullptr));
    options = FILESTORE_OPEN_OPTIONS_INIT;
    options.size = sizeof options - 1;
    EXPECT_EQ(FILESTORE_INVALID, filestore_open(folder.path().c_str(), &options, &db, nullptr));
    EXPECT_EQ(nullptr, db);
}

// A program of a later version, whose structures have more members.
TEST(CapiOpenTest, TakesLongerStructuresWhoseRestIsZero) {
    const TempDir folder;
    struct {
        filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
        std::uint64_t later = 0;
    } longer;
    longer.options.size = sizeof longer;
    filestore_db* db = nullptr;
    ASSERT_EQ(FILESTORE_OK, filestore_open(folder.path().c_str(), &longer.options, &db, nullptr));
    filestore_close(db);
    longer.later = 1;
    EXPECT_EQ(FILESTORE_INVALID,
              filestore_open(folder.path().c_str(), &longer.options, &db, nullptr));
}

TEST(CapiOpenTest, LeavesAnErrorOfAnotherSizeAlone) {
    filestore_error error = FILESTORE_ERROR_INIT;
    error.size = sizeof(error.size);
    std::strcpy(error.message, "mine");
    filestore_db* db = nullptr;
    EXPECT_EQ(FILESTORE_INVALID, filestore_open(nullptr, nullptr, &db, &error));
    EXPECT_THAT(error.message, StrEq("mine"));
}

TEST_F(CapiTest, OpensByDescriptorAndAfterARename) {
    put(db_, "keys/a", "body");
    const int folder = ::open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY);
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    options.descriptor = folder;
    filestore_db* handle = nullptr;
    must(filestore_open(nullptr, &options, &handle, &error_), error_);
    ::close(folder);
    const Db db(handle);
    const std::string elsewhere = folder_.path() + "-elsewhere";
    ASSERT_EQ(0, ::rename(folder_.path().c_str(), elsewhere.c_str()));
    unlock(db, kPassword);
    EXPECT_EQ("body", bodyOf(get(db, "keys/a")));
    EXPECT_EQ("body", bodyOf(get(db_, "keys/a")));
    ASSERT_EQ(0, ::rename(elsewhere.c_str(), folder_.path().c_str()));
}

TEST_F(CapiTest, RefusesAWrongPasswordAndStaysAsItWas) {
    put(db_, "keys/a", "body");
    const Db other = open(folder_.path());
    filestore_key wrong = passwordOf("battery staple");
    EXPECT_EQ(FILESTORE_WRONG_PASSWORD, filestore_unlock(other.get(), &wrong, nullptr, &error_));
    EXPECT_EQ(0, filestore_is_unlocked(other.get()));
    EXPECT_EQ(FILESTORE_WRONG_PASSWORD, filestore_unlock(db_.get(), &wrong, nullptr, &error_));
    EXPECT_EQ(1, filestore_is_unlocked(db_.get()));
    EXPECT_EQ("body", bodyOf(get(db_, "keys/a")));
}

TEST_F(CapiTest, TakesThePasswordFromAFileOrACallback) {
    writeFile(folder_ / "password", kPassword + "\n");
    const std::string path = folder_ / "password";
    filestore_key key = FILESTORE_KEY_INIT;
    key.path = path.c_str();
    must(filestore_unlock(open(folder_.path()).get(), &key, nullptr, &error_), error_);
    key = FILESTORE_KEY_INIT;
    key.fill = [](void*, char* buffer, std::size_t capacity, std::size_t* length) {
        *length = kPassword.copy(buffer, capacity);
        return 0;
    };
    must(filestore_unlock(open(folder_.path()).get(), &key, nullptr, &error_), error_);
    key.fill = [](void*, char*, std::size_t, std::size_t*) { return 1; };
    EXPECT_EQ(FILESTORE_USAGE, filestore_unlock(db_.get(), &key, nullptr, &error_));
    key.fill = [](void*, char*, std::size_t capacity, std::size_t* length) {
        *length = capacity + 1;
        return 0;
    };
    EXPECT_EQ(FILESTORE_INVALID, filestore_unlock(db_.get(), &key, nullptr, &error_));
}

TEST_F(CapiTest, RefusesKeysThatItDoesNotKnow) {
    filestore_key key = passwordOf(kPassword);
    for (const std::uint32_t kind : {0, FILESTORE_RECOVERY_KEY + 1, 77}) {
        key.kind = kind;
        EXPECT_EQ(FILESTORE_INVALID, filestore_unlock(db_.get(), &key, nullptr, nullptr)) << kind;
    }
    key = passwordOf(kPassword);
    key.path = "also";
    EXPECT_EQ(FILESTORE_INVALID, filestore_unlock(db_.get(), &key, nullptr, nullptr));
    key = FILESTORE_KEY_INIT;
    EXPECT_EQ(FILESTORE_INVALID, filestore_unlock(db_.get(), &key, nullptr, nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_unlock(db_.get(), nullptr, nullptr, nullptr));
}

TEST_F(CapiTest, ItsRawKeyUnlocksAnotherHandle) {
    put(db_, "keys/a", "body");
    void* bytes = nullptr;
    filestore_key key = FILESTORE_KEY_INIT;
    key.kind = FILESTORE_RAW_KEY;
    must(filestore_copy_key(db_.get(), &bytes, &key.length, &error_), error_);
    const Block block(bytes);
    key.bytes = bytes;
    const Db other = open(folder_.path());
    must(filestore_unlock(other.get(), &key, nullptr, &error_), error_);
    EXPECT_EQ("body", bodyOf(get(other, "keys/a")));
    key.length -= 1;
    EXPECT_EQ(FILESTORE_WRONG_PASSWORD, filestore_unlock(other.get(), &key, nullptr, nullptr));
}

TEST_F(CapiTest, ReadsPlainPartsWhileItIsLocked) {
    put(db_, "keys/secret", "secret");
    put(db_, "keys/plain", "plain", FILESTORE_PLAIN);
    filestore_lock(db_.get());
    EXPECT_EQ(0, filestore_is_unlocked(db_.get()));
    EXPECT_EQ("plain", bodyOf(get(db_, "keys/plain")));
    EXPECT_EQ(FILESTORE_NOT_OPEN, statusOfGet(db_, "keys/secret"));
    EXPECT_EQ(FILESTORE_NOT_OPEN, statusOfPut(db_, "keys/secret", "other"));
    const Record record = get(db_, "keys/secret", FILESTORE_PLAIN_ONLY);
    EXPECT_EQ(nullptr, filestore_record_body(record.get(), nullptr));
    filestore_info info = FILESTORE_INFO_INIT;
    ASSERT_EQ(FILESTORE_OK, filestore_record_info(record.get(), &info));
    EXPECT_EQ(FILESTORE_HAS_BODY | FILESTORE_BODY_ENCRYPTED, static_cast<int>(info.flags));
    EXPECT_THAT(info.sha256, StrEq(""));
    unlock(db_, kPassword);
    EXPECT_EQ("secret", bodyOf(get(db_, "keys/secret")));
}

TEST_F(CapiTest, TellsWhatIsKnownOfARecord) {
    const Record record = newRecord("keys/a", "abc");
    ASSERT_EQ(FILESTORE_OK,
              filestore_record_set_attribute(record.get(), FILESTORE_TEXT, FILESTORE_ID_LABEL,
                                             "Web", 3, 0, nullptr));
    must(filestore_put(db_.get(), record.get(), 0, &error_), error_);
    const Record read = get(db_, "keys/a");
    EXPECT_THAT(filestore_record_address(read.get()), StrEq("keys/a"));
    for (const filestore_record* each : {record.get(), read.get()}) {
        filestore_info info = FILESTORE_INFO_INIT;
        ASSERT_EQ(FILESTORE_OK, filestore_record_info(each, &info));
        EXPECT_THAT(info.address, StrEq("keys/a"));
        EXPECT_THAT(info.folder, StrEq("keys"));
        EXPECT_THAT(info.name, StrEq("a"));
        EXPECT_THAT(info.label, StrEq("Web"));
        EXPECT_THAT(info.sha256, StrEq("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f2"
                                       "0015ad"));
        EXPECT_EQ(static_cast<std::uint32_t>(FILESTORE_RAW), info.kind);
        EXPECT_EQ(3u, info.body_size);
        EXPECT_EQ(FILESTORE_HAS_BODY | FILESTORE_BODY_ENCRYPTED | FILESTORE_READABLE,
                  static_cast<int>(info.flags));
    }
}

TEST_F(CapiTest, ReadsARecordWithoutItsBody) {
    put(db_, "keys/a", "abc");
    const Record record = get(db_, "keys/a", FILESTORE_NO_BODY);
    EXPECT_EQ(nullptr, filestore_record_body(record.get(), nullptr));
    filestore_info info = FILESTORE_INFO_INIT;
    ASSERT_EQ(FILESTORE_OK, filestore_record_info(record.get(), &info));
    EXPECT_NE(0u, info.flags & FILESTORE_HAS_BODY);
}

TEST_F(CapiTest, SetsAndRemovesAttributes) {
    put(db_, "keys/a", "abc");
    const Record record = get(db_, "keys/a");
    const std::uint32_t number = 7;
    must(filestore_record_set_attribute(record.get(), FILESTORE_NUMBER, 0x8000, &number,
                                        sizeof number, 0, &error_),
         error_);
    must(filestore_record_set_attribute(record.get(), FILESTORE_TEXT, 0x8001, "secret", 6,
                                        FILESTORE_ENCRYPTED, &error_),
         error_);
    must(filestore_put(db_.get(), record.get(), 0, &error_), error_);
    const Record read = get(db_, "keys/a");
    filestore_attribute attribute = FILESTORE_ATTRIBUTE_INIT;
    ASSERT_EQ(FILESTORE_OK,
              filestore_record_find_attribute(read.get(), FILESTORE_NUMBER, 0x8000, &attribute));
    ASSERT_EQ(sizeof number, attribute.length);
    EXPECT_EQ(0, std::memcmp(&number, attribute.bytes, sizeof number));
    ASSERT_EQ(FILESTORE_OK,
              filestore_record_find_attribute(read.get(), FILESTORE_BINARY, 0x8001, &attribute));
    EXPECT_EQ(std::string("secret"),
              std::string(static_cast<const char*>(attribute.bytes), attribute.length));
    EXPECT_EQ(static_cast<std::uint32_t>(FILESTORE_ENCRYPTED), attribute.flags);
    must(filestore_record_remove_attribute(read.get(), 0x8000, &error_), error_);
    EXPECT_EQ(FILESTORE_NOT_FOUND, filestore_record_remove_attribute(read.get(), 0x8000, &error_));
    must(filestore_put(db_.get(), read.get(), 0, &error_), error_);
    EXPECT_EQ(FILESTORE_NOT_FOUND,
              filestore_record_find_attribute(get(db_, "keys/a").get(), FILESTORE_NUMBER, 0x8000,
                                              &attribute));
    EXPECT_EQ("abc", bodyOf(get(db_, "keys/a")));
}

// What is read can be set again, byte for byte: a string with the NUL that ends it.
TEST_F(CapiTest, AStringIsTheSameWithItsNulAndWithout) {
    const Record record = newRecord("settings/a", "body");
    for (const std::string_view given : {std::string_view("text"), std::string_view("text", 5)}) {
        must(filestore_record_set_attribute(record.get(), FILESTORE_STRING, 0x8000, given.data(),
                                            given.size(), 0, &error_),
             error_);
        for (const bool isWritten : {false, true}) {
            filestore_attribute attribute = FILESTORE_ATTRIBUTE_INIT;
            ASSERT_EQ(FILESTORE_OK, filestore_record_find_attribute(record.get(), FILESTORE_STRING,
                                                                    0x8000, &attribute));
            EXPECT_EQ(std::string_view("text", 5),
                      std::string_view(static_cast<const char*>(attribute.bytes), attribute.length))
                << isWritten;
            must(filestore_put(db_.get(), record.get(), 0, &error_), error_);
        }
    }
    EXPECT_EQ(FILESTORE_OK, filestore_record_set_attribute(record.get(), FILESTORE_STRING, 0x8000,
                                                           "a\0b", 3, 0, nullptr));
    EXPECT_EQ(FILESTORE_MALFORMED, filestore_put(db_.get(), record.get(), 0, nullptr));
}

TEST_F(CapiTest, RefusesAttributesThatDescribeTheRecord) {
    const Record record = newRecord("keys/a", "abc");
    EXPECT_EQ(FILESTORE_INVALID,
              filestore_record_set_attribute(record.get(), FILESTORE_BINARY, FILESTORE_ID_SHA256,
                                             "x", 1, 0, nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_record_set_attribute(record.get(), FILESTORE_NUMBER,
                                                                0x8000, "abc", 3, 0, nullptr));
    EXPECT_EQ(FILESTORE_INVALID,
              filestore_record_set_attribute(record.get(), 9, 0x8000, "abc", 3, 0, nullptr));
}

TEST_F(CapiTest, TwoWhoChangeDifferentAttributesBothSucceed) {
    put(db_, "keys/a", "abc");
    const Record one = get(db_, "keys/a"), two = get(db_, "keys/a");
    must(filestore_record_set_attribute(one.get(), FILESTORE_TEXT, 0x8001, "1", 1, 0, &error_),
         error_);
    must(filestore_record_set_attribute(two.get(), FILESTORE_TEXT, 0x8002, "2", 1, 0, &error_),
         error_);
    must(filestore_put(db_.get(), one.get(), 0, &error_), error_);
    must(filestore_put(db_.get(), two.get(), 0, &error_), error_);
    filestore_attribute attribute = FILESTORE_ATTRIBUTE_INIT;
    const Record read = get(db_, "keys/a");
    for (const std::uint32_t id : {0x8001u, 0x8002u}) {
        EXPECT_EQ(FILESTORE_OK,
                  filestore_record_find_attribute(read.get(), FILESTORE_TEXT, id, &attribute));
    }
}

TEST_F(CapiTest, PutsOnlyNewOnesIfThatIsAskedFor) {
    put(db_, "keys/a", "first");
    const Record second = newRecord("keys/a", "second");
    EXPECT_EQ(FILESTORE_INVALID, filestore_put(db_.get(), second.get(), FILESTORE_NEW, &error_));
    EXPECT_EQ("first", bodyOf(get(db_, "keys/a")));
    must(filestore_put(db_.get(), second.get(), 0, &error_), error_);
    EXPECT_EQ("second", bodyOf(get(db_, "keys/a")));
}

TEST_F(CapiTest, DoesNotBringBackARecordThatWasRemoved) {
    put(db_, "keys/a", "abc");
    const Record record = get(db_, "keys/a");
    must(filestore_remove(db_.get(), "keys/a", &error_), error_);
    must(filestore_record_set_body(record.get(), "new", 3, 0, &error_), error_);
    EXPECT_EQ(FILESTORE_MISSING, filestore_put(db_.get(), record.get(), 0, &error_));
    EXPECT_EQ(FILESTORE_MISSING, statusOfGet(db_, "keys/a"));
}

TEST_F(CapiTest, KeepsAnEmptyBody) {
    put(db_, "keys/a", "");
    const Record record = get(db_, "keys/a");
    std::size_t size = 1;
    EXPECT_NE(nullptr, filestore_record_body(record.get(), &size));
    EXPECT_EQ(0u, size);
}

TEST_F(CapiTest, RenamesARecord) {
    put(db_, "keys/a", "abc");
    put(db_, "keys/b", "other");
    EXPECT_EQ(FILESTORE_INVALID, filestore_rename(db_.get(), "keys/a", "keys/b", &error_));
    must(filestore_rename(db_.get(), "a", "crls/c", &error_), error_);
    EXPECT_EQ("abc", bodyOf(get(db_, "crls/c")));
    EXPECT_EQ(FILESTORE_MISSING, statusOfGet(db_, "keys/a"));
}

TEST_F(CapiTest, RefusesTheRecordsOfThePassword) {
    EXPECT_EQ(FILESTORE_INVALID, filestore_remove(db_.get(), "./key", nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_rename(db_.get(), "./kdf", "keys/a", nullptr));
}

TEST_F(CapiTest, AHandleForReadingChangesNothing) {
    put(db_, "keys/a", "abc");
    const Db db = openWith(folder_.path(), kPassword, FILESTORE_READ_ONLY);
    EXPECT_EQ("abc", bodyOf(get(db, "keys/a")));
    EXPECT_EQ(FILESTORE_INVALID, statusOfPut(db, "keys/b", "x"));
    EXPECT_EQ(FILESTORE_INVALID, filestore_remove(db.get(), "keys/a", nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_rename(db.get(), "keys/a", "keys/b", nullptr));
}

TEST_F(CapiTest, FindsTheRecordWhoseDescriptorStandsAside) {
    put(db_, "keys/a", "abc");
    EXPECT_EQ("abc", bodyOf(get(db_, "keys/a")));
    const std::string descriptor = folder_ / "db/keys/a.dsc";
    ASSERT_EQ(0, ::rename(descriptor.c_str(), (descriptor + ".$o$").c_str()));
    EXPECT_EQ("abc", bodyOf(get(db_, "keys/a")));
    EXPECT_EQ("abc", bodyOf(get(openWith(folder_.path(), kPassword), "keys/a")));
}

TEST_F(CapiTest, NullIsAnAnswerAndNoCrash) {
    EXPECT_EQ(FILESTORE_INVALID, filestore_get(nullptr, "a", 0, nullptr, nullptr));
    filestore_record* record = nullptr;
    EXPECT_EQ(FILESTORE_INVALID, filestore_get(nullptr, "a", 0, &record, nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_get(db_.get(), nullptr, 0, &record, nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_put(db_.get(), nullptr, 0, nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_record_info(nullptr, nullptr));
    EXPECT_EQ(FILESTORE_INVALID, filestore_unlock(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, filestore_is_unlocked(nullptr));
    filestore_lock(nullptr);
    filestore_close(nullptr);
    filestore_record_free(nullptr);
    filestore_free(nullptr);
}

TEST(CapiStatusTest, HasTheWordsOfTheTool) {
    EXPECT_THAT(filestore_status_name(FILESTORE_WRONG_PASSWORD), StrEq("wrong-password"));
    EXPECT_THAT(filestore_status_name(FILESTORE_BUSY), StrEq("busy"));
    EXPECT_THAT(filestore_status_name(77), StrEq("foreign"));
    EXPECT_EQ(1'000'000u, filestore_version());
}

}  // namespace
}  // namespace capi_test
