#include "lib/records/filter.h"

#include <gtest/gtest.h>

#include "lib/base/error.h"

namespace fstore {
namespace {

TEST(FilterTest, RefusesWhatCannotBeRead) {
    const auto statusOf = [](const auto& set) {
        Filters filters;
        set(filters);
        try {
            const Filter filter(filters, 0);
        } catch (const Failure& failure) {
            return failure.status();
        }
        return kOk;
    };
    EXPECT_EQ(kOk, statusOf([](Filters& it) {
                  it.expiresWithin = "30d";
                  it.serial = "00:FF";
                  it.sha256 = "a";
              }));
    EXPECT_EQ(kUsage, statusOf([](Filters& it) { it.expiresWithin = "soon"; }));
    EXPECT_EQ(kUsage, statusOf([](Filters& it) { it.serial = "xyz"; }));
    EXPECT_EQ(kUsage, statusOf([](Filters& it) { it.serial = ""; }));
    EXPECT_EQ(kUsage, statusOf([](Filters& it) { it.sha256 = "g"; }));
    EXPECT_EQ(kUsage, statusOf([](Filters& it) { it.attributes = {"nonsense"}; }));
}

}  // namespace
}  // namespace fstore
