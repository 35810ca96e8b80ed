#include "lib/records/record.h"

#include <string>

#include <gtest/gtest.h>

#include "lib/base/error.h"
#include "lib/records/record_copy.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace fstore {
namespace {

// A change of the password asks whether there is a record "key". Told that there is none, it took
// itself for undone and dropped the new slot, and no password opened the database any more.
TEST(RecordTest, OneThatCannotBeExaminedIsNotAbsent) {
    const support::TempWorkingDir folder;
    std::filesystem::create_directories("db");
    support::writeFile("db/key.dsc", "00000003 00000001 x\n");
    const Address key{"", "key"};
    EXPECT_TRUE(Record::isThere(key));
    for (const int error : fault::errnosOf(fault::Call::kLstat)) {
        const fault::FailingCall failing(1, error, fault::Mode::kOnce, {fault::Call::kLstat});
        EXPECT_ANY_THROW((void)Record::isThere(key)) << error;
        EXPECT_TRUE(failing.hit());
    }
    std::filesystem::remove("db/key.dsc");
    EXPECT_FALSE(Record::isThere(key));
}

// The store would put a descriptor back that stands aside, while other readers read.
TEST(RecordTest, OneThatStandsAsideIsNotReadAndNotPutBack) {
    const support::TempWorkingDir folder;
    std::filesystem::create_directories("db/keys");
    support::writeFile("db/keys/a.dsc.$o$", "00000003 00008000 x\n");
    try {
        (void)Record::read({"keys", "a"});
        FAIL() << "it was read";
    } catch (const Failure& failure) {
        EXPECT_EQ(kMissing, failure.status());
    }
    EXPECT_TRUE(std::filesystem::exists("db/keys/a.dsc.$o$"));
}

SecretBytes bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

TEST(RecordCopyTest, IsReadableOnceItHasABodyInPlainForm) {
    RecordCopy copy({"keys", "a"});
    EXPECT_TRUE(copy.isReadable());
    EXPECT_FALSE(copy.hasBody());
    copy.setBody(bytesOf("body"), /*encrypted=*/true);
    EXPECT_TRUE(copy.isReadable());
    EXPECT_TRUE(copy.isBodyEncrypted());
    EXPECT_EQ(4U, copy.bodySize());
    copy.setBody({}, /*encrypted=*/true);
    EXPECT_TRUE(copy.hasBody());
    EXPECT_EQ(0U, copy.bodySize());
}

TEST(RecordCopyTest, AnAttributeTakesThePlaceOfAllWithItsId) {
    RecordCopy copy({"keys", "a"});
    copy.setAttribute(kTypeText, 0x8000, bytesOf("one"), /*encrypted=*/false);
    copy.setAttribute(kTypeText, 0x8001, bytesOf("other"), /*encrypted=*/false);
    copy.setAttribute(kTypeBinary, 0x8000, bytesOf("two"), /*encrypted=*/true);
    ASSERT_EQ(2U, copy.count());
    EXPECT_EQ(0x8001U, copy.id(0));
    EXPECT_EQ(0x8000U, copy.id(1));
    EXPECT_EQ(unsigned{kTypeBinary}, copy.type(1));
    EXPECT_TRUE(copy.isEncrypted(1));
    EXPECT_EQ("two", asText(copy.bytes(1)));
    EXPECT_EQ(1U, copy.removeAll(0x8000));
    EXPECT_FALSE(copy.hasAttribute(0x8000));
    EXPECT_EQ(0U, copy.removeAll(0x8000));
}

}  // namespace
}  // namespace fstore
