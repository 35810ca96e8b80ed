// Every operation on files waits for the store-wide lock, in its own way: nothing of
// the promises holds where two of them meet in one folder.
#include <pthread.h>

#include <chrono>
#include <optional>
#include <thread>

#include "format/dsc_text.h"
#include "gtest/gtest.h"
#include "store/rw_locker.h"
#include "tests/crash/harness_test.h"
#include "tests/support/fs_fault.h"

namespace crash {
namespace {

class LockTest : public HarnessTest {
protected:
    LockTest() {
        Start start;
        start.records["keys/a"] = kContents;
        make(start);
        session_.emplace();
        EXPECT_EQ(kOk, CMN_FILESTORE_S.open("secret"));
    }

    // Holds the lock, lets the operation start in another thread, and expects it to make
    // none of these calls until the lock is given back.
    template <class Operation>
    static void expectWaits(int (*hold)(pthread_rwlock_t*), fault::Calls calls,
                            Operation operation) {
        ASSERT_EQ(0, hold(&RWLocker::m_RWMutex));
        const long before = fault::callCount(calls);
        std::thread worker(operation);
        for (int i = 0; i < 100 && fault::callCount(calls) == before; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(before, fault::callCount(calls));
        EXPECT_EQ(0, pthread_rwlock_unlock(&RWLocker::m_RWMutex));
        worker.join();
        EXPECT_LT(before, fault::callCount(calls));  // it had work to do
    }

    // Returns only when the operation has ended although the lock is held for reading.
    template <class Operation>
    static void expectGoesOnBesideReaders(Operation operation) {
        ASSERT_EQ(0, pthread_rwlock_rdlock(&RWLocker::m_RWMutex));
        std::thread(operation).join();
        EXPECT_EQ(0, pthread_rwlock_unlock(&RWLocker::m_RWMutex));
    }

    static constexpr auto kByReader = pthread_rwlock_rdlock;
    static constexpr auto kByWriter = pthread_rwlock_wrlock;

    const Contents kContents{{{kTypeText, 1, "text", false}}, "body", true};
    std::optional<Session> session_;
};

TEST_F(LockTest, ReadersWaitForAWriterOnly) {
    aFileStore record = recordOf("keys/a");
    const auto read = [&] { EXPECT_EQ(kOk, record.read()); };
    const auto ask = [&] { EXPECT_EQ(1, record.isExist()); };
    expectWaits(kByWriter, fault::Calls::all(), read);
    expectWaits(kByWriter, fault::Calls::all(), ask);
    expectGoesOnBesideReaders(read);
    expectGoesOnBesideReaders(ask);
}

TEST_F(LockTest, WritersWaitForReadersAndWriters) {
    aFileStore record = recordOf("keys/a");
    fill(record, kContents);
    aFileStoreList list;
    for (const auto hold : {kByReader, kByWriter}) {
        const fault::Calls all = fault::Calls::all();
        expectWaits(hold, all, [&] { EXPECT_EQ(kOk, list.readFromFolder("./db/keys")); });
        expectWaits(hold, all, [&] { EXPECT_EQ(kOk, record.write()); });
        expectWaits(hold, all, [&] { EXPECT_EQ(kOk, record.remove()); });
    }
}

// The password is checked, as by any reader, before the lock is taken.
TEST_F(LockTest, ChangeOfPasswordWaitsBeforeItTouchesAFolder) {
    const fault::Calls changes{fault::Call::kMkdir, fault::Call::kRename, fault::Call::kRemove};
    expectWaits(kByReader, changes,
                [] { EXPECT_EQ(kOk, CMN_FILESTORE_S.recrypt("secret", "next")); });
}

}  // namespace
}  // namespace crash
