// Many threads in several databases at once: each finds what it wrote where it wrote it, and
// nothing of another database. Records have the same names everywhere.
#include <string>

#include <gtest/gtest.h>

#include "client/s_filestoreC.h"
#include "tests/support/context.h"
#include "tests/support/run_together.h"
#include "tests/support/test_store.h"

namespace {

constexpr int kRounds = 400;

Contents madeBy(int worker, int round) {
    const std::string text = std::to_string(worker) + " in round " + std::to_string(round);
    return {{{2, 1, "attribute of " + text, round % 2 == 0}}, "body of " + text, round % 3 != 0};
}

TEST(ContextThreadsTest, NoDatabaseSeesAnother) {
    TestStore store("secret");
    const Beside one("one");
    const Beside two("two");
    const unsigned int contexts[] = {0, one.id(), two.id()};
    for (const unsigned int context : {one.id(), two.id()}) {
        const Inside inside(context);
        Inside::prepareAndOpen("");
        ASSERT_EQ(kOk, CMN_FILESTORE_S.recrypt("", std::to_string(context).c_str()));
    }
    // Two threads a database, each with a record of its own.
    runTogether(6, [&](int worker) {
        const Inside inside(contexts[worker / 2]);
        const std::string name = worker % 2 == 0 ? "even" : "odd";
        for (int round = 0; round < kRounds; ++round) {
            const Contents contents = madeBy(worker, round);
            ASSERT_EQ(kOk, TestStore::save(name, contents));
            ASSERT_EQ(contents, TestStore::load(name));
        }
    });
}

// A thread goes from one to the other; another changes their passwords meanwhile.
TEST(ContextThreadsTest, PasswordsChangeOneByOne) {
    TestStore store("secret");
    const Beside one("one");
    const Beside two("two");
    const Contents contents = madeBy(1, 2);
    for (const unsigned int context : {one.id(), two.id()}) {
        const Inside inside(context);
        Inside::prepareAndOpen("");
        ASSERT_EQ(kOk, TestStore::save("a", contents));
    }
    runTogether(3, [&](int worker) {
        for (int round = 0; round < 40; ++round) {
            const Inside inside(worker == 0 || round % 2 == 0 ? one.id() : two.id());
            if (worker == 0) {
                const std::string from = round == 0 ? "" : std::to_string(round);
                ASSERT_EQ(kOk,
                          CMN_FILESTORE_S.recrypt(from.c_str(), std::to_string(round + 1).c_str()));
            } else {
                aFileStore record = TestStore::record("a");
                ASSERT_EQ(kOk, record.read());
            }
        }
    });
    const Inside inside(one.id());
    EXPECT_EQ(contents, TestStore::load("a"));
    EXPECT_EQ(kOk, CMN_FILESTORE_S.checkPwd("40"));
}

}  // namespace
