// Bodies as files, and decryption of what was read.
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "store/file_store.h"
#include "tests/support/doubles/idle.h"
#include "tests/support/fake_store_srv.h"
#include "tests/support/test_store.h"

namespace {

using std::string_literals::operator""s;
using support::readFile;
using support::writeFile;
using testing::IsEmpty;

aBuf noBuffer() {
    return aBuf(static_cast<TBuf*>(nullptr));
}

std::string bodyOf(FileStore& record) {
    const unsigned char* const body = record.getBody();
    return body == nullptr ? ""
                           : std::string(reinterpret_cast<const char*>(body), record.getBodySize());
}

class BodyFileTest : public testing::Test {
protected:
    void setBody(const std::string& body) {
        ASSERT_EQ(kOk, record.setBody(dataOf(body), sizeOf(body)));
    }

    TestStore store;
    CMN_GRefPtr<FileStore> held{new FileStore};
    FileStore& record = *held.get();
};

TEST_F(BodyFileTest, HoldsTheBytesAndNothingElse) {
    const std::string body = "\0\n\xff body"s;
    setBody(body);
    writeFile("./body", std::string(100, 'x'));
    EXPECT_EQ(kOk, record.writeBody("./body"));
    EXPECT_EQ(body, readFile("./body"));
    setBody("other");
    EXPECT_EQ(kOk, record.readBody("./body"));
    EXPECT_EQ(body, bodyOf(record));
}

TEST_F(BodyFileTest, RefusalsLeaveNoFile) {
    std::filesystem::create_directory("./folder");
    setBody("body");
    EXPECT_EQ(kInvalid, record.writeBody(nullptr));
    EXPECT_EQ(kIo, record.writeBody("./no such folder/body"));
    EXPECT_EQ(kIo, record.writeBody("./folder"));
    EXPECT_TRUE(std::filesystem::is_directory("./folder"));
    store.services().x509cmn().watch().failAt("createTBuf");
    EXPECT_EQ(kIo, record.writeBody("./body")) << "no buffer";
    EXPECT_TRUE(store.services().x509cmn().watch().lift());
    ASSERT_EQ(kOk, record.setBodyFlag(1));
    EXPECT_EQ(kIo, record.writeBody("./body")) << "no cipher";
    EXPECT_FALSE(std::filesystem::exists("./body"));
}

TEST_F(BodyFileTest, EmptyBodyCannotBeWritten) {
    ASSERT_EQ(kOk, record.setBody(nullptr, 0));
    EXPECT_EQ(kIo, record.writeBody("./body"));
    EXPECT_FALSE(std::filesystem::exists("./body"));
    ASSERT_EQ(kOk, record.setFolderName(TestStore::kFolder));
    ASSERT_EQ(kOk, record.setName("a"));
    EXPECT_EQ(kIo, record.write());
    EXPECT_THAT(TestStore::files(), IsEmpty());
}

// Its cipher text is not empty.
TEST_F(BodyFileTest, EmptyBodyCanBeWrittenEncrypted) {
    const Contents empty{{}, "", true};
    ASSERT_EQ(kOk, TestStore::save("a", empty));
    EXPECT_EQ(empty, TestStore::load("a"));
}

TEST_F(BodyFileTest, ReadingTellsWhatIsThere) {
    std::filesystem::create_directory("./folder");
    ASSERT_EQ(0, mkfifo("./fifo", 0600));
    writeFile("./empty", "");
    writeFile("./short", "ab");
    writeFile("./long", std::string(100000, 'x'));
    const struct {
        const char* path;
        Status status;
        unsigned int size;
    } rows[] = {{nullptr, kInvalid, 3}, {"./none", kMissing, 3}, {"./folder", kIo, 3},
                {"./fifo", kIo, 3},     {"./empty", kOk, 0},     {"./short", kOk, 2},
                {"./long", kOk, 100000}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path == nullptr ? "null" : row.path);
        setBody("old");
        EXPECT_EQ(row.status, record.readBody(row.path));
        EXPECT_EQ(row.size, record.getBodySize());
    }
}

TEST_F(BodyFileTest, ReadingAloneMakesNoBodyPresent) {
    writeFile("./body", "bytes");
    EXPECT_EQ(kOk, record.readBody("./body"));
    EXPECT_EQ(5U, record.getBodySize());
    EXPECT_EQ(0, record.hasBody());
    EXPECT_EQ(nullptr, record.getBody());
}

// Records as they come from the disk.

class DecryptTest : public testing::Test {
protected:
    DecryptTest() { EXPECT_EQ(kOk, TestStore::save("a", kSample)); }

    // The record "a", read and not decrypted.
    static aFileStore readSample() {
        aFileStore record = TestStore::record("a");
        EXPECT_EQ(kOk, record.read());
        return record;
    }

    static std::string bodyFile() {
        for (const auto& [name, content] : TestStore::files()) {
            if (!name.ends_with(".dsc")) {
                return content;
            }
        }
        return {};
    }

    static const Contents kSample;

    TestStore store;
};

const Contents DecryptTest::kSample{{{kTypeBinary, 1, "first", true},
                                     {kTypeBinary, 2, "plain", false},
                                     {kTypeBinary, 3, "second", true}},
                                    "body",
                                    true};

TEST_F(DecryptTest, ContentsStayInCipherFormUntilThen) {
    aFileStore record = readSample();
    const Contents before = contentsOf(record);
    EXPECT_EQ(bodyFile(), before.body);
    EXPECT_NE("first", before.attributes[0].data);
    EXPECT_EQ("plain", before.attributes[1].data);
    EXPECT_TRUE(before.attributes[0].encrypted);
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_EQ(kSample, contentsOf(record)) << "flags stay as they were";
    EXPECT_EQ(kOk, record.decrypt()) << "nothing is left to do";
    EXPECT_EQ(kSample, contentsOf(record));
}

TEST_F(DecryptTest, IsRefusedWhileTheServiceIsClosed) {
    aFileStore record = readSample();
    const Contents before = contentsOf(record);
    const auto files = TestStore::files();
    ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
    EXPECT_EQ(kNotOpen, record.decrypt());
    EXPECT_EQ(kIo, record.write());
    EXPECT_EQ(before, contentsOf(record));
    EXPECT_EQ(files, TestStore::files());
    ASSERT_EQ(kOk, CMN_FILESTORE_S.open("secret"));
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_EQ(kSample, contentsOf(record));
}

TEST_F(DecryptTest, NothingPendingNeedsNoService) {
    const Contents plain{{{kTypeBinary, 1, "a", false}}, "body", false};
    ASSERT_EQ(kOk, TestStore::save("b", plain));
    ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
    EXPECT_EQ(plain, TestStore::load("b"));
    EXPECT_EQ(kOk, TestStore::save("b", plain));
}

TEST_F(DecryptTest, WithoutLoginCheckTheDecodersKeyIsAllItTakes) {
    aFileStore record = readSample();
    ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
    ASSERT_EQ(kOk, aFileStoreExt(record).setLoginCheck(0));
    EXPECT_EQ(kIo, record.decrypt()) << "no key";
    aBuf key("secret");
    ASSERT_EQ(kOk, CMN_FILESTORE_S.getDecoder().setKey(key));
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_EQ(kSample, contentsOf(record));
}

TEST_F(DecryptTest, WithoutLoginCheckTheServiceIsNotAsked) {
    const CMN_GRefPtr<FakeStoreSrv> service(new FakeStoreSrv);
    service.get()->coder = new FakeCoder;
    service.get()->opened = 0;
    CMN_FILESTORE_S = aFileStoreSrv(service.get());
    aFileStoreExt record(*std::make_unique<aFileStore>(readSample()));
    service.get()->calls.clear();
    ASSERT_EQ(kOk, record.setLoginCheck(0));
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_THAT(service.get()->calls, IsEmpty());
}

TEST_F(DecryptTest, WrongKeyFailsAndChangesNothing) {
    aFileStore record = readSample();
    const Contents before = contentsOf(record);
    aBuf wrong("wrong");
    ASSERT_EQ(kOk, CMN_FILESTORE_S.getDecoder().setKey(wrong));
    EXPECT_EQ(kIo, record.decrypt());
    EXPECT_EQ(kIo, record.write());
    EXPECT_EQ(before, contentsOf(record));
}

// What did not decrypt for want of memory is neither damaged nor another key's.
TEST_F(DecryptTest, WantOfMemoryIsTold) {
    CallWatch& pkcs5 = store.services().pkcs5().watch();
    CallWatch& x509cmn = store.services().x509cmn().watch();
    const struct {
        const char* name;
        CallWatch& watch;
        const char* call;
        int nth;
        Status failure;
        Status status;
    } rows[] = {
        {"cipher, of the body", pkcs5, "decrypt", 1, kNoMemory, kNoMemory},
        {"cipher, of an attribute", pkcs5, "decrypt", 2, kNoMemory, kNoMemory},
        {"buffer, of the body", x509cmn, "set", 1, kNoMemory, kNoMemory},
        {"buffer, of an attribute", x509cmn, "set", 2, kNoMemory, kNoMemory},
        {"cipher, for another reason", pkcs5, "decrypt", 1, kMalformed, kIo},
        {"buffer, for another reason", x509cmn, "set", 1, kInvalid, kIo},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        aFileStore record = readSample();
        row.watch.failAt(row.call, row.nth, row.failure);
        EXPECT_EQ(row.status, record.decrypt());
        EXPECT_TRUE(row.watch.lift());
        EXPECT_EQ(kOk, record.decrypt());
        EXPECT_EQ(kSample, contentsOf(record));
    }
}

TEST_F(DecryptTest, WhatWasDecryptedBeforeAFailureStaysSo) {
    aFileStore record = readSample();
    const Contents before = contentsOf(record);
    store.services().pkcs5().watch().failAt("decrypt", 3);  // body, first, second
    EXPECT_EQ(kIo, record.decrypt());
    const Contents partly = contentsOf(record);
    EXPECT_EQ("body", partly.body);
    EXPECT_EQ("first", partly.attributes[0].data);
    EXPECT_EQ(before.attributes[2], partly.attributes[2]);
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_EQ(kSample, contentsOf(record));
}

TEST_F(DecryptTest, SettersReplaceTheCipherForm) {
    aFileStore record = readSample();
    ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
    EXPECT_EQ(kOk, record.setBody(dataOf("new body"s), 8));
    EXPECT_EQ(kOk, record.setAttr(kTypeBinary, 1, dataOf("new"s), 3));
    EXPECT_EQ(kNotOpen, record.decrypt()) << "the other attribute is pending yet";
    EXPECT_EQ(kOk, record.removeAttr(2));
    EXPECT_EQ(kOk, record.decrypt());
    const Contents mixed = contentsOf(record);
    EXPECT_EQ("new body", mixed.body);
    EXPECT_EQ("new", mixed.attributes[0].data);
    EXPECT_TRUE(mixed.attributes[0].encrypted);
}

TEST_F(DecryptTest, RecordReadUnderOneKeyIsWrittenUnderTheCurrentOne) {
    aFileStore record = readSample();
    aBuf other("other");
    ASSERT_EQ(kOk, CMN_FILESTORE_S.getEncoder().setKey(other));
    EXPECT_EQ(kOk, record.write());
    EXPECT_EQ(kSample, contentsOf(record));
    aFileStore again = readSample();
    EXPECT_EQ(kIo, again.decrypt());
    ASSERT_EQ(kOk, CMN_FILESTORE_S.getDecoder().setKey(other));
    EXPECT_EQ(kOk, again.decrypt());
    EXPECT_EQ(kSample, contentsOf(again));
}

// A buffer that ends where its bytes do, so that a look beyond them is seen.
class ExactBuf final : public IdleBuf {
public:
    explicit ExactBuf(const std::string& content)
        : size_(sizeOf(content)), bytes_(std::make_unique<unsigned char[]>(size_)) {
        std::copy(content.begin(), content.end(), bytes_.get());
    }

    unsigned char* data() override { return bytes_.get(); }
    unsigned int length() const override { return size_; }

private:
    unsigned int size_;
    std::unique_ptr<unsigned char[]> bytes_;
};

// Whatever the cipher makes of an attribute, it becomes what its type allows or
// fails, and not a byte beyond it is looked at.
TEST_F(DecryptTest, PlainDataObeysItsType) {
    const struct {
        const char* name;
        const char* line;
        std::string plain;
        Status status;
        std::string data;
    } rows[] = {
        {"number", "01000001 00000007 1", "\x2a\0\0\0"s, kOk, "\x2a\0\0\0"s},
        {"number of 3 bytes", "01000001 00000007 1", "abc", kIo, ""},
        {"number of no bytes", "01000001 00000007 1", "", kIo, ""},
        {"binary", "01000002 00000007 aa", "a\n\0b"s, kOk, "a\n\0b"s},
        {"binary of no bytes", "01000002 00000007 aa", "", kOk, ""},
        {"string", "01000003 00000007 x", "abc\0"s, kOk, "abc\0"s},
        {"string with more behind its NUL", "01000003 00000007 x", "ab\0cd"s, kOk, "ab\0"s},
        {"string without NUL", "01000003 00000007 x", "abc", kIo, ""},
        {"string of no bytes", "01000003 00000007 x", "", kIo, ""},
        {"string with line feed", "01000003 00000007 x", "a\nb\0"s, kIo, ""},
        {"text", "01000004 00000007 x", "abc", kOk, "abc"},
        {"text of no bytes", "01000004 00000007 x", "", kOk, ""},
        {"text with line feed", "01000004 00000007 x", "a\n", kIo, ""},
    };
    const CMN_GRefPtr<FakeStoreSrv> service(new FakeStoreSrv);
    CMN_FILESTORE_S = aFileStoreSrv(service.get());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        service.get()->coder =
            new FakeCoder([&](aBuf& /*cipher*/) { return aBuf(new ExactBuf(row.plain)); });
        writeFile(store.path("b.dsc"), row.line);
        aFileStore record = TestStore::record("b");
        ASSERT_EQ(kOk, record.read());
        const Contents before = contentsOf(record);
        EXPECT_EQ(row.status, record.decrypt());
        const Contents after = contentsOf(record);
        EXPECT_EQ(row.status == kOk ? row.data : before.attributes[0].data,
                  after.attributes[0].data);
        EXPECT_TRUE(after.attributes[0].encrypted);
    }
}

TEST_F(DecryptTest, NoResultOfTheCipherIsAFailure) {
    const CMN_GRefPtr<FakeStoreSrv> service(new FakeStoreSrv);
    service.get()->coder = new FakeCoder([](aBuf& /*data*/) { return noBuffer(); });
    CMN_FILESTORE_S = aFileStoreSrv(service.get());
    aFileStore record = readSample();
    const Contents before = contentsOf(record);
    EXPECT_EQ(kIo, record.decrypt());
    EXPECT_EQ(before, contentsOf(record));
}

TEST_F(DecryptTest, BodyMayDecryptToNothing) {
    const CMN_GRefPtr<FakeStoreSrv> service(new FakeStoreSrv);
    service.get()->coder = new FakeCoder([](aBuf& /*data*/) { return aBuf(new ExactBuf("")); });
    CMN_FILESTORE_S = aFileStoreSrv(service.get());
    aFileStore record = readSample();
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_EQ(1, record.hasBody());
    EXPECT_EQ(0U, record.getBodySize());
}

TEST_F(DecryptTest, WithoutServiceNothingIsDecrypted) {
    aFileStore record = readSample();
    CMN_FILESTORE_S = aFileStoreSrv(nullptr);
    store.host().withdraw(TestStore::kModule);
    EXPECT_EQ(kNotOpen, record.decrypt());
}

}  // namespace
