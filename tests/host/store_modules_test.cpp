// The real store with its services, in one process: what the host makes of them.
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <malloc.h>

#include "client/cmn_abuf.h"
#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/status.h"
#include "host/module_file.h"
#include "host/store_host.h"
#include "tests/host/probe_files.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr unsigned int kX509Cmn = 111;
constexpr unsigned int kPkcs5 = 67;
constexpr unsigned int kPkixKey = 0x3f0008;
constexpr unsigned int kStore = 107;

struct Services {
    const char* name;
    std::vector<std::string> modules;
};

void PrintTo(const Services& services, std::ostream* out) {
    *out << services.name;
}

std::vector<Services> allServices() {
    std::vector<Services> all{
        {"doubles", {"x509cmn_double.so", "pkixkey_double.so", "pkcs5_double.so", "filestore.so"}}};
    if (sizeof(void*) == 8) {  // those on OpenSSL are built for native code only
        all.push_back({"real", StoreHost::Setup().modules});
    }
    return all;
}

std::string bodyOf(const aFileStore& record) {
    const auto* const body = reinterpret_cast<const char*>(record.getBody());
    return body == nullptr ? std::string() : std::string(body, record.getBodySize());
}

Status writeRecord(const std::string& name, const std::string& body) {
    aFileStore record;
    const Status statuses[] = {
        record.setFolderName("./db/keys"),
        record.setName(name.c_str()),
        record.setFileName((name + ".dsc").c_str()),
        record.setBody(reinterpret_cast<const unsigned char*>(body.data()),
                       static_cast<unsigned int>(body.size())),
        record.setBodyFlag(1),  // encrypted
        record.write(),
    };
    for (const Status status : statuses) {
        if (status != kOk) {
            return status;
        }
    }
    return kOk;
}

// What the record's body is, or the status in words.
std::string readRecord(const std::string& name) {
    aFileStore record;
    if (record.setFolderName("./db/keys") != kOk ||
        record.setFileName((name + ".dsc").c_str()) != kOk) {
        return "no record";
    }
    if (const Status read = record.read(); read != kOk) {
        return "not read: " + std::to_string(read);
    }
    if (const Status decrypted = record.decrypt(); decrypted != kOk) {
        return "not decrypted: " + std::to_string(decrypted);
    }
    return bodyOf(record);
}

class StoreModulesTest : public testing::TestWithParam<Services> {
protected:
    Result start() { return host_.start({"", GetParam().modules}); }

    static Status openStore() {
        aFileStoreSrv store;
        const Status prepared = store.prepareDBFolders();
        return prepared != kOk ? prepared : store.open("");
    }

    // The registry of the module in the nth file.
    static CMN_ObjectManager& objects(std::size_t nth) {
        ModuleFile file;
        EXPECT_TRUE(ModuleFile::open(moduleFolder() + "/" + GetParam().modules[nth], file).ok());
        return file.objects();
    }

    support::TempWorkingDir dir_;
    StoreHost host_;
};

TEST_P(StoreModulesTest, RecordIsWrittenAndRead) {
    const Result started = start();
    ASSERT_EQ(kOk, started.status) << started.message;
    ASSERT_EQ(kOk, openStore());
    EXPECT_EQ(kOk, writeRecord("alice", "a secret"));
    EXPECT_EQ("a secret", readRecord("alice"));
}

TEST_P(StoreModulesTest, RegistriesAreApart) {
    ASSERT_TRUE(start().ok());
    std::set<CMN_ObjectManager*> registries{&ObjectManager};
    std::vector<int> before;
    for (std::size_t i = 0; i < GetParam().modules.size(); ++i) {
        registries.insert(&objects(i));
        before.push_back(objects(i).size());
    }
    EXPECT_EQ(5U, registries.size());

    const aBuf buffer("text");
    const aFileStore record;
    ASSERT_NE(nullptr, buffer.target());
    ASSERT_NE(nullptr, record.target());
    EXPECT_EQ(before[0] + 1, objects(0).size()) << "buffers live in the X.509 common module";
    EXPECT_EQ(before[1], objects(1).size());
    EXPECT_EQ(before[2], objects(2).size());
    EXPECT_EQ(before[3] + 1, objects(3).size()) << "records live in the store";
    EXPECT_EQ(0, ObjectManager.size());
}

TEST_P(StoreModulesTest, OpenStoreKeepsItsServices) {
    ASSERT_TRUE(start().ok());
    ASSERT_EQ(kOk, openStore());
    ModuleManager& manager = host_.manager();
    for (const unsigned int id : {kX509Cmn, kPkcs5}) {
        EXPECT_EQ(kAlreadyOpen, manager.unload(id).status) << id;
    }
    EXPECT_EQ(kOk, writeRecord("bob", "kept"));
    EXPECT_EQ("kept", readRecord("bob"));

    const Result unloaded = manager.unload(kStore);  // closes the database
    EXPECT_EQ(kOk, unloaded.status) << unloaded.message;
    for (const unsigned int id : {kPkcs5, kPkixKey, kX509Cmn}) {
        const Result service = manager.unload(id);
        EXPECT_EQ(kOk, service.status) << service.message;
    }
}

TEST_P(StoreModulesTest, StoreWithAHandleOutsideIsNotUnloaded) {
    ASSERT_TRUE(start().ok());
    {
        const aFileStore record;
        EXPECT_EQ(kAlreadyOpen, host_.manager().unload(kStore).status);
    }
    const Result unloaded = host_.manager().unload(kStore);
    EXPECT_EQ(kOk, unloaded.status) << unloaded.message;
}

TEST_P(StoreModulesTest, StoreOutlivesItsCipherService) {
    ASSERT_TRUE(start().ok());
    ASSERT_EQ(kOk, openStore());
    ASSERT_EQ(kOk, writeRecord("carol", "here"));
    ModuleManager& manager = host_.manager();
    const Result unloaded = manager.forceUnload(kPkcs5);
    ASSERT_EQ(kOk, unloaded.status) << unloaded.message;
    EXPECT_NE(kOk, writeRecord("dave", "nowhere"));
    EXPECT_NE("here", readRecord("carol"));

    ASSERT_TRUE(manager.load((moduleFolder() + "/" + GetParam().modules[2]).c_str(), kPkcs5).ok());
    aFileStoreSrv store;
    (void)store.close();
    EXPECT_EQ(kOk, store.open(""));
    EXPECT_EQ("here", readRecord("carol"));
    EXPECT_EQ("not read: 50", readRecord("dave"));
}

TEST_P(StoreModulesTest, StoreIsReplacedByANewerFile) {
    std::filesystem::copy_file(moduleFile("filestore"), "newer.so");
    ASSERT_TRUE(start().ok());
    ASSERT_EQ(kOk, openStore());
    ASSERT_EQ(kOk, writeRecord("erin", "stays"));
    aFileStoreSrv store;
    aFileStore record;
    ASSERT_NE(nullptr, record.target());

    const Result replaced = host_.manager().replace(kStore, "newer.so");
    ASSERT_EQ(kOk, replaced.status) << replaced.message;
    EXPECT_EQ(nullptr, record.target()) << "the store makes no successors";
    EXPECT_EQ(kNoObject, record.read());
    EXPECT_EQ(0, store.isOpen()) << "it is a new store";
    EXPECT_EQ(kOk, store.open(""));
    EXPECT_EQ("stays", readRecord("erin"));
    EXPECT_EQ(kAlreadyOpen, host_.manager().replace(kX509Cmn, "newer.so").status);
}

TEST_P(StoreModulesTest, StoppedHostLeavesHandlesWithoutObject) {
    ASSERT_TRUE(start().ok());
    ASSERT_EQ(kOk, openStore());
    aFileStore record;
    const aBuf buffer("text");
    aFileStoreSrv store;
    const Result stopped = host_.stop();
    EXPECT_EQ(kOk, stopped.status) << stopped.message;
    EXPECT_EQ(kNoObject, record.read());
    EXPECT_EQ(nullptr, buffer.target());
    EXPECT_EQ(kNoObject, store.open(""));

    ASSERT_TRUE(start().ok());
    EXPECT_EQ(kOk, store.open(""));
}

TEST_P(StoreModulesTest, StartUseAndStopLeaveNothingBehind) {
    constexpr int kWarm = 10;  // rounds that fill caches
    constexpr int kRounds = 100;
    std::size_t bytes = 0;
    std::size_t guards = 0;
    for (int round = 0; round < kWarm + kRounds; ++round) {
        if (round == kWarm) {
            bytes = mallinfo2().uordblks;
            guards = host_.manager().guards().size();
        }
        ASSERT_TRUE(start().ok());
        ASSERT_EQ(kOk, openStore());
        ASSERT_EQ(kOk, writeRecord("frank", "again"));
        ASSERT_EQ("again", readRecord("frank"));
        const Result stopped = host_.stop();
        ASSERT_EQ(kOk, stopped.status) << stopped.message;
    }
    // Less than the smallest piece of memory a round; how the allocator cuts its
    // pieces varies by some hundred bytes. All are 0 under a sanitizer's allocator.
    constexpr std::size_t kPiece = 4 * sizeof(void*);
    EXPECT_LE(mallinfo2().uordblks, bytes + (kRounds - 1) * kPiece);
    EXPECT_EQ(guards, host_.manager().guards().size());
    EXPECT_EQ(0, ObjectManager.size());
}

INSTANTIATE_TEST_SUITE_P(With, StoreModulesTest, testing::ValuesIn(allServices()),
                         [](const auto& instance) { return std::string(instance.param.name); });

}  // namespace
