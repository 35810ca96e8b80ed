#include "store/record_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/fs_fault.h"
#include "tests/support/temp_dir.h"

namespace {

using fault::Call;
using fault::Mode;

constexpr fault::Calls kReads{Call::kRead};

using Sizes = std::vector<std::size_t>;

class RecordFileTest : public testing::Test {
protected:
    static std::string bytes(std::size_t size) {
        std::string made(size, '\0');
        std::generate(made.begin(), made.end(), [n = 0]() mutable { return char(n++ % 251); });
        return made;
    }

    // The bytes of a file of this size as they were read, or the failure.
    std::string read(std::size_t size) {
        support::writeFile(path, bytes(size));
        RecordFile file;
        if (file.open(path.c_str(), kMalformed) != kOk) {
            return "not opened";
        }
        if (file.size() != static_cast<off_t>(size)) {
            return "size " + std::to_string(file.size());
        }
        std::string got(size, '\0');
        return file.copyTo(got.data()) ? got : "not read";
    }

    const support::TempDir folder;
    const std::string path = folder / "file";
};

TEST_F(RecordFileTest, GivesAllBytesWhateverTheirNumber) {
    for (const std::size_t size : Sizes{0, 1, 4095, 4096, 4097, 8191, 8192, 8193, 100000}) {
        EXPECT_EQ(bytes(size), read(size)) << size;
    }
}

TEST_F(RecordFileTest, HasAShortFileWholeWithRoomForOneByteMore) {
    for (const std::size_t size : Sizes{0, 1, 4095, 4096}) {
        support::writeFile(path, bytes(size));
        RecordFile file;
        ASSERT_EQ(kOk, file.open(path.c_str(), kMalformed));
        ASSERT_NE(nullptr, file.whole());
        EXPECT_EQ(bytes(size), std::string(file.whole(), size));
        file.whole()[size] = '\n';
    }
    support::writeFile(path, bytes(4097));
    RecordFile file;
    ASSERT_EQ(kOk, file.open(path.c_str(), kMalformed));
    EXPECT_EQ(nullptr, file.whole());
}

TEST_F(RecordFileTest, AsksWhatAFileIsOnlyWhereTheAnswerDoesNotTell) {
    const auto calls = [&](std::size_t size) {
        const fault::Recorder recorder({Call::kOpen, Call::kRead, Call::kFstat, Call::kClose});
        (void)read(size);
        return recorder.lines().size();
    };
    EXPECT_EQ(3U, calls(1));
    EXPECT_EQ(3U, calls(4095));
    EXPECT_EQ(4U, calls(4096));
    EXPECT_EQ(5U, calls(4097));
    EXPECT_EQ(4U, calls(0));
}

TEST_F(RecordFileTest, AnAnswerThatEndsWithAPageIsNotTheEnd) {
    for (int nth = 1; nth != 4; ++nth) {
        const fault::ShortCall fault(nth, Mode::kOnce, 4096, kReads);
        EXPECT_EQ(bytes(20000), read(20000)) << nth;
    }
    const fault::ShortCall fault(1, Mode::kFromThenOn, 4096, kReads);
    EXPECT_EQ(bytes(20000), read(20000));
}

TEST_F(RecordFileTest, TellsAFileThatCannotBeReadFromAnEmptyOne) {
    for (const std::size_t size : Sizes{1, 4095, 4096, 20000}) {
        const fault::FailingCall fault(1, EIO, Mode::kFromThenOn, kReads);
        EXPECT_EQ("not read", read(size)) << size;
    }
    const fault::FailingCall fault(2, EIO, Mode::kOnce, kReads);
    EXPECT_EQ("not read", read(20000));
}

TEST_F(RecordFileTest, AFileThatEndsEarlierThanItsSizeIsNotWhole) {
    const fault::ShortCall fault(2, Mode::kFromThenOn, 0, kReads);
    EXPECT_EQ("not read", read(20000));
}

TEST_F(RecordFileTest, ReadsOnAfterAnInterruption) {
    const fault::FailingCall fault(1, EINTR, Mode::kOnce, kReads);
    EXPECT_EQ(bytes(20000), read(20000));
}

TEST_F(RecordFileTest, OpensNothingButRegularFilesThemselves) {
    RecordFile file;
    EXPECT_EQ(kMissing, file.open(path.c_str(), kMalformed));
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
    EXPECT_EQ(kMalformed, RecordFile().open(path.c_str(), kMalformed));
    const std::string fifo = folder / "fifo";
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    EXPECT_EQ(kIo, RecordFile().open(fifo.c_str(), kIo));
    support::writeFile(folder / "target", "bytes");
    const std::string link = folder / "link";
    ASSERT_EQ(0, ::symlink((folder / "target").c_str(), link.c_str()));
    EXPECT_EQ(kMissing, RecordFile().open(link.c_str(), kMalformed));
    EXPECT_EQ(kMalformed, RecordFile().open("/dev/zero", kMalformed));
    EXPECT_EQ(kMalformed, RecordFile().open("/dev/null", kMalformed));
}

}  // namespace
