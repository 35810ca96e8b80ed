#include "lib/base/time.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace fstore {
namespace {

TEST(PeriodTest, ReadsAsTabled) {
    EXPECT_EQ(45, parsePeriod("45s"));
    EXPECT_EQ(90 * 60, parsePeriod("90m"));
    EXPECT_EQ(12 * 3600, parsePeriod("12h"));
    EXPECT_EQ(30 * 86400, parsePeriod("30d"));
    EXPECT_EQ(2 * 7 * 86400, parsePeriod("2w"));
    EXPECT_EQ(365 * 86400, parsePeriod("1y"));
    EXPECT_EQ(0, parsePeriod("0d"));
    EXPECT_TRUE(parsePeriod("10000y"));
    for (const char* const text :
         {"", "d", "30", "-1d", "1.5d", "30 d", "10001y", "99999999999999999999999999d", "1dd"}) {
        EXPECT_FALSE(parsePeriod(text)) << text;
    }
}

TEST(TimeTest, ReadsAsTabled) {
    EXPECT_EQ(0, parseTime("1970-01-01T00:00:00Z"));
    EXPECT_EQ(951782400, parseTime("2000-02-29T00:00:00Z"));
    EXPECT_EQ(951782400, parseTime("2000-02-29t01:30:00+01:30"));
    EXPECT_EQ(951782400, parseTime("2000-02-28 19:00:00.25-05:00"));
    EXPECT_EQ(253402300799, parseTime("9999-12-31T23:59:59Z"));
    for (const char* const text :
         {"", "2000-02-30T00:00:00Z", "2000-13-01T00:00:00Z", "2000-01-01T24:00:00Z",
          "2000-01-01T00:60:00Z", "2000-01-01", "2000-01-01T00:00:00", "2000-01-01T00:00:00Zx",
          "2000-01-01T00:00:00+25:00", "20000101T000000Z"}) {
        EXPECT_FALSE(parseTime(text)) << text;
    }
}

TEST(TimeTest, ReadsWhatItPrints) {
    for (const std::int64_t time : {std::int64_t{0}, std::int64_t{1700000000},
                                    std::int64_t{253402300799}, std::int64_t{-86400}}) {
        EXPECT_EQ(time, parseTime(printTime(time)));
    }
    EXPECT_EQ("2000-02-29T00:00:00Z", printTime(951782400));
}

}  // namespace
}  // namespace fstore
