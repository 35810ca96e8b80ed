#include "host/service_table.h"

#include <gtest/gtest.h>

#include "cmn/cmn_gref.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

namespace {

constinit const Tuint32ID k67(67);
constinit const Tuint32ID k107(107);
constinit const Tuint32ID k111(111);

class Service final : public CMN_GuardedRef {
public:
    Service() : CMN_GuardedRef(0) {}
    Status init() override { return kOk; }
    Status fini() override { return kOk; }
};

class ServiceTableTest : public testing::Test {
protected:
    ServiceTableTest() { table_.add(67, service_.get()); }

    CMN_GuardedRef* acquire(const TypifiedID& asker) { return table_.acquire(k67, asker); }

    int uses(const std::string& asker) const {
        const auto uses = table_.uses(67).byAsker;
        const auto found = uses.find(asker);
        return found == uses.end() ? 0 : found->second;
    }

    const CMN_GRefPtr<Service> service_{new Service};
    const CMN_GRefPtr<Service> another_{new Service};
    ServiceTable table_;
};

TEST(NameOfTest, TellsNumbersFromTexts) {
    EXPECT_EQ("4294967295", nameOf(Tuint32ID(0xffffffff)));
    EXPECT_EQ("\"107\"", nameOf(TstringID("107")));
    EXPECT_EQ("\"\"", nameOf(TstringID(nullptr)));
}

TEST_F(ServiceTableTest, GivesTheServiceOfTheModuleAndCountsTheUse) {
    EXPECT_EQ(service_.get(), acquire(k107));
    EXPECT_EQ(service_.get(), acquire(k107));
    EXPECT_EQ(service_.get(), acquire(k111));
    EXPECT_EQ(2, uses("107"));
    EXPECT_EQ(1, uses("111"));
    EXPECT_EQ(3U, table_.uses(67).acquisitions);
}

TEST_F(ServiceTableTest, ServiceOfNobodyIsNull) {
    EXPECT_EQ(nullptr, table_.acquire(k111, k107));
    EXPECT_EQ(nullptr, table_.acquire(TstringID("67"), k107));
    EXPECT_EQ(0U, table_.uses(67).acquisitions);
}

TEST_F(ServiceTableTest, UsesOfItsOwnAreNotCounted) {
    EXPECT_EQ(service_.get(), acquire(k67));
    EXPECT_EQ(0, uses("67"));
    EXPECT_TRUE(table_.closeUnused(67, {}));
}

TEST_F(ServiceTableTest, AskersAreToldApartByKindToo) {
    acquire(k107);
    acquire(TstringID("107"));
    EXPECT_EQ(1, uses("107"));
    EXPECT_EQ(1, uses("\"107\""));
}

TEST_F(ServiceTableTest, ReleaseGivesOneUseOfThatAskerBack) {
    acquire(k107);
    acquire(k107);
    table_.release(k67, k107);
    EXPECT_EQ(1, uses("107"));
    table_.release(k67, k111);
    EXPECT_EQ(1, uses("107"));
}

TEST_F(ServiceTableTest, UsesNeverFallBelowNone) {
    table_.release(k67, k107);
    table_.release(k111, k107);
    table_.release(TstringID("67"), k107);
    EXPECT_EQ(0, uses("107"));
    acquire(k107);
    EXPECT_EQ(1, uses("107"));
}

TEST_F(ServiceTableTest, OwnServiceGoesBeforeThatOfAModule) {
    table_.setOwn(67, another_.get());
    table_.setOwn(5, another_.get());
    EXPECT_EQ(another_.get(), acquire(k107));
    EXPECT_EQ(another_.get(), table_.acquire(Tuint32ID(5), k107));
    EXPECT_EQ(0, uses("107"));

    table_.setOwn(67, nullptr);
    EXPECT_EQ(service_.get(), acquire(k107));
}

TEST_F(ServiceTableTest, ClosedModuleGivesNothingButKeepsItsUses) {
    acquire(k107);
    table_.close(67);
    EXPECT_EQ(nullptr, acquire(k107));
    EXPECT_EQ(1, uses("107"));
    EXPECT_TRUE(table_.has(k67));

    table_.reopen(67);
    EXPECT_EQ(service_.get(), acquire(k107));
}

TEST_F(ServiceTableTest, OnlyAModuleThatWasNotUsedMeanwhileIsClosed) {
    const auto before = table_.uses(67);
    acquire(k107);
    EXPECT_FALSE(table_.closeUnused(67, before));
    const auto during = table_.uses(67);
    EXPECT_FALSE(table_.closeUnused(67, during));
    table_.release(k67, k107);
    EXPECT_FALSE(table_.closeUnused(67, before)) << "it was used in between";

    EXPECT_TRUE(table_.closeUnused(67, table_.uses(67)));
    EXPECT_EQ(nullptr, acquire(k107));
}

TEST_F(ServiceTableTest, ExchangeIsRefusedAfterAnAcquisition) {
    const auto before = table_.uses(67);
    acquire(k107);
    EXPECT_FALSE(table_.exchange(67, another_.get(), before));
    EXPECT_EQ(service_.get(), acquire(k107));

    EXPECT_TRUE(table_.exchange(67, another_.get(), table_.uses(67)));
    EXPECT_EQ(another_.get(), acquire(k107));
    EXPECT_EQ(3, uses("107")) << "uses carry over";
}

TEST_F(ServiceTableTest, ForgetsAsManyUsesAsWereSeen) {
    acquire(k107);
    acquire(k107);
    acquire(k111);
    const auto seen = table_.uses(67);
    acquire(k107);
    table_.release(k67, k111);
    table_.forget(67, seen);
    EXPECT_EQ(1, uses("107"));
    EXPECT_EQ(0, uses("111"));
}

TEST_F(ServiceTableTest, ForgetsAnAskerEverywhere) {
    table_.add(111, another_.get());
    acquire(k107);
    table_.acquire(k111, k107);
    acquire(k111);
    table_.forgetAsker("107");
    EXPECT_EQ(0, uses("107"));
    EXPECT_TRUE(table_.uses(111).byAsker.empty());
    EXPECT_EQ(1, uses("111"));
}

TEST_F(ServiceTableTest, ModuleThatHasGoneIsUnknown) {
    acquire(k107);
    table_.remove(67);
    EXPECT_FALSE(table_.has(k67));
    EXPECT_FALSE(table_.has(TstringID("67")));
    EXPECT_EQ(nullptr, acquire(k107));
    table_.release(k67, k107);

    table_.add(67, another_.get());
    EXPECT_EQ(0, uses("107"));
}

}  // namespace
