// The store as another module uses it, while the host unloads and reloads both.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "host/store_host.h"
#include "tests/support/run_together.h"
#include "tests/support/temp_dir.h"
#include "tests/system/client_module/client.h"
#include "tests/system/store_modules.h"

namespace {

constexpr unsigned int kStore = 107;
constexpr unsigned int kClient = 300;

class ClientModuleTest : public testing::TestWithParam<StoreModules> {
protected:
    void SetUp() override {
        StoreHost::Setup setup = GetParam().setup;
        setup.modules.emplace_back("client_module.so");
        const Result started = host_.start(setup);
        ASSERT_TRUE(started.ok()) << started.message;
        ASSERT_EQ(kOk, client(&TClient::openStore, ""));
    }

    ModuleManager& manager() { return host_.manager(); }
    Status unloadStore() { return manager().unload(kStore).status; }
    Status loadStore() {
        return manager().load((GetParam().setup.folder + "/filestore.so").c_str()).status;
    }

    support::TempWorkingDir dir_;
    StoreHost host_;
    aClient client;
};

TEST_P(ClientModuleTest, DoesEverythingThroughTheProxies) {
    EXPECT_EQ(kOk, client(&TClient::put, "a", "text of a"));
    EXPECT_EQ(kOk, client(&TClient::put, "b", "text of b"));
    EXPECT_EQ(kOk, client(&TClient::get, "a", "text of a"));
    EXPECT_EQ(kMalformed, client(&TClient::get, "a", "text of b"));
    EXPECT_EQ(kMissing, client(&TClient::get, "c", ""));
    unsigned int records = 0;
    EXPECT_EQ(kOk, client(&TClient::count, records));
    EXPECT_EQ(2U, records);
    EXPECT_EQ(kOk, client(&TClient::drop, "a"));
    EXPECT_EQ(kOk, client(&TClient::count, records));
    EXPECT_EQ(1U, records);
    EXPECT_EQ(kOk, client(&TClient::seal, "text"));
    EXPECT_EQ(kOk, client(&TClient::changePassword, "", "new"));
    EXPECT_EQ(kOk, client(&TClient::get, "b", "text of b"));
    EXPECT_EQ(kOk, client(&TClient::closeStore));
    EXPECT_EQ(kNotOpen, client(&TClient::get, "b", "text of b"));
    EXPECT_EQ(kWrongPassword, client(&TClient::openStore, ""));
    EXPECT_EQ(kOk, client(&TClient::openStore, "new"));
    EXPECT_EQ(kOk, client(&TClient::get, "b", "text of b"));
    EXPECT_EQ(0, manager().uses(kStore)) << "nothing is left of a use that is over";
}

TEST_P(ClientModuleTest, StoreIsUnloadedWhenItIsNotUsed) {
    ASSERT_EQ(kOk, client(&TClient::put, "a", "text"));
    for (int round = 1; round <= 20; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(kOk, client(&TClient::keep, "a"));
        EXPECT_EQ(kAlreadyOpen, unloadStore());
        EXPECT_EQ(kOk, client(&TClient::getKept, "text"));
        client.letGo();

        ASSERT_EQ(kOk, unloadStore());
        EXPECT_FALSE(isMapped("filestore.so"));
        EXPECT_EQ(kNoObject, client(&TClient::openStore, ""));
        EXPECT_EQ(kNoObject, client(&TClient::get, "a", "text"));
        unsigned int records = 0;
        EXPECT_EQ(kNoObject, client(&TClient::count, records));

        ASSERT_EQ(kOk, loadStore());
        EXPECT_EQ(kNotOpen, client(&TClient::get, "a", "text"));
        ASSERT_EQ(kOk, client(&TClient::openStore, ""));
        EXPECT_EQ(kOk, client(&TClient::get, "a", "text"));
    }
}

TEST_P(ClientModuleTest, StoreTakenAwayByForceLeavesEmptyHandles) {
    ASSERT_EQ(kOk, client(&TClient::put, "a", "text"));
    ASSERT_EQ(kOk, client(&TClient::keep, "a"));
    const Result forced = manager().forceUnload(kStore);
    ASSERT_EQ(kOk, forced.status) << forced.message;
    EXPECT_FALSE(isMapped("filestore.so"));
    EXPECT_EQ(kNoObject, client(&TClient::getKept, "text"));
    ASSERT_EQ(kOk, loadStore());
    EXPECT_EQ(kNoObject, client(&TClient::getKept, "text"));
    client.letGo();
    ASSERT_EQ(kOk, client(&TClient::openStore, ""));
    ASSERT_EQ(kOk, client(&TClient::keep, "a"));
    EXPECT_EQ(kOk, client(&TClient::getKept, "text"));
}

TEST_P(ClientModuleTest, ClientThatIsUnloadedUsesTheStoreNoMore) {
    ASSERT_EQ(kOk, client(&TClient::keep, "a"));
    EXPECT_EQ(kAlreadyOpen, unloadStore());
    const Result forced = manager().forceUnload(kClient);
    ASSERT_EQ(kOk, forced.status) << forced.message;
    EXPECT_FALSE(isMapped("client_module.so"));
    EXPECT_EQ(kNoObject, client(&TClient::getKept, ""));
    EXPECT_EQ(kOk, unloadStore());
    EXPECT_FALSE(isMapped("filestore.so"));
}

// Threads use the store now and then, and the host takes it away whenever nobody does
// and brings it back. A record that was written is there to the end.
TEST_P(ClientModuleTest, StoreComesAndGoesUnderManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20;
    constexpr int kUnloadings = 20;
    std::atomic<int> working{kThreads};
    std::atomic<int> unloaded{0};
    int written[kThreads] = {};
    const auto text = [](int thread, int round) {
        return std::to_string(thread) + " in round " + std::to_string(round);
    };
    const auto name = [](int thread) { return "record of " + std::to_string(thread); };
    const auto expected = [](Status status) {
        return status == kOk || status == kNoObject || status == kNotOpen || status == kIo ||
               status == kMissing;
    };
    runTogether(kThreads + 1, [&](int thread) {
        if (thread == kThreads) {
            while (working != 0) {
                if (unloadStore() == kOk) {
                    ++unloaded;
                    EXPECT_EQ(kOk, loadStore());
                    EXPECT_EQ(kOk, client(&TClient::openStore, ""));
                }
                std::this_thread::yield();
            }
            return;
        }
        // On a machine with other work a thread may meet the store in none of its rounds.
        const auto isDue = [&](int round) {
            return round <= kRounds || unloaded < kUnloadings || written[thread] == 0;
        };
        for (int round = 1; isDue(round); ++round) {
            const std::string fresh = text(thread, round);
            const Status put = client(&TClient::put, name(thread).c_str(), fresh.c_str());
            EXPECT_TRUE(expected(put)) << put;
            written[thread] = put == kOk ? round : written[thread];
            const std::string last = text(thread, written[thread]);
            const Status got = client(&TClient::get, name(thread).c_str(), last.c_str());
            EXPECT_TRUE(expected(got)) << got;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        --working;
    });
    for (int thread = 0; thread < kThreads; ++thread) {
        ASSERT_NE(0, written[thread]);
        const std::string last = text(thread, written[thread]);
        EXPECT_EQ(kOk, client(&TClient::get, name(thread).c_str(), last.c_str())) << last;
    }
    EXPECT_EQ(kOk, unloadStore());
}

INSTANTIATE_TEST_SUITE_P(Services, ClientModuleTest, testing::ValuesIn(allServices()),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
