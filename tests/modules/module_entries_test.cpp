// What the modules on OpenSSL show a host: as x509cmn_test for the other one.
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "tests/modules/services.h"

namespace {

constexpr struct {
    const char* name;
    unsigned int id;
} kModules[] = {{"pkcs5", 67}, {"pkixkey", 0x3f0008}};

TEST(ModuleEntriesTest, AnswerTheHost) {
    FakeHost host;
    for (const auto& row : kModules) {
        SCOPED_TRACE(row.name);
        const LoadedModule loaded(host, row.name, row.id);
        BaseModuleInterface& module = loaded.module();
        EXPECT_EQ(row.id, module.getModuleID());
        EXPECT_EQ(1U, module.getVersion());
        EXPECT_EQ(1U, module.getBuild());
        EXPECT_EQ(nullptr, module.createObject(1));
        EXPECT_EQ(kIo, module.addModule(111, nullptr));
        EXPECT_NE(nullptr, loaded.service());
        EXPECT_EQ(nullptr, module.getService(Tuint32ID(111)));
        EXPECT_EQ(nullptr,
                  loaded.symbol<decltype(GetInterfaceClass)>("GetInterfaceClass")(&host, 1));
    }
}

// A thread that used a module lives on after the module is gone.
TEST(ModuleEntriesTest, UnloadWithoutTrace) {
    for (int round = 0; round != 2; ++round) {
        {
            Services services;
            mmPBES pbes(PBES::kPbkdf2);
            EXPECT_EQ("<none>", textOf(pbes.encrypt(bufOf("message"))));
            EXPECT_EQ(kInvalid, pbes.error());
            const aKey key(TKey::kSymmetric, reinterpret_cast<const unsigned char*>("k"), 1);
            EXPECT_EQ("k", textOf(key.getRaw()));
            for (const auto& row : kModules) {
                EXPECT_TRUE(LoadedModule::isMapped(row.name));
            }
        }
        for (const char* const name : {"pkcs5", "pkixkey", "x509cmn"}) {
            EXPECT_FALSE(LoadedModule::isMapped(name)) << name;
        }
    }
}

// Whatever a module took of another one it has given back when it is stopped.
TEST(ModuleEntriesTest, GiveBackWhatTheyUsed) {
    FakeHost host;
    ModMgr = &host;
    {
        const LoadedModule buffers(host, "x509cmn", 111);
        const LoadedModule keys(host, "pkixkey", 0x3f0008);
        {
            const LoadedModule loaded(host, "pkcs5", 67);
            {
                const std::string bytes(16, 'k');
                mmPBES pbes(PBES::kPbkdf2);
                EXPECT_EQ(kOk, pbes.setKey(
                                   aKey(TKey::kSymmetric,
                                        reinterpret_cast<const unsigned char*>(bytes.data()), 16)));
                EXPECT_EQ("message", textOf(pbes.decrypt(pbes.encrypt(bufOf("message")))));
                EXPECT_EQ(bytes, textOf(pbes.getKey().getRaw()));
            }
            pkcs5srv = PKCS5();
            pkixKeyClnt = aPkixKeyClnt();
            x509cmn_fini();
        }
    }
    for (const unsigned int id : {67U, 0x3f0008U, 111U}) {
        EXPECT_EQ(0, host.uses(id)) << id;
    }
    ModMgr = nullptr;
}

TEST(ModuleEntriesTest, MissingModulesAreNoObjects) {
    FakeHost host;
    ModMgr = &host;
    {
        const LoadedModule loaded(host, "pkixkey", 0x3f0008);
        const aKey key(TKey::kSymmetric, reinterpret_cast<const unsigned char*>("k"), 1);
        EXPECT_EQ(kOk, key.error());
        EXPECT_EQ("<none>", textOf(key.getRaw()));
        EXPECT_EQ(kNoObject, key.error());
    }
    ModMgr = nullptr;
}

}  // namespace
