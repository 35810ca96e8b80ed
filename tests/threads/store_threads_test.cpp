// One store under many threads: records are read, written, removed and listed while
// the password changes, or the database closes and opens. Nobody reads anything but
// what was written; the thread sanitizer looks at what lies between.
//
// The store-wide lock prefers readers, as the system's do. Each thread has an end to
// its work, so that those that want to write get their turn.
#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "tests/support/run_together.h"
#include "tests/support/test_store.h"

namespace {

constexpr int kWorkers = 8;
constexpr int kRounds = 24;

const Contents kShared{
    {{2, 1, "shared attribute", true}, {4, 2, "plain", false}}, "shared body", true};

Contents madeBy(int worker, int round) {
    const std::string text = std::to_string(worker) + " in round " + std::to_string(round);
    return {{{2, 1, "attribute of " + text, round % 2 == 0}}, "body of " + text, round % 3 != 0};
}

std::string nameOf(int worker) {
    return "of worker " + std::to_string(worker);
}

aBuf noBuffer() {
    return aBuf(static_cast<TBuf*>(nullptr));
}

// One round of a worker, in which nothing may fail: the database stays open.
void readWriteAndList(int worker, int round) {
    const std::string name = nameOf(worker);
    const Contents contents = madeBy(worker, round);
    ASSERT_EQ(kOk, TestStore::save(name, contents));
    EXPECT_EQ(contents, TestStore::load(name));
    EXPECT_EQ(kShared, TestStore::load("shared"));

    aFileStore read = TestStore::record(name);
    ASSERT_EQ(kOk, read.read());
    aFileStoreList list;
    ASSERT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
    int found = 0;
    for (aFileStore item = list.getFirst(); item.target() != nullptr; item = list.getNext()) {
        found += item.getName() == name || item.getName() == std::string("shared") ? 1 : 0;
    }
    EXPECT_EQ(2, found);
    // Whatever became of the password since it was read.
    ASSERT_EQ(kOk, read.decrypt());
    EXPECT_EQ(contents, contentsOf(read));

    aBuf cipher = noBuffer();
    EXPECT_EQ(kOk, CMN_FILESTORE_S.encode(noBuffer(), aBuf("plain"), cipher));
    aBuf plain = noBuffer();
    (void)CMN_FILESTORE_S.decode(noBuffer(), cipher, plain);  // another key, perhaps
    if (round % 8 == 7) {
        EXPECT_EQ(kOk, TestStore::erase(name));
        EXPECT_EQ(0, TestStore::record(name).isExist());
    }
}

TEST(StoreThreadsTest, RecordsLiveThroughChangesOfThePassword) {
    TestStore store("password 0");
    ASSERT_EQ(kOk, TestStore::save("shared", kShared));
    std::atomic<int> working{kWorkers};
    int changes = 0;
    runTogether(kWorkers + 1, [&](int worker) {
        if (worker == kWorkers) {
            do {
                const std::string from = "password " + std::to_string(changes);
                const std::string to = "password " + std::to_string(changes + 1);
                ASSERT_EQ(kOk, CMN_FILESTORE_S.recrypt(from.c_str(), to.c_str()));
                ++changes;
            } while (working.load() != 0);
            return;
        }
        for (int round = 0; round < kRounds && !testing::Test::HasFailure(); ++round) {
            readWriteAndList(worker, round);
        }
        --working;
    });
    EXPECT_LT(1, changes);
    RecordProperty("changes", changes);
    store.restart(("password " + std::to_string(changes)).c_str());
    EXPECT_EQ(kShared, TestStore::load("shared"));
    for (int worker = 0; worker < kWorkers; ++worker) {
        aFileStore record = TestStore::record(nameOf(worker));
        EXPECT_EQ(0, record.isExist());  // the last round removes it
    }
}

// A record that cannot be encrypted, or not be decrypted, while the database is
// closed is told, and the one before stays.
TEST(StoreThreadsTest, RecordsLiveThroughClosingAndOpening) {
    TestStore store("secret");
    ASSERT_EQ(kOk, TestStore::save("shared", kShared));
    for (int worker = 0; worker < kWorkers; ++worker) {
        ASSERT_EQ(kOk, TestStore::save(nameOf(worker), madeBy(worker, 1)));
    }
    std::atomic<int> working{kWorkers};
    runTogether(kWorkers + 1, [&](int worker) {
        if (worker == kWorkers) {
            do {
                ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
                ASSERT_EQ(kOk, CMN_FILESTORE_S.open("secret"));
            } while (working.load() != 0);
            return;
        }
        int written = 1;
        for (int round = 2; round < kRounds; ++round) {
            const Status status = TestStore::save(nameOf(worker), madeBy(worker, round));
            ASSERT_TRUE(status == kOk || status == kIo) << status;
            written = status == kOk ? round : written;
            Contents found;
            const Status loaded = TestStore::tryLoad(nameOf(worker), found);
            ASSERT_TRUE(loaded == kOk || loaded == kNotOpen || loaded == kIo) << loaded;
            if (loaded == kOk) {
                ASSERT_EQ(madeBy(worker, written), found);
            }
        }
        --working;
    });
    EXPECT_EQ(1, CMN_FILESTORE_S.isOpen());
    EXPECT_EQ(kShared, TestStore::load("shared"));
}

}  // namespace
