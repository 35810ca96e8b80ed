// Lists of records, and the scan of a folder with its repairs.
#include "store/file_store_list.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "format/dsc_text.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "store/rw_locker.h"
#include "tests/support/fs_fault.h"
#include "tests/support/test_store.h"

namespace {

namespace fs = std::filesystem;

using fault::Call;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

aFileStore noRecord() {
    return aFileStore(static_cast<TFileStore*>(nullptr));
}

class FileStoreListTest : public testing::Test {
protected:
    // The file names of the list's records, by a walk.
    std::vector<std::string> names() {
        std::vector<std::string> all;
        for (aFileStore record = list.getFirst(); record.target() != nullptr;
             record = list.getNext()) {
            all.emplace_back(record.getFileName() == nullptr ? "(none)" : record.getFileName());
        }
        return all;
    }

    void push(const char* name) {
        aFileStore record = TestStore::record(name);
        ASSERT_EQ(kOk, list.pushBack(record));
    }

    Status scan() { return list.readFromFolder(TestStore::kFolder); }

    TestStore store;
    CMN_GRefPtr<FileStoreList> held{new FileStoreList};
    FileStoreList& list = *held.get();
};

TEST_F(FileStoreListTest, StartsEmptyWithTheCursorAtItsEnd) {
    EXPECT_EQ(kOk, list.init());
    EXPECT_EQ(kOk, list.fini());
    EXPECT_EQ(1U, list.isEmpty());
    EXPECT_EQ(1U, list.isTail());
    EXPECT_EQ(nullptr, list.getFirst().target());
    EXPECT_EQ(nullptr, list.getNext().target());
}

TEST_F(FileStoreListTest, WalksFromTheFirstToTheEndAndStaysThere) {
    push("a");
    push("b");
    EXPECT_EQ(1U, list.isTail()) << "pushing moves no cursor";
    EXPECT_STREQ("a", list.getFirst().getName());
    EXPECT_EQ(0U, list.isTail());
    EXPECT_STREQ("b", list.getNext().getName());
    EXPECT_EQ(0U, list.isTail());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(nullptr, list.getNext().target());
        EXPECT_EQ(1U, list.isTail());
    }
    EXPECT_STREQ("a", list.getFirst().getName());
}

TEST_F(FileStoreListTest, PushesAtEitherEndAndSharesTheRecord) {
    aFileStore record = TestStore::record("b");
    EXPECT_EQ(kOk, list.pushBack(record));
    push("c");
    aFileStore front = TestStore::record("a");
    EXPECT_EQ(kOk, list.pushFront(front));
    EXPECT_THAT(names(), ElementsAre("a.dsc", "b.dsc", "c.dsc"));
    ASSERT_EQ(kOk, record.setName("renamed"));
    EXPECT_THAT(names(), ElementsAre("a.dsc", "renamed.dsc", "c.dsc"));
    EXPECT_EQ(record.getUniqueID(), (list.getFirst(), list.getNext().getUniqueID()));
}

TEST_F(FileStoreListTest, TakesHandlesWithoutRecordAsWell) {
    aFileStore none = noRecord();
    EXPECT_EQ(kOk, list.pushFront(none));
    EXPECT_EQ(kOk, list.pushBack(none));
    EXPECT_EQ(0U, list.isEmpty());
    EXPECT_EQ(nullptr, list.getFirst().target());
    EXPECT_EQ(0U, list.isTail());
}

TEST_F(FileStoreListTest, KeepsItsRecordsAlive) {
    push("a");  // whose handle is gone
    aFileStore kept = list.getFirst();
    EXPECT_EQ(kOk, list.removeCurrent());
    EXPECT_STREQ("a", kept.getName());
}

TEST_F(FileStoreListTest, ErasedUnderTheCursorTheNextOneIsCurrent) {
    for (const char* const name : {"a", "b", "c"}) {
        push(name);
    }
    (void)list.getFirst();
    (void)list.getNext();
    EXPECT_EQ(kOk, list.removeCurrent());
    EXPECT_EQ(0U, list.isTail());
    EXPECT_EQ(nullptr, list.getNext().target()) << "behind c, which was current";
    EXPECT_THAT(names(), ElementsAre("a.dsc", "c.dsc"));
    EXPECT_EQ(kOk, list.removeCurrent()) << "at the end there is nothing to erase";
    EXPECT_THAT(names(), ElementsAre("a.dsc", "c.dsc"));
    while (list.isEmpty() == 0) {
        (void)list.getFirst();
        EXPECT_EQ(kOk, list.removeCurrent());
    }
    EXPECT_EQ(1U, list.isTail());
    EXPECT_EQ(kOk, list.removeCurrent());
}

TEST_F(FileStoreListTest, RemovesTheFirstElementOfARecord) {
    aFileStore record = TestStore::record("b");
    push("a");
    ASSERT_EQ(kOk, list.pushBack(record));
    push("c");
    ASSERT_EQ(kOk, list.pushBack(record));
    EXPECT_EQ(kOk, list.remove(record));
    EXPECT_THAT(names(), ElementsAre("a.dsc", "c.dsc", "b.dsc"));
    EXPECT_EQ(kOk, list.remove(record));
    EXPECT_EQ(kEnd, list.remove(record));
    EXPECT_THAT(names(), ElementsAre("a.dsc", "c.dsc"));
}

TEST_F(FileStoreListTest, RemovingUnderTheCursorKeepsItUsable) {
    push("a");
    push("b");
    aFileStore current = list.getFirst();
    EXPECT_EQ(kOk, list.remove(current));
    EXPECT_EQ(0U, list.isTail());
    EXPECT_EQ(nullptr, list.getNext().target());
    EXPECT_EQ(1U, list.isTail());
}

TEST_F(FileStoreListTest, RemoveTellsWhatItCannotFind) {
    aFileStore none = noRecord();
    aFileStore record = TestStore::record("a");
    EXPECT_EQ(kIo, list.remove(none));
    EXPECT_EQ(kEnd, list.remove(record)) << "empty list";
    ASSERT_EQ(kOk, list.pushBack(none));
    push("a");
    EXPECT_EQ(kIo, list.remove(none)) << "also when such an element is there";
    EXPECT_EQ(kEnd, list.remove(record)) << "another record of the same name";
}

// The scan.

TEST_F(FileStoreListTest, EmptyFolderGivesAnEmptyList) {
    push("before");
    EXPECT_EQ(kOk, scan());
    EXPECT_EQ(1U, list.isEmpty());
    EXPECT_EQ(1U, list.isTail());
    EXPECT_EQ(nullptr, list.getFirst().target());
}

TEST_F(FileStoreListTest, ListsDescriptorsOfRegularFilesOnly) {
    fs::create_directory(store.path("folder.dsc"));
    fs::create_symlink("real.dsc", store.path("link.dsc"));
    fs::create_symlink("nowhere", store.path("dangling.dsc"));
    ASSERT_EQ(0, mkfifo(store.path("fifo.dsc").c_str(), 0600));
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    store.path("socket.dsc").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ::close(socket);
    for (const char* const name :
         {"real.dsc", ".dsc", ".$o$", "x.dsc.bak", "0000002a", "new.dsc.$n$", "gone.dsc.$d$",
          "a.DSC", "dsc", "x.$o$x", "two words.dsc", ".hidden.dsc"}) {
        writeFile(store.path(name), "");
    }
    const auto before = TestStore::files();
    for (const bool typed : {true, false}) {
        SCOPED_TRACE(typed ? "types in the listing" : "types to be asked for");
        fault::UntypedEntries untyped;
        if (typed) {
            (void)untyped.lift();
        }
        EXPECT_EQ(kOk, scan());
        EXPECT_THAT(names(), UnorderedElementsAre("real.dsc", "two words.dsc", ".hidden.dsc"));
        EXPECT_EQ(before, TestStore::files()) << "nothing is deleted or renamed";
    }
}

TEST_F(FileStoreListTest, RecordsComeUnreadWithFolderAndName) {
    ASSERT_EQ(kOk, TestStore::save("a", {{{kTypeText, 1, "x", false}}, {}, false}));
    writeFile(store.path("damaged.dsc"), "damaged");
    ASSERT_EQ(kOk, scan());
    EXPECT_EQ(1U, list.isTail());
    EXPECT_THAT(names(), UnorderedElementsAre("a.dsc", "damaged.dsc"));
    for (aFileStore record = list.getFirst(); record.target() != nullptr; record = list.getNext()) {
        EXPECT_STREQ(TestStore::kFolder, record.getFolderName());
        EXPECT_EQ(0U, record.getAttrCount());
        EXPECT_EQ(record.getName() == std::string("a") ? kOk : kMalformed, record.read());
    }
}

TEST_F(FileStoreListTest, ScanReplacesTheContents) {
    writeFile(store.path("a.dsc"), "");
    ASSERT_EQ(kOk, scan());
    ASSERT_EQ(kOk, scan());
    EXPECT_THAT(names(), ElementsAre("a.dsc"));
    fs::rename(store.path("a.dsc"), store.path("b.dsc"));
    const aFileStore kept = list.getFirst();
    ASSERT_EQ(kOk, scan());
    EXPECT_THAT(names(), ElementsAre("b.dsc"));
    EXPECT_STREQ("a", kept.getName());
}

TEST_F(FileStoreListTest, KeepsTheFoldersOrderAndRestoredOnesBehind) {
    for (const char* const name : {"q.dsc", "a.dsc", "z.dsc", "m.dsc", "b.dsc.$o$", "y.dsc.$o$"}) {
        writeFile(store.path(name), "");
    }
    std::vector<std::string> inOrder;
    std::vector<std::string> restored;
    {
        const fault::Recorder recorder({Call::kReaddir});
        ASSERT_EQ(kOk, scan());
        for (const fault::Event& event : recorder.events()) {
            if (event.to.ends_with(".dsc")) {
                inOrder.push_back(event.to);
            } else if (event.to.ends_with(".$o$")) {
                restored.push_back(event.to.substr(0, event.to.size() - 4));
            }
        }
    }
    ASSERT_EQ(4U, inOrder.size());
    inOrder.insert(inOrder.end(), restored.begin(), restored.end());
    EXPECT_EQ(inOrder, names());
}

TEST_F(FileStoreListTest, PutsBackSavedDescriptorsThatStandAlone) {
    writeFile(store.path("a.dsc"), "new");
    writeFile(store.path("a.dsc.$o$"), "old");
    writeFile(store.path("b.dsc.$o$"), "only");
    writeFile(store.path("c.$o$"), "not a descriptor's");
    EXPECT_EQ(kOk, scan());
    EXPECT_THAT(names(), UnorderedElementsAre("a.dsc", "b.dsc", "c"));
    using Files = std::map<std::string, std::string>;
    EXPECT_EQ((Files{{"a.dsc", "new"},
                     {"a.dsc.$o$", "old"},
                     {"b.dsc", "only"},
                     {"c", "not a descriptor's"}}),
              TestStore::files());
}

TEST_F(FileStoreListTest, FailedScanLeavesListAndCursor) {
    push("a");
    push("b");
    (void)list.getFirst();
    writeFile("./file", "");
    EXPECT_EQ(kInvalid, list.readFromFolder(nullptr));
    EXPECT_EQ(kIo, list.readFromFolder("./none"));
    EXPECT_EQ(kIo, list.readFromFolder("./file"));
    EXPECT_EQ(kIo, list.readFromFolder(""));
    // A folder stands where the saved descriptor has to go.
    fs::create_directory(store.path("x.dsc"));
    writeFile(store.path("x.dsc.$o$"), "");
    EXPECT_EQ(kIo, scan());
    EXPECT_STREQ("b", list.getNext().getName());
    EXPECT_THAT(names(), ElementsAre("a.dsc", "b.dsc"));
}

// What cannot be examined may be a record; what is gone meanwhile is none.
TEST_F(FileStoreListTest, EntryThatCannotBeExaminedEndsTheScan) {
    writeFile(store.path("a.dsc"), "");
    push("before");
    const fault::UntypedEntries untyped;
    for (const int error : {EIO, EACCES, ENOMEM}) {
        fault::FailingCall fault(1, error, fault::Mode::kFromThenOn, {Call::kLstat});
        EXPECT_EQ(kIo, scan());
        EXPECT_TRUE(fault.lift());
    }
    EXPECT_THAT(names(), ElementsAre("before.dsc"));
    fault::FailingCall gone(1, ENOENT, fault::Mode::kFromThenOn, {Call::kLstat});
    EXPECT_EQ(kOk, scan());
    EXPECT_TRUE(gone.lift());
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileStoreListTest, WithoutServiceThereAreNoRecordsToList) {
    writeFile(store.path("a.dsc"), "");
    push("before");
    store.host().withdraw(TestStore::kModule);
    FileStoreSrvC = aFileStoreSrv(nullptr);
    EXPECT_EQ(kNoObject, scan()) << "what setting the folder of no record gives";
    EXPECT_EQ(1U, list.isEmpty());
    EXPECT_EQ(1U, list.isTail());
}

// The store-wide lock.

TEST_F(FileStoreListTest, ScanHoldsTheLockForWritingUnlessToldNotTo) {
    for (const auto& [lockType, waits] :
         {std::pair(0, true), {1, true}, {-2, true}, {RWLocker::kNoLock, false}}) {
        SCOPED_TRACE(lockType);
        EXPECT_EQ(kOk, list.setLockType(lockType));
        ASSERT_EQ(0, pthread_rwlock_rdlock(&RWLocker::m_RWMutex));
        std::atomic<bool> ended{false};
        std::thread other([&] {
            EXPECT_EQ(kOk, scan());
            ended = true;
        });
        for (int i = 0; i < 20 && !ended; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(!waits, ended);
        EXPECT_EQ(0, pthread_rwlock_unlock(&RWLocker::m_RWMutex));
        other.join();
    }
}

TEST_F(FileStoreListTest, FailedScanGivesTheLockBack) {
    EXPECT_EQ(kInvalid, list.readFromFolder(nullptr));
    EXPECT_EQ(kIo, list.readFromFolder("./none"));
    ASSERT_EQ(0, pthread_rwlock_trywrlock(&RWLocker::m_RWMutex));
    EXPECT_EQ(0, pthread_rwlock_unlock(&RWLocker::m_RWMutex));
}

// Ten times the records take about ten times the work of the processor, and no call
// but the listing's.
TEST_F(FileStoreListTest, ScanIsLinear) {
    constexpr int kMany = 100000;
    store.host().giveNoGuards();
    const int folder = ::open(TestStore::kFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int files = 0;
    const auto workOfScan = [&](int count) {
        for (; files < count; ++files) {
            const std::string name = std::to_string(files) + ".dsc";
            EXPECT_EQ(0, ::mknodat(folder, name.c_str(), S_IFREG | 0600, 0));
        }
        const long calls = fault::callCount();
        const std::clock_t start = std::clock();
        EXPECT_EQ(kOk, scan());
        const std::clock_t work = std::clock() - start;
        EXPECT_EQ(count + 5, fault::callCount() - calls) << "opened, two dots, the end, closed";
        return work;
    };
    const std::clock_t few = std::max(workOfScan(kMany / 10), workOfScan(kMany / 10));
    EXPECT_LT(workOfScan(kMany), 30 * few);
    ::close(folder);
}

}  // namespace
