// The map from byte strings to byte strings, through the proxies and the loaded modules.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/modules/services.h"

namespace {

using namespace std::string_literals;

class BytesMapTest : public testing::Test {
protected:
    Services services;
    aHashMapFull map;
};

TEST_F(BytesMapTest, FindsWhatWasAdded) {
    const struct {
        const char* name;
        std::string key, value;
    } rows[] = {
        {"text", "key", "value"},          {"prefix", "ke", "another"},
        {"with a zero", "key\0"s, "zero"}, {"empty key", "", "empty"},
        {"empty value", "nothing", ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ("<none>", textOf(map.find(bufOf(row.key)))) << row.name;
        EXPECT_EQ(kOk, map.add(bufOf(row.key), bufOf(row.value))) << row.name;
    }
    for (const auto& row : rows) {
        EXPECT_EQ(row.value, textOf(map.find(bufOf(row.key)))) << row.name;
    }
}

TEST_F(BytesMapTest, ReplacesAndCopies) {
    aBuf value = bufOf("first");
    ASSERT_EQ(kOk, map.add(bufOf("key"), value));
    value.datap()[0] = 'F';
    EXPECT_EQ("first", textOf(map.find(bufOf("key"))));
    ASSERT_EQ(kOk, map.add(bufOf("key"), bufOf("second")));
    EXPECT_EQ("second", textOf(map.find(bufOf("key"))));
}

TEST_F(BytesMapTest, NullIsInvalid) {
    const aBuf none(static_cast<TBuf*>(nullptr));
    EXPECT_EQ(kInvalid, map.add(none, bufOf("value")));
    EXPECT_EQ(kInvalid, map.add(bufOf("key"), none));
    EXPECT_EQ("<none>", textOf(map.find(none)));
    EXPECT_EQ("<none>", textOf(map.find(bufOf("key"))));
}

TEST_F(BytesMapTest, ManyThreadsAtOnce) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i != 8; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round != 100; ++round) {
                const std::string mine = std::to_string(i) + "." + std::to_string(round);
                wrong += map.add(bufOf(mine), bufOf("=" + mine)) != kOk ? 1 : 0;
                wrong += map.add(bufOf("all"), bufOf("shared")) != kOk ? 1 : 0;
                wrong += textOf(map.find(bufOf(mine))) != "=" + mine ? 1 : 0;
                wrong += textOf(map.find(bufOf("all"))) != "shared" ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong.load());
}

}  // namespace
