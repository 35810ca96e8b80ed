#include "lib/base/nearest.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace fstore {
namespace {

std::string nearestOf(const std::string& wanted, const std::vector<std::string>& names) {
    Nearest nearest(wanted);
    for (const std::string& name : names) {
        nearest.offer(name);
    }
    return nearest.found();
}

TEST(NearestTest, OneFaultIsForgiven) {
    const std::vector<std::string> names{"check", "generate", "get", "import", "passwd", "put"};
    for (const auto& [wanted, meant] :
         std::vector<std::pair<std::string, std::string>>{{"gett", "get"},       // one too many
                                                          {"chck", "check"},     // one too few
                                                          {"imbort", "import"},  // another
                                                          {"passdw", "passwd"},  // two exchanged
                                                          {"puts", "put"},       // behind it
                                                          {"ggenerate", "generate"}}) {
        EXPECT_EQ(meant, nearestOf(wanted, names)) << wanted;
    }
}

TEST(NearestTest, LongNamesMayHaveMoreFaults) {
    EXPECT_EQ("certificates/local/server",
              nearestOf("certifcates/loca/sever", {"a", "certificates/local/server"}));
    EXPECT_EQ("generate", nearestOf("gnerat", {"get", "generate"}));
}

TEST(NearestTest, TheFewestFaultsWinAndOfEqualOnesTheFirst) {
    EXPECT_EQ("server2", nearestOf("server22", {"server", "server2", "server33"}));
    EXPECT_EQ("abcx", nearestOf("abcd", {"abcx", "abcy"}));
}

TEST(NearestTest, ABeginningMeansTheFirstThatGoesOn) {
    EXPECT_EQ("generate", nearestOf("gen", {"import", "generate", "genuine"}));
    EXPECT_EQ("", nearestOf("g", {"generate"}));
    EXPECT_EQ("generate", nearestOf("gen", {"gem", "generate"}));
}

TEST(NearestTest, WhatIsFarIsNotMeant) {
    EXPECT_EQ("", nearestOf("frobnicate", {"get", "import"}));
    EXPECT_EQ("", nearestOf("xyz", {"abc"}));
    EXPECT_EQ("", nearestOf("", {"abc"}));
    EXPECT_EQ("", nearestOf("abc", {}));
    EXPECT_EQ("", nearestOf("ab", {"cd"}));
}

}  // namespace
}  // namespace fstore
