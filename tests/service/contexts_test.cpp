// Databases beside that of the process's folder, entered by a thread.
#include <fcntl.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "client/s_filestoreC.h"
#include "format/layout.h"
#include "os/files.h"
#include "store/rw_locker.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/context.h"
#include "tests/support/test_store.h"

namespace {

namespace fs = std::filesystem;

const Contents kSecret{{{2, 1, "attribute", true}}, "body", true};

TEST(ContextsTest, DatabaseInAnotherFolderIsAWorldOfItsOwn) {
    TestStore store("secret");
    ASSERT_EQ(kOk, TestStore::save("a", kSecret));
    const Contents other{{{1, 7, "4444", false}}, "another body", true};
    const Beside beside("beside");
    {
        const Inside inside(beside.id());
        EXPECT_EQ(0, CMN_FILESTORE_S.isOpen());
        EXPECT_EQ(kClosed, CMN_FILESTORE_S.close());
        Inside::prepareAndOpen("");
        ASSERT_EQ(kOk, CMN_FILESTORE_S.recrypt("", "its own"));
        EXPECT_EQ(kWrongPassword, CMN_FILESTORE_S.checkPwd("secret"));
        ASSERT_EQ(kOk, TestStore::save("a", other));
        EXPECT_EQ(other, TestStore::load("a"));
        ASSERT_EQ(kOk, TestStore::save("b", other));
    }
    EXPECT_EQ(kOk, CMN_FILESTORE_S.checkPwd("secret"));
    EXPECT_EQ(kSecret, TestStore::load("a"));
    EXPECT_EQ(0, TestStore::record("b").isExist());
    EXPECT_TRUE(fs::exists("beside/db/keys/b.dsc"));
    EXPECT_TRUE(fs::exists("beside/old_db"));
    ASSERT_EQ(kOk, CMN_FILESTORE_S.close());
    const Inside inside(beside.id());
    EXPECT_EQ(1, CMN_FILESTORE_S.isOpen());
    EXPECT_EQ(other, TestStore::load("b"));
}

TEST(ContextsTest, EntersNestAndZeroIsTheProcessesFolder) {
    TestStore store("secret");
    const Beside one("one");
    const Beside two("two");
    const Inside first(one.id());
    ASSERT_EQ(kOk, CMN_FILESTORE_S.prepareDBFolders());
    {
        const Inside second(two.id());
        ASSERT_EQ(kOk, CMN_FILESTORE_S.prepareDBFolders());
        EXPECT_EQ(0, CMN_FILESTORE_S.isOpen());
        const Inside outside(0);
        EXPECT_EQ(1, CMN_FILESTORE_S.isOpen());
        const Inside again(one.id());
        EXPECT_EQ(kOk, TestStore::save("in one", {{}, "x", false}));
    }
    EXPECT_TRUE(fs::exists("one/db/keys/in one.dsc"));
    EXPECT_FALSE(fs::exists("two/db/keys/in one.dsc"));
}

TEST(ContextsTest, RecordsAndListsRefuseAnotherDatabase) {
    TestStore store("secret");
    ASSERT_EQ(kOk, TestStore::save("a", kSecret));
    const Beside beside("beside");
    aFileStore record = TestStore::record("a");
    ASSERT_EQ(kOk, record.read());
    aFileStoreList list;
    ASSERT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
    const auto expectRefused = [](aFileStore& elsewhere, aFileStoreList& listElsewhere) {
        EXPECT_EQ(kInvalid, elsewhere.read());
        EXPECT_EQ(kInvalid, elsewhere.decrypt());
        EXPECT_EQ(kInvalid, elsewhere.write());
        EXPECT_EQ(kInvalid, elsewhere.remove());
        EXPECT_EQ(1, elsewhere.isExist());
        EXPECT_EQ(kInvalid, listElsewhere.readFromFolder(TestStore::kFolder));
        EXPECT_EQ(0U, listElsewhere.isEmpty());
    };
    {
        const Inside inside(beside.id());
        Inside::prepareAndOpen("");
        expectRefused(record, list);
        aFileStore listed = list.getFirst();
        EXPECT_EQ(kInvalid, listed.read());
        EXPECT_EQ(0, TestStore::record("a").isExist());
    }
    EXPECT_EQ(kOk, record.decrypt());
    EXPECT_EQ(kOk, list.getFirst().read());
    unsigned int outside = 77;
    ASSERT_EQ(kOk, filestore_contextEnter(beside.id(), &outside));
    EXPECT_EQ(0U, outside);
    ASSERT_EQ(kOk, TestStore::save("b", kSecret));
    aFileStore inner = TestStore::record("b");
    ASSERT_EQ(kOk, inner.read());
    aFileStoreList innerList;
    ASSERT_EQ(kOk, innerList.readFromFolder(TestStore::kFolder));
    ASSERT_EQ(kOk, filestore_contextLeave(outside));
    expectRefused(inner, innerList);
    EXPECT_EQ(0, TestStore::record("b").isExist());
}

TEST(ContextsTest, WhatIsNoContextIsRefused) {
    TestStore store("secret");
    unsigned int before = 77;
    unsigned int id = 77;
    EXPECT_EQ(kInvalid, filestore_contextMake(-1, &id));
    const os::File file = os::openFile("plain", O_RDWR | O_CREAT | O_EXCL);
    EXPECT_EQ(kInvalid, filestore_contextMake(file.get(), &id));
    const os::File folder = os::openFile(".", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(kInvalid, filestore_contextMake(folder.get(), nullptr));
    EXPECT_EQ(77U, id);
    EXPECT_EQ(kEnd, filestore_contextEnter(0xFFFFFFFF, &before));
    EXPECT_EQ(77U, before);
    EXPECT_EQ(kInvalid, filestore_contextEnter(0, nullptr));
    EXPECT_EQ(kEnd, filestore_contextLeave(0xFFFFFFFF));
    EXPECT_EQ(kOk, filestore_contextLeave(0));  // it is there already
    EXPECT_EQ(kEnd, filestore_contextDelete(0));
    EXPECT_EQ(kEnd, filestore_contextDelete(0xFFFFFFFF));
    ASSERT_EQ(kOk, filestore_contextMake(folder.get(), &id));
    ASSERT_EQ(kOk, filestore_contextDelete(id));
    EXPECT_EQ(kEnd, filestore_contextDelete(id));
    EXPECT_EQ(kEnd, filestore_contextEnter(id, &before));
    EXPECT_EQ(1, CMN_FILESTORE_S.isOpen());
}

TEST(ContextsTest, OneThatAThreadIsInsideOfIsNotDeleted) {
    TestStore store("secret");
    const Beside beside("beside");
    std::atomic<bool> entered{false};
    std::atomic<bool> leave{false};
    std::thread other([&] {
        const Inside inside(beside.id());
        Inside::prepareAndOpen("");
        entered = true;
        while (!leave) {
            std::this_thread::yield();
        }
        EXPECT_EQ(kOk, TestStore::save("late", kSecret));
    });
    while (!entered) {
        std::this_thread::yield();
    }
    EXPECT_EQ(kAlreadyOpen, filestore_contextDelete(beside.id()));
    leave = true;
    other.join();
    EXPECT_TRUE(fs::exists("beside/db/keys/late.dsc"));
    EXPECT_EQ(kOk, filestore_contextDelete(beside.id()));
}

// The keys go with the context, also from what records still hold.
TEST(ContextsTest, DeletionTakesTheKeyFromEveryHandle) {
    TestStore store("secret");
    const Beside beside("beside");
    aFileStore record(static_cast<TFileStore*>(nullptr));
    aCryptoEncoder encoder(nullptr);
    {
        const Inside inside(beside.id());
        Inside::prepareAndOpen("");
        ASSERT_EQ(kOk, TestStore::save("a", kSecret));
        record = TestStore::record("a");
        ASSERT_EQ(kOk, record.read());
        encoder = CMN_FILESTORE_S.getEncoder();
        aBuf plain("plain");
        EXPECT_NE(nullptr, encoder.encrypt(plain).target());
    }
    ASSERT_EQ(kOk, filestore_contextDelete(beside.id()));
    aBuf plain("plain");
    EXPECT_EQ(nullptr, encoder.encrypt(plain).target());
    EXPECT_EQ(kInvalid, record.decrypt());
}

TEST(ContextsTest, StoppingTheModuleEndsThemAll) {
    TestStore store("secret");
    fs::create_directory("beside");
    const os::File folder = os::openFile("beside", O_RDONLY | O_DIRECTORY);
    unsigned int idle = 0;
    unsigned int entered = 0;
    ASSERT_EQ(kOk, filestore_contextMake(folder.get(), &idle));
    ASSERT_EQ(kOk, filestore_contextMake(folder.get(), &entered));
    unsigned int before = 0;
    ASSERT_EQ(kOk, filestore_contextEnter(entered, &before));
    Inside::prepareAndOpen("");
    store.restart(nullptr);
    EXPECT_EQ(kEnd, filestore_contextEnter(idle, &before));
    EXPECT_EQ(kEnd, filestore_contextDelete(entered));
    EXPECT_EQ(0, CMN_FILESTORE_S.isOpen());
    EXPECT_EQ(kOk, filestore_contextLeave(0));
    EXPECT_EQ(kEnd, filestore_contextEnter(entered, &before));
    EXPECT_EQ(kOk, CMN_FILESTORE_S.open("secret"));
}

TEST(ContextsTest, TenThousandComeAndGo) {
    TestStore store("secret");
    const os::File folder = os::openFile(".", O_RDONLY | O_DIRECTORY);
    for (int round = 0; round < 10000; ++round) {
        unsigned int id = 0;
        ASSERT_EQ(kOk, filestore_contextMake(folder.get(), &id));
        {
            const Inside inside(id);
            ASSERT_EQ(kOk, CMN_FILESTORE_S.open("secret"));
            ASSERT_EQ(kAlreadyOpen, filestore_contextDelete(id));
        }
        ASSERT_EQ(kOk, filestore_contextDelete(id));
    }
    std::vector<unsigned int> ids(10000);
    for (unsigned int& id : ids) {
        ASSERT_EQ(kOk, filestore_contextMake(folder.get(), &id));
    }
    for (const unsigned int id : ids) {
        ASSERT_EQ(kOk, filestore_contextDelete(id));
    }
}

// A writer of one database waits for as long as it likes, and a reader of another one does
// not notice.
TEST(ContextsTest, LockOfOneDatabaseIsNoneOfAnother) {
    TestStore store("secret");
    ASSERT_EQ(kOk, TestStore::save("a", kSecret));
    const Beside beside("beside");
    const os::WriteLock locked(&RWLocker::m_RWMutex);
    std::thread other([&] {
        const Inside inside(beside.id());
        Inside::prepareAndOpen("");
        EXPECT_EQ(kOk, TestStore::save("a", kSecret));
        EXPECT_EQ(kSecret, TestStore::load("a"));
        EXPECT_EQ(kOk, CMN_FILESTORE_S.recrypt("", "next"));
    });
    other.join();
}

// Who answers what a test wants, and counts.
struct Watcher {
    static Status ask(void* self) {
        auto& watcher = *static_cast<Watcher*>(self);
        return ++watcher.asked > watcher.allowed ? kIo : kOk;
    }

    int allowed = 0;
    int asked = 0;
};

// Each way in which a change becomes visible, stopped at each question: what was there is there,
// and the files of the change stay.
TEST(ContextsTest, WhoWatchesAContextStopsItsChanges) {
    const TestStore store("secret");
    const struct {
        const char* name;
        std::function<Status()> change;
    } rows[] = {
        {"a new record", [] { return TestStore::save("new", kSecret); }},
        {"over a record",
         [] {
             return TestStore::save("a", {{{1, 7, "4444", false}}, "b", false});
         }},
        {"a removal", [] { return TestStore::record("a").remove(); }},
        {"another password", [] { return CMN_FILESTORE_S.recrypt("", "next"); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        bool isDone = false;
        for (int allowed = 0; !isDone; ++allowed) {
            fs::remove_all("beside");
            const Beside beside("beside");
            {
                const Inside inside(beside.id());
                Inside::prepareAndOpen("");
                ASSERT_EQ(kOk, TestStore::save("a", kSecret));
            }
            Watcher watcher{.allowed = allowed};
            ASSERT_EQ(kOk, filestore_contextWatch(beside.id(), &Watcher::ask, &watcher));
            const Inside inside(beside.id());
            const auto before = support::tree("beside");
            const Status status = row.change();
            isDone = watcher.asked <= allowed;
            if (isDone) {
                EXPECT_EQ(kOk, status);
            }
            if (allowed == 0) {
                EXPECT_EQ(kIo, status);
                for (const auto& [path, bytes] : before) {
                    EXPECT_EQ(bytes, support::tree("beside")[path]) << path;
                }
            }
        }
    }
}

TEST(ContextsTest, AContextIsWatchedWhileNobodyIsInside) {
    const TestStore store("secret");
    const Beside beside("beside");
    Watcher watcher;
    EXPECT_EQ(kEnd, filestore_contextWatch(0xFFFFFFFF, &Watcher::ask, &watcher));
    {
        const Inside inside(beside.id());
        Inside::prepareAndOpen("");
        EXPECT_EQ(kAlreadyOpen, filestore_contextWatch(beside.id(), &Watcher::ask, &watcher));
        EXPECT_EQ(kOk, TestStore::save("a", kSecret));
    }
    ASSERT_EQ(kOk, filestore_contextWatch(beside.id(), &Watcher::ask, &watcher));
    {
        const Inside inside(beside.id());
        EXPECT_EQ(kIo, TestStore::save("a", kSecret));
        EXPECT_EQ(kSecret, TestStore::load("a"));
    }
    EXPECT_LT(0, watcher.asked);
    const int asked = watcher.asked;
    ASSERT_EQ(kOk, filestore_contextWatch(beside.id(), nullptr, nullptr));
    const Inside inside(beside.id());
    EXPECT_EQ(kOk, TestStore::save("a", kSecret));
    EXPECT_EQ(asked, watcher.asked);
}

// The process's folder has nobody who could watch it.
TEST(ContextsTest, WhoWatchesAContextIsAskedForNoOther) {
    const TestStore store("secret");
    const Beside beside("beside");
    Watcher watcher;
    ASSERT_EQ(kOk, filestore_contextWatch(beside.id(), &Watcher::ask, &watcher));
    EXPECT_EQ(kOk, TestStore::save("a", kSecret));
    EXPECT_EQ(0, watcher.asked);
}

TEST(ContextsTest, NoMemoryMakesNone) {
    TestStore store("secret");
    const os::File folder = os::openFile(".", O_RDONLY | O_DIRECTORY);
    for (long n = 1;; ++n) {
        unsigned int id = 0;
        Status status = kOk;
        fault::FailingAllocation failing(n);
        status = filestore_contextMake(folder.get(), &id);
        if (!failing.lift()) {
            EXPECT_EQ(kOk, status);
            EXPECT_EQ(kOk, filestore_contextDelete(id));
            break;
        }
        EXPECT_EQ(kNoMemory, status);
        EXPECT_EQ(0U, id);
    }
}

}  // namespace
