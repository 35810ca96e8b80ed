#include "host/guard_pool.h"

#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cmn/status.h"

namespace {

// What an object does with its guard.
class User {
public:
    explicit User(GuardPool& pool) : guard_(pool.next()) { guard_->addReference(); }
    User(const User&) = delete;
    User& operator=(const User&) = delete;
    ~User() { guard_->remReference(); }

    CMN_Guard* guard() const { return guard_; }

private:
    CMN_Guard* guard_;
};

// So that the guard that this thread was given last is free again.
void askForAnother(GuardPool& pool) {
    (void)pool.next();
}

// Asks until `guard` is given again; false when the pool prefers new ones.
bool comesBack(GuardPool& pool, const CMN_Guard* guard) {
    for (std::size_t i = 0; i < 4 * pool.size(); ++i) {
        if (pool.next() == guard) {
            return true;
        }
    }
    return false;
}

TEST(GuardPoolTest, ObjectsThatLiveTogetherHaveGuardsOfTheirOwn) {
    GuardPool pool;
    std::vector<std::unique_ptr<User>> users;
    std::set<CMN_Guard*> guards;
    for (int i = 0; i < 100; ++i) {
        users.push_back(std::make_unique<User>(pool));
        guards.insert(users.back()->guard());
        EXPECT_EQ(0, users.back()->guard()->calls());
    }
    EXPECT_EQ(100U, guards.size());
    EXPECT_EQ(100U, pool.size());
}

TEST(GuardPoolTest, GuardThatIsNotTakenYetIsNotGivenToAnotherThread) {
    GuardPool pool;
    CMN_Guard* const given = pool.next();  // between this and the object's reference,
    std::set<CMN_Guard*> others;
    std::thread([&] {  // another thread is served
        for (int i = 0; i < 10; ++i) {
            others.insert(pool.next());
        }
    })
        .join();
    EXPECT_EQ(0U, others.count(given));
}

TEST(GuardPoolTest, GuardOfAnObjectThatHasGoneServesAnother) {
    GuardPool pool;
    const CMN_Guard* const guard = User(pool).guard();
    askForAnother(pool);
    EXPECT_TRUE(comesBack(pool, guard));
}

TEST(GuardPoolTest, GuardOfAThreadThatHasEndedServesAnother) {
    GuardPool pool;
    const CMN_Guard* guard = nullptr;
    std::thread([&] { guard = pool.next(); }).join();
    EXPECT_TRUE(comesBack(pool, guard));
}

TEST(GuardPoolTest, CountOfAGuardIsPutRightBeforeItServesAgain) {
    const struct {
        const char* name;
        int left;
    } rows[] = {
        {"as an assignment leaves it", 0},
        {"as a destructor leaves it", 1},
        {"lowered too often", -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        GuardPool pool;
        CMN_Guard* guard = nullptr;
        {
            const User user(pool);
            guard = user.guard();
            row.left<0 ? guard->dec() : row.left> 0 ? guard->inc() : 0;
        }
        EXPECT_EQ(row.left, guard->calls());
        askForAnother(pool);
        ASSERT_TRUE(comesBack(pool, guard));
        EXPECT_EQ(0, guard->calls());
    }
}

TEST(GuardPoolTest, GuardThatIsStillToBeLoweredIsLeftAlone) {
    GuardPool pool;
    CMN_Guard* guard = nullptr;
    {
        const User user(pool);
        guard = user.guard();
        guard->inc();  // the release that destroys the object
    }
    guard->inc();  // a late caller
    askForAnother(pool);
    EXPECT_FALSE(comesBack(pool, guard));
    EXPECT_EQ(2, guard->calls());

    guard->dec();
    EXPECT_TRUE(comesBack(pool, guard));
}

TEST(GuardPoolTest, GuardInUseIsLeftAloneWhateverItsCount) {
    GuardPool pool;
    const User user(pool);
    user.guard()->inc();
    EXPECT_FALSE(comesBack(pool, user.guard()));
    EXPECT_EQ(1, user.guard()->calls());
}

TEST(GuardPoolTest, MendRaisesOnlyWhatIsBelowZero) {
    GuardPool pool;
    const User low(pool);
    const User high(pool);
    low.guard()->dec();
    high.guard()->inc();
    pool.mend();
    EXPECT_EQ(0, low.guard()->calls());
    EXPECT_EQ(1, high.guard()->calls());
}

TEST(GuardPoolTest, GuardsOutliveThePoolWhileObjectsUseThem) {
    auto pool = std::make_unique<GuardPool>();
    const User user(*pool);
    askForAnother(*pool);
    pool.reset();
    EXPECT_EQ(1, user.guard()->references());
    user.guard()->inc();
    EXPECT_EQ(1, user.guard()->calls());
}

// However objects come and go, there are about two guards for each that lives.
TEST(GuardPoolTest, MemoryFollowsTheObjectsThatLive) {
    const struct {
        const char* name;
        std::size_t staying;  // live all the time
        std::size_t passing;  // the newest so many live as well
    } rows[] = {
        {"one at a time", 0, 1},
        {"a crowd that moves on", 0, 1000},
        {"a few beside many that stay", 1000, 3},
        {"as many as stay", 500, 500},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        GuardPool pool;
        std::vector<std::unique_ptr<User>> staying(row.staying);
        for (auto& user : staying) {
            user = std::make_unique<User>(pool);
        }
        std::vector<std::unique_ptr<User>> passing(row.passing);
        for (std::size_t i = 0; i < 100000; ++i) {
            passing[i % row.passing].reset();
            passing[i % row.passing] = std::make_unique<User>(pool);
        }
        EXPECT_LE(pool.size(), 5 * (row.staying + row.passing) / 2 + 3);
    }
}

TEST(GuardPoolTest, ManyThreadsNeverShareAGuard) {
    GuardPool pool;
    std::atomic<int> shared{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                const User user(pool);
                // The pool, this thread as the one given it last, and the user.
                shared += user.guard()->references() == 3 && user.guard()->calls() == 0 ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, shared.load());
    EXPECT_LE(pool.size(), 24U);
}

}  // namespace
