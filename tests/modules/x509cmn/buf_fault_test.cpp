// Whatever fails, a buffer and a file are what they were, or what they were to become.
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "modules/x509cmn/buf.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace {

using fault::Call;
using fault::FailingAllocation;
using fault::FailingCall;
using fault::Mode;
using fault::ShortCall;
using support::readFile;
using support::TempDir;
using support::writeFile;

std::string textOf(Buf& buf) {
    return {buf.data(), buf.data() + buf.length()};
}

std::unique_ptr<Buf> bufOf(const std::string& text) {
    auto made = std::make_unique<Buf>();
    EXPECT_EQ(kOk, made->set(text.c_str()));
    return made;
}

TEST(BufFaultTest, FailingCallLeavesOldOrNewFile) {
    const auto buf = bufOf("new");
    for (const Call call : {Call::kOpen, Call::kWrite, Call::kFsync, Call::kClose, Call::kRename}) {
        for (const int error : fault::errnosOf(call)) {
            for (const Mode mode : {Mode::kOnce, Mode::kFromThenOn}) {
                for (int nth = 1;; ++nth) {
                    SCOPED_TRACE(std::string(fault::nameOf(call)) + " " + std::to_string(nth) +
                                 " fails with " + std::to_string(error));
                    const TempDir dir;
                    writeFile(dir / "file", "old");
                    FailingCall failing(nth, error, mode, {call});
                    const Status status = buf->save((dir / "file").c_str());
                    const bool hit = failing.lift();

                    const std::string found = readFile(dir / "file");
                    EXPECT_TRUE(found == "new" || (status == kIo && found == "old")) << found;
                    EXPECT_TRUE(status == kOk || (status == kIo && hit)) << status;
                    EXPECT_EQ(1U, support::tree(dir.path()).size());
                    EXPECT_TRUE(fault::openHandles().empty());
                    if (!hit) {
                        break;  // every call has had its turn
                    }
                }
            }
        }
    }
}

TEST(BufFaultTest, TakenNameIsLeftAloneAndAnotherOneTried) {
    const TempDir dir;
    {
        FailingCall taken(1, EEXIST, Mode::kOnce, {Call::kOpen});
        EXPECT_EQ(kOk, bufOf("new")->save((dir / "file").c_str()));
        EXPECT_TRUE(taken.lift());
    }
    EXPECT_EQ("new", readFile(dir / "file"));
    const fault::Recorder removals({Call::kRemove});
    FailingCall taken(1, EEXIST, Mode::kFromThenOn, {Call::kOpen});
    EXPECT_EQ(kIo, bufOf("newer")->save((dir / "file").c_str()));
    EXPECT_TRUE(taken.lift());
    EXPECT_EQ("new", readFile(dir / "file"));
    EXPECT_TRUE(removals.events().empty());
}

TEST(BufFaultTest, SaveIsDurableBeforeAndAfterItsName) {
    const TempDir dir;
    const fault::Recorder recorder(fault::kLastingCalls);
    ASSERT_EQ(kOk, bufOf("text")->save((dir / "file").c_str()));
    std::vector<Call> calls;
    for (const fault::Event& event : recorder.events()) {
        if (event.error == 0) {  // the search for leftovers finds none
            calls.push_back(event.call);
        }
    }
    EXPECT_EQ((std::vector{Call::kOpen, Call::kOpen, Call::kWrite, Call::kFsync, Call::kClose,
                           Call::kRename, Call::kOpen, Call::kFsync, Call::kClose, Call::kClose}),
              calls);
}

TEST(BufFaultTest, FailingCallLeavesLoadingBuffer) {
    const TempDir dir;
    writeFile(dir / "file", "new");
    for (const Call call : {Call::kOpen, Call::kFstat, Call::kRead}) {
        for (const int error : fault::errnosOf(call)) {
            for (int nth = 1;; ++nth) {
                SCOPED_TRACE(std::string(fault::nameOf(call)) + " " + std::to_string(nth));
                const auto buf = bufOf("old");
                FailingCall failing(nth, error, Mode::kOnce, {call});
                const Status status = buf->load((dir / "file").c_str());
                const bool hit = failing.lift();
                EXPECT_EQ(status == kOk ? "new" : "old", textOf(*buf));
                if (status != kOk) {
                    EXPECT_TRUE(hit);
                    EXPECT_EQ(call == Call::kRead ? kIo : kMissing, status);
                }
                EXPECT_TRUE(fault::openHandles().empty());
                if (!hit) {
                    break;
                }
            }
        }
    }
}

TEST(BufFaultTest, ShortTransfersAreContinued) {
    const TempDir dir;
    {
        ShortCall writes(1, Mode::kFromThenOn, 3);
        ASSERT_EQ(kOk, bufOf("a text of some length")->save((dir / "file").c_str()));
        EXPECT_TRUE(writes.lift());
    }
    ShortCall reads(1, Mode::kFromThenOn, 3);
    Buf buf;
    ASSERT_EQ(kOk, buf.load((dir / "file").c_str()));
    EXPECT_TRUE(reads.lift());
    EXPECT_EQ("a text of some length", textOf(buf));
}

TEST(BufFaultTest, FileThatEndsEarlyIsNotLoaded) {
    const TempDir dir;
    writeFile(dir / "file", "text");
    const auto buf = bufOf("old");
    const ShortCall ended(1, Mode::kOnce, 0, {Call::kRead});
    EXPECT_EQ(kIo, buf->load((dir / "file").c_str()));
    EXPECT_EQ("old", textOf(*buf));
}

TEST(BufFaultTest, OutOfMemoryIsAStatusAndChangesNothing) {
    const TempDir dir;
    const std::string path = dir / "file";
    const std::string large(1000, 'x');
    const auto other = bufOf(large);
    const struct {
        const char* name;
        std::function<Status(Buf&)> call;
    } rows[] = {
        {"set text", [&](Buf& buf) { return buf.set(large.c_str()); }},
        {"append bytes", [&](Buf& buf) { return buf.append(other->data(), other->length()); }},
        {"append buffer", [&](Buf& buf) { return buf.append(other.get()); }},
        {"duplicate", [&](Buf& buf) { return buf.duplicate(other.get()); }},
        {"load", [&](Buf& buf) { return buf.load(path.c_str()); }},
        {"save", [&](Buf& buf) { return buf.save(path.c_str()); }},
    };
    writeFile(path, "file");
    for (const auto& row : rows) {
        int failures = 0;
        for (const auto mode :
             {FailingAllocation::Mode::kOnce, FailingAllocation::Mode::kFromThenOn}) {
            for (long nth = 1;; ++nth) {
                SCOPED_TRACE(std::string(row.name) + ", allocation " + std::to_string(nth));
                const auto buf = bufOf("kept");
                FailingAllocation failing(nth, mode);
                const Status status = row.call(*buf);
                const bool hit = failing.lift();
                if (status == kNoMemory) {
                    EXPECT_TRUE(hit);
                    EXPECT_EQ("kept", textOf(*buf));
                    EXPECT_EQ("file", readFile(path));
                    ++failures;
                } else {
                    EXPECT_EQ(kOk, status);  // a block without room to spare was to be had
                }
                EXPECT_EQ(1U, support::tree(dir.path()).size());
                writeFile(path, "file");
                if (!hit) {
                    break;
                }
            }
        }
        EXPECT_LT(0, failures) << row.name;
    }
}

}  // namespace
