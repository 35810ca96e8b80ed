// Threads: several databases, several handles, and one handle from several threads at once.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capi/filestore.h"
#include "tests/capi/support.h"
#include "tests/support/run_together.h"
#include "tests/support/temp_dir.h"

namespace {

// Where a thread that syncs waits while a test wants it to.
class Gate {
public:
    void pass() {
        std::unique_lock<std::mutex> locked(lock_);
        if (!closed_) {
            return;
        }
        ++waiting_;
        changed_.notify_all();
        changed_.wait(locked, [this] { return !closed_; });
        --waiting_;
    }
    void close() {
        const std::lock_guard<std::mutex> locked(lock_);
        closed_ = true;
    }
    void awaitSomebody() {
        std::unique_lock<std::mutex> locked(lock_);
        changed_.wait(locked, [this] { return waiting_ > 0; });
    }
    bool hasSomebody() {
        const std::lock_guard<std::mutex> locked(lock_);
        return waiting_ > 0;
    }
    void open() {
        const std::lock_guard<std::mutex> locked(lock_);
        closed_ = false;
        changed_.notify_all();
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool closed_ = false;
    int waiting_ = 0;
};

Gate gate;

}  // namespace

// In place of the C library's, for the modules as well: they look for it in the program first.
extern "C" __attribute__((visibility("default"))) int fsync(int fd) {
    gate.pass();
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

namespace capi_test {
namespace {

using support::TempDir;

const std::string kPassword = "correct horse";

// Of each thread; more where the environment says so.
int operations() {
    const char* const given = std::getenv("CAPI_OPERATIONS");
    return given != nullptr ? std::atoi(given) : 1000;
}

// A body that says whose it is, of a size of its own.
std::string bodyFor(const std::string& owner, int version) {
    const std::string head = owner + " " + std::to_string(version) + " ";
    return head + std::string(static_cast<std::size_t>(version * 37 % 3000), head[0]);
}

// Mixed reads and writes of records that nobody else writes: each is what was written last.
void work(const Db& db, const std::string& owner, int count) {
    constexpr int kRecords = 20;
    std::mt19937 random(std::hash<std::string>()(owner));
    int versions[kRecords] = {};
    for (int i = 0; i < count; ++i) {
        const int which = static_cast<int>(random() % kRecords);
        const std::string address = "keys/" + owner + std::to_string(which);
        if (random() % 10 == 0 || versions[which] == 0) {
            put(db, address, bodyFor(owner, i + 1), random() % 2 == 0 ? FILESTORE_PLAIN : 0);
            versions[which] = i + 1;
        } else {
            ASSERT_EQ(bodyFor(owner, versions[which]), bodyOf(get(db, address)));
        }
    }
}

TEST(CapiThreadsTest, TwoDatabasesInTwoThreads) {
    const TempDir folders[2];
    runTogether(2, [&](int number) {
        const Db db = openWith(folders[number].path(), kPassword, FILESTORE_CREATE);
        work(db, "thread" + std::to_string(number), operations());
    });
}

// Each handle encrypts and decrypts with the key of its own database, whatever the other one does
// at the same time, and neither password opens the other database.
TEST(CapiThreadsTest, TwoPasswordsInOneProcess) {
    const TempDir folders[2];
    const std::string passwords[2] = {kPassword, "battery staple"};
    const Db dbs[2] = {openWith(folders[0].path(), passwords[0], FILESTORE_CREATE),
                       openWith(folders[1].path(), passwords[1], FILESTORE_CREATE)};
    runTogether(4, [&](int number) {
        work(dbs[number % 2], "thread" + std::to_string(number), operations() / 4);
    });
    for (int number = 0; number < 2; ++number) {
        put(dbs[number], "settings/mine", passwords[number]);
        const Db other = open(folders[number].path());
        const filestore_key key = passwordOf(passwords[1 - number]);
        EXPECT_EQ(FILESTORE_WRONG_PASSWORD, filestore_unlock(other.get(), &key, nullptr, nullptr));
        EXPECT_EQ(FILESTORE_NOT_OPEN, statusOfGet(other, "settings/mine"));
        unlock(other, passwords[number]);
        EXPECT_EQ(passwords[number], bodyOf(get(other, "settings/mine")));
        EXPECT_EQ(passwords[number], bodyOf(get(dbs[number], "settings/mine")));
    }
}

TEST(CapiThreadsTest, OneHandleInSeveralThreads) {
    const TempDir folder;
    const Db db = openWith(folder.path(), kPassword, FILESTORE_CREATE);
    runTogether(4,
                [&](int number) { work(db, "thread" + std::to_string(number), operations() / 4); });
}

// A search through thousands of records has threads of its own; two of them at once, and keys in
// the records' encrypted parts to look for.
TEST(CapiThreadsTest, SearchesThatStartThreads) {
    constexpr std::size_t kMany = 2100;
    const TempDir folder;
    const Db db = openWith(folder.path(), kPassword, FILESTORE_CREATE);
    for (std::size_t i = 0; i < kMany; ++i) {
        put(db, "settings/" + std::to_string(i), "body", i % 2 == 0 ? FILESTORE_PLAIN : 0);
    }
    runTogether(2, [&](int number) {
        filestore_find_options options = FILESTORE_FIND_OPTIONS_INIT;
        options.flags = FILESTORE_FIND_SECRETS;
        options.folder = "settings";
        filestore_error error = FILESTORE_ERROR_INIT;
        filestore_list* found = nullptr;
        must(filestore_find(db.get(), &options, &found, &error), error);
        const List list(found);
        EXPECT_EQ(kMany, filestore_list_count(list.get())) << number;
    });
}

TEST(CapiThreadsTest, HandlesComeAndGo) {
    const TempDir folder;
    put(openWith(folder.path(), kPassword, FILESTORE_CREATE), "keys/a", "plain", FILESTORE_PLAIN);
    runTogether(4, [&](int) {
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ("plain", bodyOf(get(open(folder.path()), "keys/a")));
        }
    });
}

// While one thread unlocks, locks and unlocks again, the others read what they read, or hear why
// not.
TEST(CapiThreadsTest, ReadersSurviveThatTheHandleIsLocked) {
    const TempDir folder;
    const Db db = openWith(folder.path(), kPassword, FILESTORE_CREATE);
    put(db, "keys/a", "secret");
    std::atomic<bool> done{false};
    runTogether(3, [&](int number) {
        if (number == 0) {
            for (int i = 0; i < 10; ++i) {
                filestore_lock(db.get());
                unlock(db, kPassword);
            }
            done = true;
            return;
        }
        while (!done) {
            const filestore_status status = statusOfGet(db, "keys/a");
            ASSERT_TRUE(status == FILESTORE_OK || status == FILESTORE_NOT_OPEN) << status;
        }
    });
    EXPECT_EQ("secret", bodyOf(get(db, "keys/a")));
}

TEST(CapiThreadsTest, AWriterThatSyncsDelaysNoReaderOfAnotherDatabase) {
    const TempDir one, two;
    const Db slow = openWith(one.path(), kPassword, FILESTORE_CREATE);
    const Db quick = openWith(two.path(), kPassword, FILESTORE_CREATE);
    put(quick, "keys/a", "body");
    gate.close();
    std::thread writer([&] { put(slow, "keys/a", "body"); });
    gate.awaitSomebody();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ("body", bodyOf(get(quick, "keys/a")));
    }
    EXPECT_TRUE(gate.hasSomebody());
    gate.open();
    writer.join();
    EXPECT_EQ("body", bodyOf(get(slow, "keys/a")));
}

TEST(CapiThreadsTest, WhoWaitsTooLongHearsThatItIsBusy) {
    const TempDir folder;
    const Db slow = openWith(folder.path(), kPassword, FILESTORE_CREATE);
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    options.lock_seconds = 0;
    filestore_error error = FILESTORE_ERROR_INIT;
    filestore_db* handle = nullptr;
    must(filestore_open(folder.path().c_str(), &options, &handle, &error), error);
    const Db hasty(handle);
    gate.close();
    std::thread writer([&] { put(slow, "keys/a", "body"); });
    gate.awaitSomebody();
    EXPECT_EQ(FILESTORE_BUSY, statusOfGet(hasty, "keys/a"));
    gate.open();
    writer.join();
    EXPECT_EQ(FILESTORE_NOT_OPEN, statusOfGet(hasty, "keys/a"));
}

}  // namespace
}  // namespace capi_test
