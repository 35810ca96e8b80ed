// The module as a host meets it.
#include <string>

#include "api/t_buf.h"
#include "cmn/cmn_gref.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/objmgrfunc.h"
#include "gtest/gtest.h"
#include "tests/modules/loaded_module.h"
#include "tests/support/fake_host.h"

namespace {

constexpr unsigned int kId = 111;
const char kName[] = "x509cmn";

std::string textOf(TBuf& buf) {
    return {buf.data(), buf.data() + buf.length()};
}

TEST(X509CmnModuleTest, AnswersTheHost) {
    FakeHost host;
    const LoadedModule loaded(host, kName, kId);
    BaseModuleInterface& module = loaded.module();
    EXPECT_EQ(kId, module.getModuleID());
    EXPECT_EQ(1U, module.getVersion());
    EXPECT_EQ(1U, module.getBuild());
    EXPECT_EQ(0, module.isReplaceable());
    EXPECT_EQ(nullptr, module.createObject(0x6F0001));
    EXPECT_EQ(kIo, module.addModule(67, nullptr));
    EXPECT_NE(nullptr, loaded.service());
    EXPECT_EQ(nullptr, module.getService(Tuint32ID(107)));
    EXPECT_EQ(nullptr, module.getService(TstringID("111")));
    EXPECT_EQ(kOk, loaded.service()->init());
    EXPECT_EQ(kOk, loaded.service()->fini());
}

TEST(X509CmnModuleTest, FlagOnlyRecordsTheManager) {
    FakeHost host;
    const LoadedModule loaded(host, kName, kId);
    auto* const entry = loaded.symbol<decltype(GetInterfaceClass)>("GetInterfaceClass");
    EXPECT_EQ(nullptr, entry(&host, 1));
}

TEST(X509CmnModuleTest, HasARegistryOfItsOwn) {
    FakeHost host;
    const LoadedModule loaded(host, kName, kId);
    auto* const manager = loaded.symbol<decltype(GetObjectManager)>("GetObjectManager")();
    EXPECT_NE(&ObjectManager, manager);
    EXPECT_EQ(manager, loaded.symbol<decltype(InitObjectManager)>("InitObjectManager")());
    EXPECT_EQ(nullptr,
              loaded.symbol<decltype(MakeObject)>("MakeObject")(0x6F0001, *loaded.service()));
    EXPECT_EQ(1, manager->moduleIsUsed());  // the test program holds the service
}

TEST(X509CmnModuleTest, UnloadsWithoutTrace) {
    {
        FakeHost host;
        const LoadedModule loaded(host, kName, kId);
        EXPECT_TRUE(LoadedModule::isMapped(kName));
    }
    EXPECT_FALSE(LoadedModule::isMapped(kName));
}

TEST(X509CmnServiceTest, MakesBuffers) {
    FakeHost host;
    host.giveNewGuards();
    const LoadedModule loaded(host, kName, kId);
    auto& service = static_cast<X509CmnSrv_I&>(*loaded.service());

    const CMN_GRefPtr<TBuf> empty(service.createTBuf());
    ASSERT_NE(nullptr, empty.get());
    EXPECT_EQ(0U, empty.get()->length());

    const CMN_GRefPtr<TBuf> text(service.createTBuf("text"));
    ASSERT_NE(nullptr, text.get());
    EXPECT_EQ("text", textOf(*text.get()));

    const unsigned char bytes[] = {0, 1, 2};
    const CMN_GRefPtr<TBuf> raw(service.createTBuf(bytes, 3));
    ASSERT_NE(nullptr, raw.get());
    EXPECT_EQ(std::string("\0\1\2", 3), textOf(*raw.get()));

    const CMN_GRefPtr<TBuf> copy(service.createTBuf(raw.get()));
    ASSERT_NE(nullptr, copy.get());
    EXPECT_EQ(0, copy.get()->compare(raw.get()));
    EXPECT_NE(nullptr, copy.get()->getGuard());
}

TEST(X509CmnServiceTest, MakesNothingFromNothing) {
    FakeHost host;
    const LoadedModule loaded(host, kName, kId);
    auto& service = static_cast<X509CmnSrv_I&>(*loaded.service());
    EXPECT_EQ(nullptr, service.createTBuf(static_cast<const char*>(nullptr)));
    EXPECT_EQ(nullptr, service.createTBuf(static_cast<TBuf*>(nullptr)));
    EXPECT_EQ(nullptr, service.createTBuf(nullptr, 1));
    const CMN_GRefPtr<TBuf> empty(service.createTBuf(nullptr, 0));
    EXPECT_NE(nullptr, empty.get());
}

}  // namespace
