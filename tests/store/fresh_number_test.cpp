// Free names in folders of any size.
#include "store/fresh_number.h"

#include <atomic>
#include <functional>
#include <limits>
#include <random>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

namespace {

constexpr int kMostLooks = 100;

// A folder that answers for its names without having any.
class Names {
public:
    explicit Names(std::function<os::Presence(unsigned int)> look) : look_(std::move(look)) {}

    static Names contiguous(unsigned int last) {
        return Names([last](unsigned int number) {
            return number >= 1 && number <= last ? os::Presence::kPresent : os::Presence::kAbsent;
        });
    }

    FreshNumber take(std::atomic<unsigned int>& counter) {
        looks = 0;
        return takeFarAhead(counter, [this](unsigned int number) {
            ++looks;
            return look_(number);
        });
    }

    int looks = 0;

private:
    std::function<os::Presence(unsigned int)> look_;
};

TEST(FreshNumberTest, FollowsTheLastOneWhereThereIsNoGap) {
    for (const unsigned int last : {0U, 1U, 31U, 32U, 33U, 63U, 64U, 65U, 66U, 67U, 128U, 1000U,
                                    99999U, 100000U, 100001U, 1000000U, 0x80000000U}) {
        std::atomic<unsigned int> counter{1};
        Names names = Names::contiguous(last);
        const FreshNumber fresh = names.take(counter);
        EXPECT_EQ(last + 1, fresh.number);
        EXPECT_EQ(os::Presence::kAbsent, fresh.taken) << last;
        EXPECT_EQ(last + 2, counter) << "the next one is free, too";
        EXPECT_LE(names.looks, kMostLooks) << last;
    }
}

TEST(FreshNumberTest, BeginsWhereTheCounterIs) {
    std::atomic<unsigned int> counter{40000};
    Names names = Names::contiguous(50000);
    EXPECT_EQ(50001U, names.take(counter).number);
    EXPECT_EQ(50002U, names.take(counter).number);
    EXPECT_EQ(1, names.looks);
}

TEST(FreshNumberTest, AmongGapsNeverGivesOneThatIsTaken) {
    std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): the same ones each time
    for (int round = 0; round < 200; ++round) {
        std::set<unsigned int> taken;
        for (unsigned int n = 1; n <= 3000; ++n) {
            if (n <= 100 || random() % 100 >= static_cast<unsigned int>(round) / 2) {
                taken.insert(n);
            }
        }
        std::atomic<unsigned int> counter{1};
        Names names([&](unsigned int number) {
            return taken.count(number) != 0 ? os::Presence::kPresent : os::Presence::kAbsent;
        });
        for (int i = 0; i < 50; ++i) {
            const FreshNumber fresh = names.take(counter);
            EXPECT_EQ(os::Presence::kAbsent, fresh.taken);
            EXPECT_TRUE(taken.insert(fresh.number).second) << fresh.number;
            EXPECT_LE(names.looks, kMostLooks);
        }
    }
}

TEST(FreshNumberTest, GoesRoundAfterTheLastNumber) {
    std::atomic<unsigned int> counter{std::numeric_limits<unsigned int>::max() - 100};
    Names names([](unsigned int number) {
        return number >= 1000 ? os::Presence::kPresent : os::Presence::kAbsent;
    });
    EXPECT_EQ(0U, names.take(counter).number);
}

TEST(FreshNumberTest, WhereAllAreTakenOneIsGivenUntested) {
    std::atomic<unsigned int> counter{1};
    Names names([](unsigned int) { return os::Presence::kPresent; });
    const FreshNumber fresh = names.take(counter);
    EXPECT_EQ(os::Presence::kPresent, fresh.taken);
    EXPECT_EQ(33U, fresh.number);
    EXPECT_LE(names.looks, kMostLooks);
}

TEST(FreshNumberTest, OneThatCannotBeExaminedEndsTheSearch) {
    for (const unsigned int unknown : {1U, 32U, 33U, 35U, 200U}) {
        std::atomic<unsigned int> counter{1};
        Names names([&](unsigned int number) {
            return number >= unknown ? os::Presence::kUnknown : os::Presence::kPresent;
        });
        EXPECT_EQ(os::Presence::kUnknown, names.take(counter).taken) << unknown;
    }
}

TEST(FreshNumberTest, WhoIsOvertakenIsGivenTheNextOneUntested) {
    std::atomic<unsigned int> counter{1};
    Names names([&](unsigned int number) {
        if (number == 33) {
            ++counter;  // another thread
        }
        return number <= 1000 ? os::Presence::kPresent : os::Presence::kAbsent;
    });
    const FreshNumber fresh = names.take(counter);
    EXPECT_EQ(os::Presence::kPresent, fresh.taken);
    EXPECT_EQ(34U, fresh.number);
}

TEST(FreshNumberTest, ThreadsNeverGetTheSame) {
    constexpr int kThreads = 4;
    constexpr int kEach = 1000;
    std::atomic<unsigned int> counter{1};
    std::vector<std::vector<unsigned int>> given(kThreads);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (std::vector<unsigned int>& mine : given) {
        threads.emplace_back([&counter, &mine] {
            Names names([](unsigned int number) {  // 500 of 600 in each stretch
                return number % 600 < 500 ? os::Presence::kPresent : os::Presence::kAbsent;
            });
            for (int i = 0; i < kEach; ++i) {
                mine.push_back(names.take(counter).number);
            }
        });
    }
    std::set<unsigned int> all;
    for (int i = 0; i < kThreads; ++i) {
        threads[i].join();
        all.insert(given[i].begin(), given[i].end());
    }
    EXPECT_EQ(static_cast<std::size_t>(kThreads * kEach), all.size());
}

TEST(FreshNumberTest, InOrderGivesTheLastAttemptUntested) {
    std::atomic<unsigned int> counter{7};
    int looks = 0;
    const auto taken = [&](unsigned int) {
        ++looks;
        return os::Presence::kPresent;
    };
    EXPECT_EQ(11U, takeInOrder(counter, taken, 5).number);
    EXPECT_EQ(4, looks);
}

}  // namespace
