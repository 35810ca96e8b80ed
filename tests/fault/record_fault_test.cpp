// Whichever file-system call fails, in whatever way, a record is wholly its old or
// wholly its new one, and the status says which.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "store/file_store.h"
#include "store/record_disk.h"
#include "tests/fault/record_workloads.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_store.h"

namespace {

using fault::Call;
using fault::errnosOf;
using fault::Event;
using fault::FailingCall;
using fault::Mode;
using fault::openHandles;
using fault::Recorder;
using fault::ShortCall;
using testing::IsEmpty;

// The calls that an operation makes when nothing goes wrong.
std::vector<Call> callsOf(const std::function<void()>& operation) {
    const Recorder recorder;
    operation();
    std::vector<Call> calls;
    for (const Event& event : recorder.events()) {
        calls.push_back(event.call);
    }
    return calls;
}

std::string tell(std::size_t nth, Call call, int error, Mode mode) {
    return std::string("call ") + std::to_string(nth) + ", " + fault::nameOf(call) + ", fails " +
           (mode == Mode::kOnce ? "once with errno " : "from then on with errno ") +
           std::to_string(error);
}

class RecordFaultTest : public testing::TestWithParam<Workload> {
protected:
    const Workload& workload = GetParam();
    TestStore store;
    const FolderImage image{workload};
};

// A failure that lasts also keeps the store from putting names back. Then, and only
// then, may a write or removal that was refused have been done all the same.
bool namesCouldNotBePutBack(const Recorder& recorder) {
    for (const Event& event : recorder.events()) {
        if (event.struck && (event.call == Call::kRename || event.call == Call::kRemove)) {
            return true;
        }
    }
    return false;
}

TEST_P(RecordFaultTest, EveryFailingCallLeavesTheOldRecordOrTheNewOne) {
    image.place();
    const std::vector<Call> calls = callsOf([&] {
        aFileStore record = recordOf(workload);
        ASSERT_EQ(kOk, workload.operation(record));
    });
    ASSERT_EQ(workload.after, found(workload));

    int failures = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        for (const int error : errnosOf(calls[i])) {
            for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
                SCOPED_TRACE(tell(i + 1, calls[i], error, mode));
                image.place();
                aFileStore record = recordOf(workload);

                const Recorder recorder;
                FailingCall fault(static_cast<int>(i) + 1, error, mode);
                const Status status = workload.operation(record);
                ASSERT_TRUE(fault.lift());
                ++failures;

                EXPECT_THAT(openHandles(), IsEmpty());
                EXPECT_TRUE(status == kOk || status == kIo) << status;
                const std::optional<Contents> now = found(workload);
                if (status == kOk || now != workload.before) {
                    EXPECT_EQ(workload.after, now);
                }
                if (status != kOk && mode == Mode::kOnce) {
                    EXPECT_EQ(workload.before, now);
                    EXPECT_NE(EINTR, error) << "interrupted calls are continued";
                } else if (status != kOk && now != workload.before) {
                    EXPECT_TRUE(namesCouldNotBePutBack(recorder));
                }

                // The same object, now that the fault is gone. What is gone cannot be
                // removed again, and a record without a name would get another.
                if (now == workload.before || (workload.after && !workload.record.empty())) {
                    EXPECT_EQ(kOk, workload.operation(record));
                }
                EXPECT_EQ(workload.after, found(workload));
                if (HasFailure()) {
                    return;
                }
            }
        }
    }
    RecordProperty("calls_failed", failures);
}

// Calls that move less than they were asked for are continued; such that move
// nothing are failures.
TEST_P(RecordFaultTest, ShortCallsChangeNothing) {
    for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE(nth);
            image.place();
            aFileStore record = recordOf(workload);
            ShortCall fault(nth, mode, 1);
            const Status status = workload.operation(record);
            const bool hit = fault.lift();
            EXPECT_EQ(kOk, status);
            EXPECT_EQ(workload.after, found(workload));
            if (!hit || HasFailure()) {
                break;
            }
        }
    }
}

TEST_P(RecordFaultTest, CallsThatMoveNothingAreFailures) {
    for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE(nth);
            image.place();
            aFileStore record = recordOf(workload);
            ShortCall fault(nth, mode, 0);
            const Status status = workload.operation(record);
            const bool hit = fault.lift();
            EXPECT_THAT(openHandles(), IsEmpty());
            EXPECT_EQ(status == kOk ? workload.after : workload.before, found(workload));
            if (!hit || HasFailure()) {
                break;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, RecordFaultTest, testing::ValuesIn(recordWorkloads()),
                         [](const auto& param) { return param.param.name; });

// Failures of which more is promised.

class DurableCloseTest : public testing::Test {
protected:
    TestStore store;
    CMN_GRefPtr<FileStore> held{new FileStore};
    FileStore& record = *held.get();
    FailingCall fault{1, EIO, Mode::kFromThenOn, {Call::kFsync}};
};

TEST_F(DurableCloseTest, FailedOneLeavesTheFile) {
    ASSERT_EQ(kOk, record.setBody(dataOf("body"), 4));
    EXPECT_EQ(kIo, record.writeBody("./body"));
    EXPECT_EQ("body", support::readFile("./body"));
    EXPECT_EQ(kIo, record.writeDSC("./a.dsc", "body"));
    EXPECT_EQ("10000003 00000000 body\n", support::readFile("./a.dsc"));
    EXPECT_THAT(openHandles(), IsEmpty());
}

TEST_F(DurableCloseTest, OfTheNewDescriptorLeavesItWhereNobodyReadsIt) {
    ASSERT_EQ(kOk, record.setFolderName(TestStore::kFolder));
    ASSERT_EQ(kOk, record.setName("a"));
    EXPECT_EQ(kIo, record.write());
    EXPECT_THAT(TestStore::files(), testing::ElementsAre(testing::Pair("a.dsc.$n$", "")));
    EXPECT_EQ(0, record.isExist());
}

TEST_F(DurableCloseTest, OfTheNewBodyLeavesNothing) {
    ASSERT_EQ(kOk, record.setFolderName(TestStore::kFolder));
    ASSERT_EQ(kOk, record.setName("a"));
    ASSERT_EQ(kOk, record.setBody(dataOf("body"), 4));
    EXPECT_EQ(kIo, record.write());
    EXPECT_THAT(TestStore::files(), IsEmpty());
}

// A file system without a way to sync its folders fails no write, removal or repair.
TEST(FolderSyncTest, FailsWhatItFailsAtUnlessItIsUnknown) {
    const struct {
        int error;
        bool cannot;
    } rows[] = {{EINVAL, true}, {EBADF, true},  {ENOTSUP, true},
                {EIO, false},   {EROFS, false}, {ENOSPC, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(strerrorname_np(row.error));
        const TestStore store;
        aFileStore record = TestStore::record("a");
        const Status expected = row.cannot ? kOk : kIo;
        {
            // The first sync is that of the descriptor.
            FailingCall fault(2, row.error, Mode::kFromThenOn, {Call::kFsync});
            EXPECT_EQ(expected, record.write());
            EXPECT_TRUE(fault.lift());
            EXPECT_EQ(row.cannot ? 1 : 0, record.isExist());
        }
        ASSERT_EQ(kOk, record.write());
        {
            FailingCall fault(1, row.error, Mode::kFromThenOn, {Call::kFsync});
            EXPECT_EQ(expected, record.remove());
            EXPECT_TRUE(fault.lift());
            EXPECT_EQ(row.cannot ? 0 : 1, record.isExist());
        }
        support::writeFile(store.path("b.dsc.$o$"), "");
        FailingCall fault(1, row.error, Mode::kFromThenOn, {Call::kFsync});
        EXPECT_EQ(expected, tryCorrectName(TestStore::kFolder, "b.dsc"));
        EXPECT_TRUE(fault.lift());
    }
}

// A file has bytes to lose: that it cannot be synced is a failure whatever the reason.
TEST(FileSyncTest, FailsTheWriteForAnyReason) {
    for (const int error : {EINVAL, EBADF, ENOTSUP, EIO}) {
        SCOPED_TRACE(strerrorname_np(error));
        const TestStore store;
        FailingCall fault(1, error, Mode::kOnce, {Call::kFsync});
        EXPECT_EQ(kIo, TestStore::record("a").write());
        EXPECT_TRUE(fault.lift());
    }
}

// Another reader was faster: what is to be renamed or deleted is gone.
TEST(RepairRaceTest, NameThatIsGoneWasRepaired) {
    const TestStore store;
    const std::string descriptor = store.path("a.dsc");
    support::writeFile(descriptor + ".$o$", "saved");
    {
        FailingCall fault(1, ENOENT, Mode::kOnce, {Call::kRename});
        EXPECT_EQ(kOk, tryCorrectName(TestStore::kFolder, "a.dsc"));
        EXPECT_TRUE(fault.lift());
    }
    support::writeFile(descriptor, "new");
    FailingCall fault(1, ENOENT, Mode::kOnce, {Call::kRemove});
    EXPECT_EQ(kOk, tryCorrectName(TestStore::kFolder, "a.dsc"));
    EXPECT_TRUE(fault.lift());
}

// Readers.

class ReaderFaultTest : public testing::TestWithParam<Workload> {
protected:
    // Calls `step` with every failing call of `operation` planned, which it has to run.
    void forEachFailure(const std::function<void()>& operation,
                        const std::function<void(FailingCall&, bool interrupted)>& step) {
        image.place();
        const std::vector<Call> calls = callsOf(operation);
        for (std::size_t i = 0; i < calls.size(); ++i) {
            for (const int error : errnosOf(calls[i])) {
                for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
                    SCOPED_TRACE(tell(i + 1, calls[i], error, mode));
                    image.place();
                    FailingCall fault(static_cast<int>(i) + 1, error, mode);
                    step(fault, error == EINTR && mode == Mode::kOnce);
                    EXPECT_THAT(openHandles(), IsEmpty());
                    EXPECT_EQ(workload.before, found(workload));
                    if (HasFailure()) {
                        return;
                    }
                }
            }
        }
    }

    const Workload& workload = GetParam();
    TestStore store;
    const FolderImage image{workload};
};

// A read that answers kOk has the whole record; one that fails has left it where it
// was, and succeeds when the fault is gone.
TEST_P(ReaderFaultTest, ReadGivesTheRecordOrFails) {
    aFileStore record = TestStore::record("a");
    forEachFailure([&] { (void)record.read(); },
                   [&](FailingCall& fault, bool interrupted) {
                       const Status status = record.read();
                       ASSERT_TRUE(fault.lift());
                       EXPECT_TRUE(status == kOk || status == kMissing || status == kMalformed ||
                                   status == kIo)
                           << status;
                       if (status != kOk) {
                           EXPECT_FALSE(interrupted) << "interrupted calls are continued";
                           EXPECT_EQ(kOk, record.read());
                       }
                       EXPECT_EQ(kOk, record.decrypt());
                       EXPECT_EQ(workload.before, contentsOf(record));
                   });
}

// A scan never takes a folder for shorter than it is.
TEST_P(ReaderFaultTest, ScanListsAllOrFails) {
    aFileStore other = TestStore::record("other");
    aFileStoreList list;
    const auto names = [&] {
        std::vector<std::string> all;
        for (aFileStore record = list.getFirst(); record.target() != nullptr;
             record = list.getNext()) {
            all.emplace_back(record.getFileName());
        }
        return all;
    };
    forEachFailure([&] { (void)list.readFromFolder(TestStore::kFolder); },
                   [&](FailingCall& fault, bool interrupted) {
                       while (list.isEmpty() == 0) {
                           (void)list.getFirst();
                           list.removeCurrent();
                       }
                       list.pushBack(other);
                       const Status status = list.readFromFolder(TestStore::kFolder);
                       ASSERT_TRUE(fault.lift());
                       if (status == kOk) {
                           EXPECT_THAT(names(), testing::ElementsAre("a.dsc"));
                           return;
                       }
                       EXPECT_EQ(kIo, status);
                       EXPECT_FALSE(interrupted) << "interrupted calls are continued";
                       EXPECT_THAT(names(), testing::ElementsAre("other.dsc"));
                       EXPECT_EQ(kOk, list.readFromFolder(TestStore::kFolder));
                       EXPECT_THAT(names(), testing::ElementsAre("a.dsc"));
                   });
}

// A record that cannot be looked for is not taken for absent.
TEST_P(ReaderFaultTest, IsExistTakesNothingUnknownForAbsent) {
    aFileStore record = TestStore::record("a");
    forEachFailure([&] { (void)record.isExist(); },
                   [&](FailingCall& fault, bool /*interrupted*/) {
                       EXPECT_EQ(1, record.isExist());
                       ASSERT_TRUE(fault.lift());
                   });
}

// What of the workloads is there to be read.
std::vector<Workload> readable() {
    std::vector<Workload> all;
    for (const Workload& workload : recordWorkloads()) {
        if (workload.before && workload.after) {
            all.push_back(workload);
        }
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(, ReaderFaultTest, testing::ValuesIn(readable()),
                         [](const auto& param) { return param.param.name; });

}  // namespace
