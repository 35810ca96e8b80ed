// The stub of the store service.
#include "client/s_filestoreC.h"

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/doubles/double_services.h"
#include "tests/support/fake_store_srv.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

aBuf noBuffer() {
    return aBuf(static_cast<TBuf*>(nullptr));
}

struct Forwarded {
    const char* call;  // as the service notes it
    std::function<Status(aFileStoreSrvExt&)> make;
    Status result;
    Status missing;  // of an unbound stub
};

const std::vector<Forwarded>& calls() {
    static const std::vector<Forwarded> rows{
        {"open p", [](aFileStoreSrvExt& s) { return s.open("p"); }, 77, kNoObject},
        {"close", [](aFileStoreSrvExt& s) { return s.close(); }, 77, kNoObject},
        {"isOpen", [](aFileStoreSrvExt& s) { return static_cast<Status>(s.isOpen()); }, 5, 0},
        {"checkPwd p", [](aFileStoreSrvExt& s) { return s.checkPwd("p"); }, 77, kNoObject},
        {"recrypt o n", [](aFileStoreSrvExt& s) { return s.recrypt("o", "n"); }, 77, kNoObject},
        {"prepareDBFolders", [](aFileStoreSrvExt& s) { return s.prepareDBFolders(); }, 77,
         kNoObject},
        {"encode key data",
         [](aFileStoreSrvExt& s) {
             aBuf out = noBuffer();
             return s.encode(aBuf("key"), aBuf("data"), out);
         },
         77, kNoObject},
        {"decode key data",
         [](aFileStoreSrvExt& s) {
             aBuf out = noBuffer();
             return s.decode(aBuf("key"), aBuf("data"), out);
         },
         77, kNoObject},
        {"create", [](aFileStoreSrvExt& s) { return s.create(1) != nullptr ? 1U : 0U; }, 0, 0},
        {"getEncoder",
         [](aFileStoreSrvExt& s) { return s.getEncoder().target() != nullptr ? 1U : 0U; }, 1, 0},
        {"getDecoder",
         [](aFileStoreSrvExt& s) { return s.getDecoder().target() != nullptr ? 1U : 0U; }, 1, 0},
    };
    return rows;
}

class FileStoreStubTest : public testing::Test {
protected:
    FileStoreStubTest() {
        service.get()->answer = 77;
        service.get()->opened = 5;
        service.get()->coder = new FakeCoder;
    }

    void offer() { host.offer(107, service.get()); }

    // The acquisitions and releases of the store service.
    std::vector<std::string> asked() {
        std::vector<std::string> all;
        for (const std::string& call : host.calls()) {
            if (call.find(" 107 by") != std::string::npos) {
                all.push_back(call);
            }
        }
        return all;
    }

    DoubleServices services;
    FakeHost& host = services.host();
    CMN_GRefPtr<FakeStoreSrv> service{new FakeStoreSrv};
};

TEST_F(FileStoreStubTest, EveryCallReachesTheServiceUnderItsGuard) {
    offer();
    const aCryptoEncoder other(nullptr);  // which has FileStoreSrvC bound, as getEncoder() would
    host.forgetCalls();
    aFileStoreSrvExt stub(nullptr);
    for (const Forwarded& row : calls()) {
        SCOPED_TRACE(row.call);
        service.get()->calls.clear();
        EXPECT_EQ(row.result, row.make(stub));
        EXPECT_THAT(service.get()->calls, ElementsAre(AskedFor{row.call, 1}));
        EXPECT_EQ(0, service.get()->getGuard()->calls());
    }
    EXPECT_THAT(asked(), ElementsAre("acquire 107 by 107")) << "found once for all calls";
}

TEST_F(FileStoreStubTest, UnboundStubAnswersByItselfAndAsksAgain) {
    aFileStoreSrvExt stub(nullptr);
    for (const Forwarded& row : calls()) {
        SCOPED_TRACE(row.call);
        host.forgetCalls();
        EXPECT_EQ(row.missing, row.make(stub));
        EXPECT_THAT(asked(), testing::Contains("refuse 107 by 107"));
    }
    offer();
    EXPECT_EQ(5, stub.isOpen()) << "found once it is there";
}

TEST_F(FileStoreStubTest, WithoutHostNobodyIsAsked) {
    offer();
    host.forgetCalls();
    aFileStoreSrvExt stub(nullptr);
    const InstalledHost noHost(nullptr);
    for (const Forwarded& row : calls()) {
        SCOPED_TRACE(row.call);
        EXPECT_EQ(row.missing, row.make(stub));
    }
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(FileStoreStubTest, ConstructorsAskOrDoNotAsk) {
    offer();
    {
        const aFileStoreSrv found;
        EXPECT_EQ(service.get(), found.service());
        EXPECT_THAT(asked(), ElementsAre("acquire 107 by 107"));
    }
    EXPECT_EQ(0, host.uses(107));
    host.forgetCalls();
    {
        const aFileStoreSrv unbound(nullptr);
        EXPECT_EQ(nullptr, unbound.service());
        const aFileStoreSrv bound(service.get());
        EXPECT_EQ(service.get(), bound.service());
        EXPECT_THAT(asked(), IsEmpty());
    }
    host.withdraw(107);
    const aFileStoreSrv missing;
    EXPECT_EQ(nullptr, missing.service());
}

TEST_F(FileStoreStubTest, AssignmentTakesTheOthersServiceOver) {
    aFileStoreSrvExt stub(nullptr);
    stub = aFileStoreSrv(service.get());
    EXPECT_EQ(service.get(), stub.service());
    EXPECT_EQ(5, stub.isOpen());
    stub = aFileStoreSrv(nullptr);
    EXPECT_EQ(nullptr, stub.service());
}

TEST_F(FileStoreStubTest, BuffersShareTheirBytes) {
    offer();
    service.get()->answer = kOk;
    aBuf data("data");
    aBuf out = noBuffer();
    EXPECT_EQ(kOk, CMN_FILESTORE_S.encode(aBuf("key"), data, out));
    EXPECT_EQ(data.target(), out.target());
}

TEST_F(FileStoreStubTest, FirstCallsOfManyThreadsBindOnce) {
    offer();
    for (int round = 0; round < 20; ++round) {
        aFileStoreSrvExt stub(nullptr);
        host.forgetCalls();
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] { EXPECT_TRUE(stub.acquire()); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_THAT(asked(), ElementsAre("acquire 107 by 107"));
    }
}

TEST_F(FileStoreStubTest, LastUseGivesTheServiceBackAndTheNextCallFindsItAgain) {
    offer();
    FileStoreSrvC.ref();
    FileStoreSrvC.ref();
    FileStoreSrvC.unref();
    EXPECT_EQ(service.get(), FileStoreSrvC.service());
    FileStoreSrvC.unref();
    EXPECT_EQ(nullptr, FileStoreSrvC.service());
    EXPECT_EQ(5, FileStoreSrvC.isOpen());
    EXPECT_THAT(asked(),
                ElementsAre("acquire 107 by 107", "release 107 by 107", "acquire 107 by 107"));
}

TEST_F(FileStoreStubTest, TheModulesOwnStubsStandForModule107) {
    EXPECT_EQ(107U, FILESTORE_ID.value());
    EXPECT_EQ(nullptr, FileStoreSrvC.service());
    EXPECT_EQ(nullptr, CMN_FILESTORE_S.service());
    offer();
    EXPECT_EQ(5, FileStoreSrvC.isOpen());
    EXPECT_EQ(5, CMN_FILESTORE_S.isOpen());
}

}  // namespace
