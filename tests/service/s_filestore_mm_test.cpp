#include "service/s_filestore_mm.h"

#include <functional>
#include <memory>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "client/s_filestoreC.h"
#include "cmn/objmgrfunc.h"
#include "store/file_store.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/doubles/double_services.h"
#include "tests/support/test_store.h"

namespace {

// A guarded object of which only the end of the service life matters.
class Finalised final : public CMN_GuardedRef {
public:
    explicit Finalised(std::function<void()> atEnd) : CMN_GuardedRef(0), atEnd_(std::move(atEnd)) {}

    Status init() override { return kOk; }
    Status fini() override {
        atEnd_();
        return kOk;
    }

private:
    std::function<void()> atEnd_;
};

// A host that keeps no record, for tests that count allocations.
class QuietHost final : public TModuleManager {
public:
    Status loadModule(const char* /*path*/) override { return kMissing; }
    Status unloadModule(const TypifiedID& /*module*/) override { return kIo; }
    int isLoaded(const TypifiedID& /*module*/) override { return 0; }
    CMN_Guard* currentGuard() override { return nullptr; }
    CMN_GuardedRef* acquireService(const TypifiedID& /*service*/,
                                   const TypifiedID& /*asker*/) override {
        return nullptr;
    }
    void releaseModule(const TypifiedID& /*module*/, const TypifiedID& /*asker*/) override {}
};

bool lockIsFree() {
    if (pthread_rwlock_trywrlock(&RWLocker::m_RWMutex) != 0) {
        return false;
    }
    pthread_rwlock_unlock(&RWLocker::m_RWMutex);
    return true;
}

class EntryTest : public testing::Test {
protected:
    ~EntryTest() override {
        GetInterfaceClass(nullptr, 0);
        if (service_ != nullptr) {
            FileStoreSrvC = aFileStoreSrv(nullptr);
            service_->remReference();
        }
    }

    // As a host does it: keeps the service by one plain reference.
    FileStoreSrv& start() {
        BaseModuleInterface* const module = GetInterfaceClass(&services.host(), 0);
        service_ = module->getService(ModuleID);
        service_->addReference();
        return dynamic_cast<FileStoreSrv&>(*service_);
    }

    DoubleServices services;

private:
    CMN_GuardedRef* service_ = nullptr;
};

TEST_F(EntryTest, FlagOnlyRecordsTheManager) {
    FakeHost another;
    EXPECT_EQ(nullptr, GetInterfaceClass(&another, 1));
    EXPECT_EQ(&another, ModMgr);
    EXPECT_EQ(nullptr, CMN_FILESTORE_S.service());
    EXPECT_EQ(nullptr, GetInterfaceClass(&another, -1));

    FileStoreSrv& service = start();
    EXPECT_EQ(&services.host(), ModMgr);
    EXPECT_EQ(&service, CMN_FILESTORE_S.service());
}

TEST_F(EntryTest, NullManagerStopsWhateverTheFlag) {
    start();
    EXPECT_NE(nullptr, CMN_FILESTORE_S.service());
    EXPECT_EQ(nullptr, GetInterfaceClass(nullptr, 1));
    EXPECT_EQ(nullptr, CMN_FILESTORE_S.service());
    EXPECT_EQ(&services.host(), ModMgr);
}

TEST_F(EntryTest, ServiceIsHeldByItsStubAlone) {
    BaseModuleInterface* const module = GetInterfaceClass(&services.host(), 0);
    ASSERT_NE(nullptr, module);
    CMN_GuardedRef* const service = module->getService(ModuleID);
    ASSERT_NE(nullptr, service);
    EXPECT_EQ(1, service->references());
    EXPECT_EQ(service, CMN_FILESTORE_S.service());
    EXPECT_NE(nullptr, service->getGuard());
    EXPECT_EQ(0, CMN_FILESTORE_S.isOpen());
    delete module;
    EXPECT_EQ(nullptr, CMN_FILESTORE_S.service());
}

TEST_F(EntryTest, LockIsReadyAfterEachStart) {
    start();
    EXPECT_TRUE(lockIsFree());
}

// Objects may still ask the service while they end.
TEST_F(EntryTest, StopEndsObjectsBeforeTheStubIsUnbound) {
    FileStoreSrv& service = start();
    TFileStoreSrv* seen = nullptr;
    int ended = 0;
    const CMN_GRefPtr<Finalised> object(new Finalised([&] {
        ++ended;
        seen = CMN_FILESTORE_S.service();
    }));
    GetInterfaceClass(nullptr, 0);
    EXPECT_EQ(1, ended);
    EXPECT_EQ(&service, seen);
    EXPECT_EQ(nullptr, CMN_FILESTORE_S.service());
    EXPECT_EQ(1, static_cast<CMN_GuardedRef&>(service).references());
}

// Whichever allocation of the start fails, nothing is left of it.
TEST_F(EntryTest, StartWithoutMemoryLeavesNothing) {
    QuietHost host;
    for (long nth = 1;; ++nth) {
        const long before = fault::liveAllocations();
        BaseModuleInterface* module = nullptr;
        bool thrown = false;
        fault::FailingAllocation failing(nth);
        try {
            module = GetInterfaceClass(&host, 0);
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
        const bool hit = failing.lift();
        const long after = fault::liveAllocations();
        SCOPED_TRACE("failing allocation " + std::to_string(nth));
        EXPECT_EQ(hit, thrown);
        if (!hit) {
            EXPECT_NE(nullptr, module);
            EXPECT_LT(2, nth);  // the service and holders of it
            GetInterfaceClass(nullptr, 0);
            delete module;
            break;
        }
        EXPECT_EQ(before, after);
        EXPECT_EQ(nullptr, CMN_FILESTORE_S.service());
    }
}

TEST_F(EntryTest, ServiceAnswersTheHost) {
    FileStoreSrv& service = start();
    EXPECT_EQ(107U, service.getModuleID());
    EXPECT_EQ(1U, service.getVersion());
    EXPECT_EQ(1U, service.getBuild());
    EXPECT_EQ(1U, FileStore_Module_Version);
    EXPECT_EQ(1U, FileStore_Module_Build);
    EXPECT_EQ(1, service.isReplaceable());
    EXPECT_EQ(nullptr, service.createObject(TFileStoreSrv::kRecord));
    EXPECT_EQ(nullptr, service.createObject(0));
    EXPECT_EQ(9U, service.addModule(67, nullptr));
    EXPECT_EQ(9U, service.addModule(67, &service));
    EXPECT_EQ(0U, service.init());
    EXPECT_EQ(0U, service.fini());
    EXPECT_EQ(GetObjectManager(), service.GetObjMgr());
}

TEST_F(EntryTest, ServiceOffersItselfAlone) {
    FileStoreSrv& service = start();
    const Tuint32ID own(107);
    EXPECT_EQ(static_cast<CMN_GuardedRef*>(&service), service.getService(own));
    for (const unsigned int other : {0U, 1U, 67U, 106U, 108U, 111U, 0x6B0000U, 0x3f0008U}) {
        EXPECT_EQ(nullptr, service.getService(Tuint32ID(other))) << other;
    }
    EXPECT_EQ(nullptr, service.getService(TstringID("107")));
}

TEST_F(EntryTest, FactoryMakesTheKindsOfTheModule) {
    FileStoreSrv& service = start();
    const CMN_GRefPtr<CMN_GuardedRef> record(service.create(0x6B0001));
    const CMN_GRefPtr<CMN_GuardedRef> list(service.create(0x6B0002));
    const CMN_GRefPtr<CMN_GuardedRef> cipher(service.create(0x6B0003));
    EXPECT_NE(nullptr, dynamic_cast<FileStore*>(record.get()));
    EXPECT_NE(nullptr, dynamic_cast<FileStoreList*>(list.get()));
    EXPECT_NE(nullptr, dynamic_cast<CryptoCoder*>(cipher.get()));
    EXPECT_EQ(1, record.get()->references());
    for (const unsigned int other : {0U, 1U, 0x6B0000U, 0x6B0004U, 0x430001U, 0xFFFFFFFFU}) {
        EXPECT_EQ(nullptr, service.create(other)) << other;
    }
}

// The caller of the factory is told by an exception.
TEST_F(EntryTest, FactoryWithoutMemoryThrows) {
    FileStoreSrv& service = start();
    services.host().giveNoGuards();
    for (const unsigned int kind : {0x6B0001U, 0x6B0002U, 0x6B0003U}) {
        const long before = fault::liveAllocations();
        fault::FailingAllocation failing(1);
        bool thrown = false;
        try {
            (void)service.create(kind);
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
        (void)failing.lift();
        EXPECT_TRUE(thrown) << kind;
        EXPECT_EQ(before, fault::liveAllocations()) << kind;
    }
}

class CodersTest : public testing::Test {
protected:
    static aBuf noKey() { return aBuf(static_cast<TBuf*>(nullptr)); }

    static std::string sealed(const std::string& password, const std::string& plain) {
        aBuf out = noKey();
        EXPECT_EQ(kOk, CMN_FILESTORE_S.encode(aBuf(password.c_str()), aBuf(plain.c_str()), out));
        return bytesOf(out.target());
    }

    // What `cipher` decrypts to; "<nothing>" when it does not.
    static std::string opened(aCryptoDecoder decoder, const std::string& cipher) {
        aBuf in(dataOf(cipher), sizeOf(cipher));
        const aBuf out = decoder.decrypt(in);
        return out.target() == nullptr ? "<nothing>" : bytesOf(out.target());
    }
    static std::string encrypted(aCryptoEncoder encoder, const std::string& plain) {
        aBuf in(plain.c_str());
        const aBuf out = encoder.encrypt(in);
        return out.target() == nullptr ? "<nothing>" : bytesOf(out.target());
    }
};

TEST_F(CodersTest, HandlesShareTheCiphersOfTheService) {
    TestStore store;
    EXPECT_NE(nullptr, CMN_FILESTORE_S.getEncoder().target());
    EXPECT_EQ(CMN_FILESTORE_S.getEncoder().target(), CMN_FILESTORE_S.getEncoder().target());
    EXPECT_EQ(CMN_FILESTORE_S.getDecoder().target(), CMN_FILESTORE_S.getDecoder().target());
    EXPECT_NE(CMN_FILESTORE_S.getEncoder().target(), CMN_FILESTORE_S.getDecoder().target());
}

TEST_F(CodersTest, HandleTakenWhileClosedWorksWhenOpen) {
    TestStore store("secret");
    store.restart(nullptr);
    const aCryptoEncoder encoder = CMN_FILESTORE_S.getEncoder();
    const aCryptoDecoder decoder = CMN_FILESTORE_S.getDecoder();
    EXPECT_EQ("<nothing>", encrypted(encoder, "plain"));
    ASSERT_EQ(kOk, CMN_FILESTORE_S.open("secret"));
    EXPECT_EQ("plain", opened(decoder, encrypted(encoder, "plain")));
    EXPECT_EQ("plain", opened(decoder, sealed("secret", "plain")));
}

TEST_F(CodersTest, OwnKeyLeavesTheServicesKeyAlone) {
    TestStore store("secret");
    const std::string cipher = sealed("another", "plain");
    EXPECT_EQ("<nothing>", opened(CMN_FILESTORE_S.getDecoder(), cipher));
    aBuf out = noKey();
    EXPECT_EQ(kOk,
              CMN_FILESTORE_S.decode(aBuf("another"), aBuf(dataOf(cipher), sizeOf(cipher)), out));
    EXPECT_EQ("plain", bytesOf(out.target()));
    EXPECT_EQ("plain", opened(CMN_FILESTORE_S.getDecoder(),
                              encrypted(CMN_FILESTORE_S.getEncoder(), "plain")));
}

TEST_F(CodersTest, WithoutKeyItIsTheDatabases) {
    TestStore store("secret");
    aBuf cipher = noKey();
    ASSERT_EQ(kOk, CMN_FILESTORE_S.encode(noKey(), aBuf("plain"), cipher));
    EXPECT_EQ("plain", opened(CMN_FILESTORE_S.getDecoder(), bytesOf(cipher.target())));
    aBuf plain = noKey();
    const std::string own = sealed("secret", "plain");
    EXPECT_EQ(kOk, CMN_FILESTORE_S.decode(noKey(), aBuf(dataOf(own), sizeOf(own)), plain));
    EXPECT_EQ("plain", bytesOf(plain.target()));
}

TEST_F(CodersTest, OwnKeyNeedsNoOpenDatabase) {
    TestStore store("secret");
    store.restart(nullptr);
    const std::string cipher = sealed("own", "plain");
    aBuf out = noKey();
    EXPECT_EQ(kOk, CMN_FILESTORE_S.decode(aBuf("own"), aBuf(dataOf(cipher), sizeOf(cipher)), out));
    EXPECT_EQ("plain", bytesOf(out.target()));
    EXPECT_EQ(kIo, CMN_FILESTORE_S.encode(noKey(), aBuf("plain"), out));
    EXPECT_EQ(nullptr, out.target());
    EXPECT_EQ(kIo, CMN_FILESTORE_S.decode(noKey(), aBuf(dataOf(cipher), sizeOf(cipher)), out));
}

TEST_F(CodersTest, EmptyPasswordIsAKey) {
    TestStore store("secret");
    const std::string cipher = sealed("", "plain");
    EXPECT_EQ("<nothing>", opened(CMN_FILESTORE_S.getDecoder(), cipher));
    aBuf out = noKey();
    EXPECT_EQ(kOk, CMN_FILESTORE_S.decode(aBuf(""), aBuf(dataOf(cipher), sizeOf(cipher)), out));
}

TEST_F(CodersTest, FailuresAreToldAsTabled) {
    const struct {
        const char* name;
        const char* call;  // of the encryption service; null: none fails
        bool foreignKey;   // what is decoded was encrypted under another key
        Status encode;
        Status decode;
    } rows[] = {
        {"nothing fails", nullptr, false, kOk, kOk},
        {"no object can be made", "createObject", false, kIo, kIo},
        {"no key can be derived", "getKey", false, kIo, kIo},
        {"encryption fails", "encrypt", false, kIo, kOk},
        {"decryption fails", "decrypt", false, kOk, kIo},
        {"another key", nullptr, true, kOk, kIo},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestStore store("secret");
        const std::string cipher = sealed(row.foreignKey ? "foreign" : "own", "plain");
        CallWatch& watch = store.services().pkcs5().watch();
        aBuf out = noKey();
        if (row.call != nullptr) {
            watch.failAt(row.call, 1, kNoMemory, CallWatch::kLasting);
        }
        EXPECT_EQ(row.encode, CMN_FILESTORE_S.encode(aBuf("own"), aBuf("plain"), out));
        EXPECT_EQ(row.encode == kOk, out.target() != nullptr);
        EXPECT_EQ(row.decode,
                  CMN_FILESTORE_S.decode(aBuf("own"), aBuf(dataOf(cipher), sizeOf(cipher)), out));
        if (row.call != nullptr) {
            EXPECT_TRUE(watch.lift());
        }
        // The open database's own ciphers were not touched.
        EXPECT_EQ("plain", opened(CMN_FILESTORE_S.getDecoder(),
                                  encrypted(CMN_FILESTORE_S.getEncoder(), "plain")));
    }
}

// The value would go to the selector before it, and make the key of another password.
TEST_F(CodersTest, RefusedParameterMakesNoKey) {
    TestStore store("secret");
    CallWatch& watch = store.services().pkcs5().watch();
    for (const char* const call : {"select", "supply"}) {
        for (int nth = 1; nth <= 6; ++nth) {
            SCOPED_TRACE(std::string(call) + " " + std::to_string(nth));
            watch.failAt(call, nth, kNoMemory);
            aBuf out = noKey();
            EXPECT_EQ(kIo, CMN_FILESTORE_S.encode(aBuf("own"), aBuf("plain"), out));
            EXPECT_TRUE(watch.lift());
        }
    }
}

TEST_F(CodersTest, ServiceThatGoesDropsTheKeyOfAnOpenDatabase) {
    TestStore store("secret");
    const aCryptoEncoder encoder = CMN_FILESTORE_S.getEncoder();
    const aCryptoDecoder decoder = CMN_FILESTORE_S.getDecoder();
    const std::string cipher = encrypted(encoder, "plain");
    ASSERT_EQ("plain", opened(decoder, cipher));
    store.restart(nullptr);
    EXPECT_EQ("<nothing>", encrypted(encoder, "plain"));
    EXPECT_EQ("<nothing>", opened(decoder, cipher));
}

}  // namespace
