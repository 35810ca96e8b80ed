#include "host/store_host.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cmn/status.h"
#include "tests/host/modules/probe.h"
#include "tests/host/probe_files.h"
#include "tests/support/temp_dir.h"

namespace {

using support::TempDir;
using testing::HasSubstr;

constinit const Tuint32ID k201(201);
constinit const Tuint32ID k202(202);

StoreHost::Setup probes(const std::string& folder = {}) {
    return {folder, {"probe1.so", "probe2.so"}};
}

// Sets FILESTORE_MODULES for a scope.
class ModulesVariable {
public:
    explicit ModulesVariable(const std::string& value) {
        setenv("FILESTORE_MODULES", value.c_str(), 1);
    }
    ModulesVariable(const ModulesVariable&) = delete;
    ModulesVariable& operator=(const ModulesVariable&) = delete;
    ~ModulesVariable() { unsetenv("FILESTORE_MODULES"); }
};

TEST(StoreHostTest, FindsTheModulesBesideTheProgram) {
    StoreHost host;
    const Result started = host.start(probes());
    ASSERT_EQ(kOk, started.status) << started.message;
    EXPECT_EQ(&host.manager(), ModMgr);
    aProbe service(k202);
    EXPECT_EQ(1U, service.version());
}

TEST(StoreHostTest, FolderIsGivenOrNamedInTheEnvironment) {
    const TempDir given;
    const TempDir named;
    for (const TempDir* const dir : {&given, &named}) {
        std::filesystem::copy_file(moduleFile("probe2"), *dir / "probe2.so");
    }
    std::filesystem::copy_file(moduleFile("probe1"), given / "probe1.so");
    std::filesystem::copy_file(moduleFile("probe1_dropping"), named / "probe1.so");
    const ModulesVariable variable(named.path());
    aProbe service(k201);
    {
        StoreHost host;
        ASSERT_TRUE(host.start(probes(given.path())).ok());
        EXPECT_EQ(1U, service.version());
    }
    {
        StoreHost host;
        ASSERT_TRUE(host.start(probes()).ok());
        EXPECT_EQ(3U, service.version());
    }
}

TEST(StoreHostTest, ModulesAreNotSoughtInTheCurrentFolder) {
    // The folder exists, as seen from here: only its form is at fault.
    const std::string here = std::filesystem::proximate(moduleFolder());
    ASSERT_TRUE(std::filesystem::exists(std::filesystem::path(here) / "probe1.so"));
    StoreHost host;
    const Result given = host.start(probes(here));
    EXPECT_EQ(kInvalid, given.status);
    EXPECT_THAT(given.message, HasSubstr(here));

    const ModulesVariable variable(here);
    const Result named = host.start(probes());
    EXPECT_EQ(kInvalid, named.status);
    EXPECT_THAT(named.message, HasSubstr("FILESTORE_MODULES is " + here));
    EXPECT_EQ(nullptr, ModMgr);
}

TEST(StoreHostTest, EmptyVariableNamesNoFolder) {
    const ModulesVariable variable("");
    StoreHost host;
    EXPECT_TRUE(host.start(probes()).ok());
}

TEST(StoreHostTest, TellsWhenThereAreNoModules) {
    StoreHost host;
    const Result started = host.start({"", {"probe1.so", "no such module.so"}});
    EXPECT_EQ(kMissing, started.status);
    EXPECT_THAT(started.message, HasSubstr("FILESTORE_MODULES"));
    EXPECT_EQ(nullptr, ModMgr);
}

TEST(StoreHostTest, ModuleThatCannotBeLoadedLeavesNoneLoaded) {
    StoreHost host;
    const Result started = host.start({"", {"probe1.so", "probe_no_entry.so", "probe2.so"}});
    EXPECT_EQ(kMalformed, started.status);
    EXPECT_THAT(started.message, HasSubstr("probe_no_entry.so"));
    EXPECT_EQ(nullptr, ModMgr);
    EXPECT_EQ(0, host.manager().isLoaded(k201));

    EXPECT_TRUE(host.start(probes()).ok()) << "it can be started after all";
}

TEST(StoreHostTest, ProgramHasOneStartedHost) {
    StoreHost host;
    StoreHost another;
    ASSERT_TRUE(host.start(probes()).ok());
    EXPECT_EQ(kAlreadyOpen, host.start(probes()).status);
    EXPECT_EQ(kAlreadyOpen, another.start(probes()).status);
    EXPECT_EQ(kOk, another.stop().status);
    EXPECT_EQ(&host.manager(), ModMgr) << "it is not another's to stop";

    EXPECT_EQ(kOk, host.stop().status);
    EXPECT_TRUE(another.start(probes()).ok());
}

TEST(StoreHostTest, ProxiesThatAreLeftHoldNothingAfterwards) {
    aProbe service(k201);
    StoreHost host;
    ASSERT_TRUE(host.start(probes()).ok());
    const aThing thing(service);
    EXPECT_EQ(0, thing.value());

    const Result stopped = host.stop();
    EXPECT_EQ(kOk, stopped.status) << stopped.message;
    EXPECT_EQ(nullptr, ModMgr);
    EXPECT_EQ(-1, thing.value());
    EXPECT_EQ(0U, service.version());

    ASSERT_TRUE(host.start(probes()).ok());
    EXPECT_EQ(1U, service.version());
}

}  // namespace
