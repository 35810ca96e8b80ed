// Whichever allocation fails, a record is wholly its old or wholly its new one, on the
// disk and in memory, and the status says which. Nothing is thrown and nothing leaks.
#include <pthread.h>

#include <filesystem>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "format/dsc_text.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "store/rw_locker.h"
#include "tests/fault/record_workloads.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/fs_fault.h"
#include "tests/support/test_store.h"

namespace {

using fault::FailingAllocation;
using fault::openHandles;
using testing::IsEmpty;

constexpr FailingAllocation::Mode kModes[] = {FailingAllocation::Mode::kOnce,
                                              FailingAllocation::Mode::kFromThenOn};

std::string tell(long nth, FailingAllocation::Mode mode) {
    return "allocation " + std::to_string(nth) +
           (mode == FailingAllocation::Mode::kOnce ? " fails" : " and all after it fail");
}

// A store whose host keeps nothing for itself, so that leaks can be counted.
class MemoryStore : public TestStore {
public:
    MemoryStore() { host().giveNoGuards(); }
};

class RecordMemoryTest : public testing::TestWithParam<Workload> {
protected:
    const Workload& workload = GetParam();
    MemoryStore store;
    const FolderImage image{workload};
};

TEST_P(RecordMemoryTest, EveryFailingAllocationLeavesTheOldRecordOrTheNewOne) {
    const Status failed = workload.after ? kIo : kNoMemory;  // write knows one failure only
    int failures = 0;
    for (const auto mode : kModes) {
        for (long nth = 1;; ++nth) {
            SCOPED_TRACE(tell(nth, mode));
            image.place();
            aFileStore record = recordOf(workload);
            const Contents inMemory = contentsOf(record);

            FailingAllocation fault(nth, mode);
            const Status status = workload.operation(record);
            const bool struck = fault.lift();

            EXPECT_TRUE(status == kOk || status == failed) << status;
            EXPECT_EQ(status == kOk ? workload.after : workload.before, found(workload));
            EXPECT_EQ(inMemory, contentsOf(record));
            EXPECT_THAT(openHandles(), IsEmpty());
            if (status == kOk && !workload.after) {
                EXPECT_THAT(TestStore::files(), IsEmpty()) << "what is removed leaves no bytes";
            }
            if (status != kOk) {
                EXPECT_EQ(kOk, workload.operation(record));
                EXPECT_EQ(workload.after, found(workload));
            }
            if (!struck || HasFailure()) {
                break;
            }
            ++failures;
        }
    }
    EXPECT_GT(failures, 10);
    RecordProperty("allocations_failed", failures);
}

TEST_P(RecordMemoryTest, NothingLeaks) {
    const auto round = [&](long nth, FailingAllocation::Mode mode) {
        image.place();
        aFileStore record = recordOf(workload);
        FailingAllocation fault(nth, mode);
        (void)workload.operation(record);
        return fault.lift();
    };
    (void)round(1000000, FailingAllocation::Mode::kOnce);  // what is made once is made now
    for (const auto mode : kModes) {
        for (long nth = 1;; ++nth) {
            store.host().forgetCalls();
            const long before = fault::liveAllocations();
            const bool struck = round(nth, mode);
            store.host().forgetCalls();
            const long after = fault::liveAllocations();
            ASSERT_EQ(before, after) << tell(nth, mode);
            if (!struck) {
                break;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, RecordMemoryTest, testing::ValuesIn(recordWorkloads()),
                         [](const auto& param) { return param.param.name; });

// Operations of one record in memory.
struct Change {
    const char* name;
    std::function<Status(aFileStore&)> operation;
    Status otherFailure = kNoMemory;
};

const std::string kLong(1000, 'x');
const std::string kLongFile = kLong + ".dsc";

const Change kChanges[] = {
    {"setFolderName", [](aFileStore& r) { return r.setFolderName(kLong.c_str()); }},
    {"setName", [](aFileStore& r) { return r.setName(kLong.c_str()); }},
    {"setFileName", [](aFileStore& r) { return r.setFileName(kLongFile.c_str()); }},
    {"setBody", [](aFileStore& r) { return r.setBody(dataOf(kLong), sizeOf(kLong)); }},
    {"addAttr",
     [](aFileStore& r) { return r.addAttr(kTypeBinary, 9, dataOf(kLong), sizeOf(kLong)); }},
    {"setAttr of a new one",
     [](aFileStore& r) { return r.setAttr(kTypeBinary, 9, dataOf(kLong), sizeOf(kLong)); }},
    {"setAttr of an old one",
     [](aFileStore& r) { return r.setAttr(kTypeText, 1, dataOf(kLong), sizeOf(kLong)); }},
    {"decrypt", [](aFileStore& r) { return r.decrypt(); }, kIo},  // without a buffer
};

std::string wholeOf(const aFileStore& record) {
    std::ostringstream all;
    all << record.getFolderName() << ' ' << record.getName() << ' ' << record.getFileName() << ' '
        << contentsOf(record);
    return all.str();
}

TEST(RecordChangeMemoryTest, FailedChangeChangesNothing) {
    const MemoryStore store;
    ASSERT_EQ(kOk, TestStore::save("a", {{{kTypeText, 1, "x", false}}, "body", true}));
    for (const Change& change : kChanges) {
        SCOPED_TRACE(change.name);
        for (const auto mode : kModes) {
            for (long nth = 1;; ++nth) {
                SCOPED_TRACE(tell(nth, mode));
                aFileStore record = TestStore::record("a");
                ASSERT_EQ(kOk, record.read());
                const std::string before = wholeOf(record);
                FailingAllocation fault(nth, mode);
                const Status status = change.operation(record);
                const bool struck = fault.lift();
                EXPECT_EQ(struck, status != kOk);
                EXPECT_TRUE(!struck || status == kNoMemory || status == change.otherFailure)
                    << status;
                EXPECT_EQ(struck, before == wholeOf(record));
                EXPECT_EQ(kOk, change.operation(record));
                EXPECT_NE(before, wholeOf(record));
                if (!struck || HasFailure()) {
                    break;
                }
            }
        }
    }
}

// Reading drops what the record had, and fails without a trace on the disk.
TEST(ReadMemoryTest, FailedReadCanBeRepeated) {
    const MemoryStore store;
    const Contents contents{
        {{kTypeText, 1, kLong, false}, {kTypeBinary, 2, "secret", true}}, kLong, true};
    ASSERT_EQ(kOk, TestStore::save("a", contents));
    for (const auto mode : kModes) {
        for (long nth = 1;; ++nth) {
            SCOPED_TRACE(tell(nth, mode));
            aFileStore record = TestStore::record("a");
            FailingAllocation fault(nth, mode);
            const Status status = record.read();
            const bool struck = fault.lift();
            if (struck) {
                EXPECT_TRUE(status == kNoMemory || status == kIo) << status;  // kIo: of the body
                EXPECT_EQ(kOk, record.read());
            }
            EXPECT_EQ(kOk, record.decrypt());
            EXPECT_EQ(contents, contentsOf(record));
            EXPECT_THAT(openHandles(), IsEmpty());
            if (!struck || HasFailure()) {
                break;
            }
        }
    }
}

TEST(ReadMemoryTest, WhatIsNotKnownIsNotAbsent) {
    const MemoryStore store;
    const std::string name = "too long for a string without memory";
    ASSERT_EQ(kOk, TestStore::save(name, {}));
    aFileStore record = TestStore::record(name);
    FailingAllocation fault(1, FailingAllocation::Mode::kFromThenOn);
    const int exists = record.isExist();
    EXPECT_TRUE(fault.lift());
    EXPECT_EQ(1, exists);
}

// A new handle throws or is without object; a scan throws. Either gives back all it
// had taken, the lock above all.
TEST(FactoryMemoryTest, NewHandlesLeaveNothingBehind) {
    MemoryStore store;
    const std::function<void()> factories[] = {
        [] { const aFileStore record; },
        [] { const aFileStoreList list; },
        [] { const aCryptoEncoder encoder; },
        [] { const aCryptoDecoder decoder = CMN_FILESTORE_S.getDecoder(); },
    };
    for (const auto& make : factories) {
        make();
        for (const auto mode : kModes) {
            for (long nth = 1;; ++nth) {
                store.host().forgetCalls();
                const long before = fault::liveAllocations();
                FailingAllocation fault(nth, mode);
                try {
                    make();
                } catch (const std::bad_alloc&) {
                    (void)fault.lift();  // as told
                }
                const bool struck = fault.lift();
                store.host().forgetCalls();
                const long after = fault::liveAllocations();
                ASSERT_EQ(before, after) << tell(nth, mode);
                ASSERT_GT(FileStoreSrvC.uses(), 0) << "those of the service's own ciphers";
                if (!struck) {
                    break;
                }
            }
        }
    }
}

TEST(ScanMemoryTest, FailedScanGivesTheLockBack) {
    MemoryStore store;
    // Names that no string keeps without memory.
    const std::string folder = "./db/keys/" + std::string(40, 'f');
    std::filesystem::create_directory(folder);
    for (const char* const name : {"a", "b", "c"}) {
        support::writeFile(folder + "/" + name + std::string(40, 'n') + ".dsc", "");
    }
    aFileStoreList list;
    ASSERT_EQ(kOk, list.readFromFolder(folder.c_str()));
    for (const auto mode : kModes) {
        for (long nth = 1;; ++nth) {
            SCOPED_TRACE(tell(nth, mode));
            FailingAllocation fault(nth, mode);
            Status status = kOk;
            try {
                status = list.readFromFolder(folder.c_str());
            } catch (const std::bad_alloc&) {
                status = kNoMemory;
            }
            const bool struck = fault.lift();
            EXPECT_EQ(struck, status != kOk) << status;
            ASSERT_EQ(0, pthread_rwlock_trywrlock(&RWLocker::m_RWMutex));
            EXPECT_EQ(0, pthread_rwlock_unlock(&RWLocker::m_RWMutex));
            EXPECT_THAT(openHandles(), IsEmpty());
            ASSERT_EQ(kOk, list.readFromFolder(folder.c_str()));
            int records = 0;
            for (aFileStore r = list.getFirst(); r.target() != nullptr; r = list.getNext()) {
                ++records;
            }
            EXPECT_EQ(3, records);
            if (!struck || HasFailure()) {
                break;
            }
        }
    }
}

}  // namespace
