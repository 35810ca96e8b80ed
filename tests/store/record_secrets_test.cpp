// No memory that held a plain body or attribute is given back with it inside.
#include <cstring>
#include <string>
#include <utility>

#include "format/dsc_text.h"
#include "gtest/gtest.h"
#include "store/file_store.h"
#include "tests/modules/secret_heap.h"
#include "tests/support/doubles/idle.h"
#include "tests/support/test_store.h"

namespace {

using support::freedWithMarker;

// A buffer and a cipher that leave nothing behind themselves, so that what is found
// is the store's.
class WipedBuf final : public IdleBuf {
public:
    WipedBuf(const unsigned char* data, unsigned int len) : bytes_(data, data + len) {}

    unsigned char* data() override { return bytes_.data(); }
    unsigned int length() const override { return static_cast<unsigned int>(bytes_.size()); }
    using IdleBuf::set;
    Status set(const unsigned char* data, unsigned int len) override {
        bytes_.assign(data, data + len);
        return kOk;
    }

private:
    SecretBytes bytes_;
};

class WipedX509Cmn final : public DoubleX509Cmn {
public:
    TBuf* createTBuf() override { return new WipedBuf(nullptr, 0); }
    TBuf* createTBuf(const char* s) override {
        return createTBuf(reinterpret_cast<const unsigned char*>(s),
                          static_cast<unsigned int>(std::strlen(s)));
    }
    TBuf* createTBuf(const unsigned char* data, unsigned int len) override {
        return new WipedBuf(data, len);
    }
    TBuf* createTBuf(TBuf* src) override { return createTBuf(src->data(), src->length()); }
};

class WipedPbes final : public IdlePbes {
public:
    TKey* getKey() override { return pkixKeyClnt.createTKey(TKey::kSymmetric); }
    TBuf* encrypt(TBuf* plain) override {
        TBuf* const result = createTBuf(plain);
        for (unsigned int i = 0; i < result->length(); ++i) {
            result->data()[i] ^= 0x55;
        }
        return result;
    }
    TBuf* decrypt(TBuf* cipher) override { return encrypt(cipher); }
};

class WipedPkcs5 final : public DoublePkcs5 {
public:
    CMN_GuardedRef* createObject(objectName_t /*name*/) override { return new WipedPbes; }
};

constexpr unsigned int kSize = sizeof support::kMarker;
const auto* const kSecret = reinterpret_cast<const unsigned char*>(support::kMarker);

class SecretsTest : public testing::Test {
protected:
    SecretsTest() {
        theX509Cmn = X509CmnSrv(x509cmn.get());
        pkcs5srv = PKCS5(pkcs5.get());
        EXPECT_EQ(kOk, CMN_FILESTORE_S.close());  // whose ciphers are of the doubles
        EXPECT_EQ(kOk, CMN_FILESTORE_S.open("secret"));
    }

    // A record with secrets in both of its parts.
    static void fillWithSecrets(aFileStore& record) {
        ASSERT_EQ(kOk, record.setBody(kSecret, kSize));
        ASSERT_EQ(kOk, record.setBodyFlag(1));
        for (unsigned int id = 0; id < 20; ++id) {  // so that the attributes move
            ASSERT_EQ(kOk, record.addAttr(kTypeBinary, id, kSecret, kSize));
            ASSERT_EQ(kOk, record.setAttrFlag(id, 1));
        }
    }

    TestStore store;
    CMN_GRefPtr<WipedX509Cmn> x509cmn{new WipedX509Cmn};
    CMN_GRefPtr<WipedPkcs5> pkcs5{new WipedPkcs5};
    const long before = freedWithMarker();
};

TEST_F(SecretsTest, AreNoticedWhereTheyAreLeft) {
    auto* const left = new unsigned char[kSize];
    std::memcpy(left, kSecret, kSize);
    __asm__ volatile("" : : "r"(left) : "memory");  // or nothing would be written there
    delete[] left;
    EXPECT_EQ(before + 1, freedWithMarker());
}

TEST_F(SecretsTest, OfChangedRecordsAreWiped) {
    {
        aFileStore record = TestStore::record("a");
        fillWithSecrets(record);
        EXPECT_EQ(kOk, record.setBody(kSecret, kSize - 1));
        EXPECT_EQ(kOk, record.setBody(kSecret, 3));
        EXPECT_EQ(kOk, record.setAttr(kTypeBinary, 0, kSecret, 3));
        EXPECT_EQ(kOk, record.setAttr(kTypeBinary, 1, kSecret, kSize - 1));
        EXPECT_EQ(kOk, record.removeAttr(2));
        EXPECT_EQ(kMalformed, record.addAttr(kTypeNumber, 7, kSecret, kSize));
        EXPECT_EQ(kOk, record.addAttr(kTypeString, 7, kSecret, kSize));
        EXPECT_EQ(kOk, record.removeAttrs());
        fillWithSecrets(record);
    }
    EXPECT_EQ(before, freedWithMarker());
}

TEST_F(SecretsTest, OfWrittenAndReadRecordsAreWiped) {
    {
        aFileStore record = TestStore::record("a");
        fillWithSecrets(record);
        ASSERT_EQ(kOk, record.write());
        ASSERT_EQ(kOk, record.write());
        ASSERT_EQ(kOk, record.read());
        ASSERT_EQ(kOk, record.decrypt());
        EXPECT_EQ(0, std::memcmp(kSecret, record.getBody(), kSize));
        EXPECT_EQ(0, std::memcmp(kSecret, record.getAttr(19), kSize));
        ASSERT_EQ(kOk, record.read());
        ASSERT_EQ(kOk, record.decrypt());
        ASSERT_EQ(kOk, record.remove());
    }
    EXPECT_EQ(before, freedWithMarker());
}

TEST_F(SecretsTest, OfFailedOperationsAreWiped) {
    {
        aFileStore record = TestStore::record("a");
        fillWithSecrets(record);
        ASSERT_EQ(kOk, record.write());
        ASSERT_EQ(kOk, record.setFolderName("./none"));
        EXPECT_EQ(kIo, record.write());
        EXPECT_EQ(kMissing, record.read());
        ASSERT_EQ(kOk, record.setFolderName(TestStore::kFolder));
        ASSERT_EQ(kOk, record.read());
        ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
        EXPECT_EQ(kNotOpen, record.decrypt());
    }
    EXPECT_EQ(before, freedWithMarker());
}

}  // namespace
