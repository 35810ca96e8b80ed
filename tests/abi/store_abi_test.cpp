// The binary contract of what the store exports: sizes and field orders of its
// classes and proxies, and the places at which a module built elsewhere calls them.
#include <pthread.h>

#include <cstddef>
#include <string>

#include <gtest/gtest.h>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "service/md5.h"
#include "service/s_filestore_mm.h"
#include "store/file_store.h"
#include "store/filefunc.h"
#include "tests/support/raw_object.h"
#include "tests/support/test_store.h"

namespace {

constexpr std::size_t kWord = sizeof(void*);
constexpr std::size_t kProxy = 7 * kWord;   // holder and service, after the table
constexpr std::size_t kTarget = 4 * kWord;  // of a proxy: table, then of the holder its third field
constexpr std::size_t kService = 6 * kWord;

static_assert(sizeof(std::string) == shape(24, 32));
static_assert(sizeof(pthread_rwlock_t) == shape(32, 56));
static_assert(sizeof(FileStore::Attr) == shape(20, 32));
static_assert(offsetof(FileStore::Attr, type) == 0);
static_assert(offsetof(FileStore::Attr, id) == 4);
static_assert(offsetof(FileStore::Attr, size) == 8);
static_assert(offsetof(FileStore::Attr, data) == shape(12, 16));
static_assert(offsetof(FileStore::Attr, pending) == shape(16, 24));
static_assert(sizeof(FileStore) == shape(252, 416));
static_assert(sizeof(FileStoreList) == shape(96, 176));
static_assert(sizeof(CryptoCoder) == shape(136, 248));
static_assert(sizeof(FileStoreSrv) == shape(200, 376));
static_assert(sizeof(FileList) == shape(40, 64));
static_assert(sizeof(aBuf) == shape(32, 64));
static_assert(sizeof(aFileStore) == kProxy && sizeof(aFileStoreExt) == kProxy);
static_assert(sizeof(aFileStoreList) == kProxy && sizeof(aFileStoreListExt) == kProxy);
static_assert(sizeof(aCryptoEncoder) == kProxy && sizeof(aCryptoDecoder) == kProxy);
static_assert(sizeof(aFileStoreSrv) == shape(56, 104));
static_assert(sizeof(aFileStoreSrvExt) == sizeof(aFileStoreSrv));
static_assert(sizeof(rk5_MD5Context) == 92);
static_assert(offsetof(rk5_MD5Context, state) == 0);
static_assert(offsetof(rk5_MD5Context, count) == 16);
static_assert(offsetof(rk5_MD5Context, buffer) == 24);
static_assert(offsetof(rk5_MD5Context, flags) == 88);

// The field of type V at `offset` of an object, in place.
template <class V>
const V& viewAt(const void* object, std::size_t offset) {
    return *reinterpret_cast<const V*>(static_cast<const char*>(object) + offset);
}

// What the proxy at `offset` of an object holds.
const void* targetAt(const void* object, std::size_t offset) {
    return fieldAt<const void*>(object, offset + kTarget);
}

class StoreAbiTest : public testing::Test {
protected:
    TestStore store_;
};

TEST_F(StoreAbiTest, FieldsOfARecordAreAsPublished) {
    const CMN_GRefPtr<FileStore> holder(new FileStore);
    FileStore& record = *holder.get();
    const auto number = [&](std::size_t on32, std::size_t on64) {
        return fieldAt<int>(&record, shape(on32, on64));
    };
    EXPECT_EQ(".", viewAt<std::string>(&record, shape(76, 136)));
    EXPECT_EQ(1, number(240, 404));  // loginCheck

    ASSERT_EQ(kOk, record.setFolderName(TestStore::kFolder));
    ASSERT_EQ(kOk, record.setName("a"));
    EXPECT_EQ("./db/keys", viewAt<std::string>(&record, shape(76, 136)));
    EXPECT_EQ("a", viewAt<std::string>(&record, shape(100, 168)));
    EXPECT_EQ("a.dsc", viewAt<std::string>(&record, shape(124, 200)));

    EXPECT_EQ(0, number(244, 408));  // bodyPresent
    ASSERT_EQ(kOk, record.setBody(dataOf("body"), 4));
    ASSERT_EQ(kOk, record.setBodyFlag(1));
    EXPECT_EQ(record.getBody(), fieldAt<const unsigned char*>(&record, shape(148, 232)));
    EXPECT_EQ(1, number(160, 256));  // bodyFlag
    EXPECT_EQ(0, number(164, 260));  // bodyPending
    EXPECT_EQ(1, number(244, 408));

    ASSERT_EQ(kOk, record.addAttr(2, 7, dataOf("x"), 1));
    const auto* const attr = fieldAt<const FileStore::Attr*>(&record, shape(168, 264));
    EXPECT_EQ(7U, attr->id);
    EXPECT_EQ(record.getAttr(0), attr->data);

    EXPECT_EQ(nullptr, targetAt(&record, shape(180, 288)));
    ASSERT_EQ(kOk, record.write());
    EXPECT_EQ(CMN_FILESTORE_S.getEncoder().target(), targetAt(&record, shape(180, 288)));
    EXPECT_EQ(nullptr, targetAt(&record, shape(208, 344)));
    ASSERT_EQ(kOk, record.read());
    EXPECT_EQ(CMN_FILESTORE_S.getDecoder().target(), targetAt(&record, shape(208, 344)));
    EXPECT_EQ(1, number(164, 260));

    ASSERT_EQ(kOk, record.setLockType(-1));
    ASSERT_EQ(kOk, record.setLoginCheck(0));
    EXPECT_EQ(-1, number(236, 400));
    EXPECT_EQ(0, number(240, 404));
}

TEST_F(StoreAbiTest, FieldsOfAListAreAsPublished) {
    const CMN_GRefPtr<FileStoreList> holder(new FileStoreList);
    FileStoreList& list = *holder.get();
    const auto first = [&] { return fieldAt<const void*>(&list, shape(76, 136)); };
    const auto cursor = [&] { return fieldAt<const void*>(&list, shape(88, 160)); };
    const void* const end = reinterpret_cast<const char*>(&list) + shape(76, 136);
    EXPECT_EQ(end, first());
    EXPECT_EQ(end, cursor());
    aFileStore item;
    ASSERT_EQ(kOk, list.pushBack(item));
    (void)list.getFirst();
    EXPECT_NE(end, first());
    EXPECT_EQ(first(), cursor());
    // The element follows the two links of its node.
    EXPECT_EQ(item.target(), targetAt(first(), 2 * kWord));
    EXPECT_EQ(0, fieldAt<int>(&list, shape(92, 168)));
    ASSERT_EQ(kOk, list.setLockType(-1));
    EXPECT_EQ(-1, fieldAt<int>(&list, shape(92, 168)));
}

TEST_F(StoreAbiTest, FieldsOfACipherAreAsPublished) {
    const CMN_GRefPtr<CryptoCoder> holder(new CryptoCoder);
    CryptoCoder& cipher = *holder.get();
    auto* const lock =
        reinterpret_cast<pthread_rwlock_t*>(reinterpret_cast<char*>(&cipher) + shape(76, 136));
    ASSERT_EQ(0, pthread_rwlock_trywrlock(lock));
    pthread_rwlock_unlock(lock);
    EXPECT_EQ(nullptr, targetAt(&cipher, shape(108, 192)));
    aBuf password("secret");
    ASSERT_EQ(kOk, cipher.setKey(password));
    EXPECT_NE(nullptr, targetAt(&cipher, shape(108, 192)));
}

TEST_F(StoreAbiTest, FieldsOfTheServiceAreAsPublished) {
    const auto* const service = static_cast<FileStoreSrv*>(CMN_FILESTORE_S.service());
    EXPECT_EQ(CMN_FILESTORE_S.getEncoder().target(), targetAt(service, shape(80, 144)));
    EXPECT_EQ(CMN_FILESTORE_S.getDecoder().target(), targetAt(service, shape(108, 200)));
    EXPECT_EQ(1, fieldAt<int>(service, shape(136, 256)));
    EXPECT_EQ(nullptr, targetAt(service, shape(140, 264)));
    ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
    EXPECT_EQ(0, fieldAt<int>(service, shape(136, 256)));
}

// The host calls the module through the first table and the object through the second.
TEST_F(StoreAbiTest, BothTablesOfTheServiceLeadToIt) {
    auto* const service = static_cast<FileStoreSrv*>(CMN_FILESTORE_S.service());
    BaseModuleInterface* const module = service;
    CMN_GuardedRef* const object = service;
    EXPECT_EQ(static_cast<void*>(service), static_cast<void*>(module));
    EXPECT_EQ(reinterpret_cast<char*>(service) + kWord, reinterpret_cast<char*>(object));
    EXPECT_EQ(107U, callSlot<unsigned int()>(module, 2));
    EXPECT_EQ(1U, callSlot<unsigned int()>(module, 3));
    EXPECT_EQ(1U, callSlot<unsigned int()>(module, 4));
    EXPECT_EQ(1, callSlot<int()>(module, 5));
    EXPECT_EQ(nullptr, (callSlot<void*(unsigned int)>(module, 6, 0x6B0001U)));
    EXPECT_EQ(9U, (callSlot<Status(unsigned int, void*)>(module, 7, 1U, nullptr)));
    const Tuint32ID own(107);
    EXPECT_EQ(object, (callSlot<CMN_GuardedRef*(const TypifiedID*)>(module, 8, &own)));
    EXPECT_EQ(kAlreadyOpen, (callSlot<Status(const char*)>(module, 9, "secret")));
    EXPECT_EQ(1, callSlot<int()>(module, 11));
    EXPECT_EQ(kOk, callSlot<Status()>(module, 10));
    EXPECT_EQ(kOk, (callSlot<Status(const char*)>(module, 12, "secret")));
    EXPECT_EQ(kWrongPassword,
              (callSlot<Status(const char*, const char*)>(module, 13, "wrong", "new")));
    const CMN_GRefPtr<CMN_GuardedRef> made(
        callSlot<CMN_GuardedRef*(unsigned int)>(module, 14, 0x6B0003U));
    EXPECT_NE(nullptr, dynamic_cast<CryptoCoder*>(made.get()));
    EXPECT_EQ(kOk, callSlot<Status()>(module, 19));
    EXPECT_EQ(kOk, callSlot<Status()>(module, 20));
    EXPECT_EQ(kOk, callSlot<Status()>(module, 21));
    EXPECT_EQ(kOk, callSlot<Status()>(object, 2));
    EXPECT_EQ(kOk, callSlot<Status()>(object, 3));
}

// Whoever deletes it, through either table, deletes all of it.
TEST_F(StoreAbiTest, ServiceIsDeletedThroughEitherTable) {
    for (const bool asModule : {true, false}) {
        SCOPED_TRACE(asModule);
        auto* const service = new FileStoreSrv;
        BaseModuleInterface* const module = service;
        CMN_GuardedRef* const object = service;
        CMN_Guard* const guard = object->getGuard();
        const int before = guard->references();
        callSlot<void()>(asModule ? static_cast<void*>(module) : object, 1);
        EXPECT_EQ(before - 1, guard->references());  // the object's end lets go of it
    }
}

TEST_F(StoreAbiTest, PlacesOfTheImplementationsAreThoseOfTheirInterfaces) {
    aFileStore handle = TestStore::record("a");
    ASSERT_EQ(kOk, handle.addAttr(1, 5, dataOf("1234"), 4));
    TFileStore* const record = handle.target();
    EXPECT_STREQ("./db/keys", callSlot<const char*()>(record, 4));
    EXPECT_STREQ("a", callSlot<const char*()>(record, 6));
    EXPECT_STREQ("a.dsc", callSlot<const char*()>(record, 8));
    EXPECT_EQ(1U, callSlot<unsigned int()>(record, 18));
    EXPECT_EQ(5U, (callSlot<unsigned int(unsigned int)>(record, 20, 0U)));
    EXPECT_EQ(kOk, callSlot<Status()>(record, 29));
    EXPECT_EQ(1, callSlot<int()>(record, 30));
    EXPECT_EQ(kOk, callSlot<Status()>(record, 31));
    EXPECT_EQ(handle.getUniqueID(), callSlot<unsigned int()>(record, 32));
    EXPECT_EQ(0, callSlot<int()>(record, 35));

    aFileStoreList listed;
    TFileStoreList* const list = listed.target();
    EXPECT_EQ(1U, callSlot<unsigned int()>(list, 7));
    EXPECT_EQ(1U, callSlot<unsigned int()>(list, 8));
    EXPECT_EQ(kOk, (callSlot<Status(const char*)>(list, 12, "./db/keys")));
}

TEST_F(StoreAbiTest, FieldsOfADirectoryIteratorAreAsPublished) {
    FileList entries;
    EXPECT_EQ(".", viewAt<std::string>(&entries, kWord));
    EXPECT_EQ(nullptr, fieldAt<const void*>(&entries, shape(32, 48)));
    ASSERT_EQ(kOk, entries.setRootFolder("./db"));
    EXPECT_EQ("./db", viewAt<std::string>(&entries, kWord));
    ASSERT_EQ(kOk, entries.readFirst());
    EXPECT_NE(nullptr, fieldAt<const void*>(&entries, shape(32, 48)));
    const auto* const entry = fieldAt<const dirent*>(&entries, shape(36, 56));
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(entries.getName(), entry->d_name);
    EXPECT_EQ(entries.isFolder(), fieldAt<int>(&entries, shape(28, 40)));
    callSlot<void()>(new FileList, 1);
}

TEST_F(StoreAbiTest, FieldsOfTheProxiesAreAsPublished) {
    const aFileStore record;
    EXPECT_EQ(record.target(), targetAt(&record, 0));
    EXPECT_EQ(&FileStoreSrvC, fieldAt<void*>(&record, kService));
    const aFileStore copy(record);
    EXPECT_EQ(record.target(), targetAt(&copy, 0));
    EXPECT_EQ(nullptr, fieldAt<void*>(&copy, kService));
    const aFileStoreList list;
    EXPECT_EQ(list.target(), targetAt(&list, 0));
    EXPECT_EQ(&FileStoreSrvC, fieldAt<void*>(&list, kService));
    const aCryptoEncoder encoder;
    EXPECT_EQ(encoder.target(), targetAt(&encoder, 0));
}

// ref, unref, the two destructors, create.
TEST_F(StoreAbiTest, PlacesOfTheServiceProxyAreAsPublished) {
    EXPECT_EQ(4U, slotOf(&aFileStoreSrv::create));
    aFileStoreSrv proxy;
    EXPECT_NE(nullptr, targetAt(&proxy, 0));
    EXPECT_EQ(0, fieldAt<int>(&proxy, 6 * kWord));
    callSlot<void()>(&proxy, 0);
    EXPECT_EQ(1, fieldAt<int>(&proxy, 6 * kWord));
    callSlot<void()>(&proxy, 1);
    EXPECT_EQ(0, fieldAt<int>(&proxy, 6 * kWord));
    EXPECT_EQ(nullptr, targetAt(&proxy, 0));
    callSlot<void()>(new aFileStoreSrv(nullptr), 3);
}

TEST_F(StoreAbiTest, DigestContextCarriesItsFields) {
    rk5_MD5Context context{};
    ASSERT_EQ(&context, rk5_MD5Init(&context));
    EXPECT_EQ(0x67452301U, fieldAt<std::uint32_t>(&context, 0));
    ASSERT_EQ(1, rk5_MD5Update(&context, "abc", 3));
    EXPECT_EQ(24U, fieldAt<std::uint32_t>(&context, 16));
    EXPECT_EQ('a', fieldAt<char>(&context, 24));
    EXPECT_EQ(0U, fieldAt<std::uint32_t>(&context, 88));
}

}  // namespace
