#include "os/process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "os/files.h"
#include "os/terminal.h"
#include "tests/support/in_child.h"
#include "tests/support/temp_dir.h"

namespace {

using support::inChild;
using support::TempDir;

TEST(LockFileTest, KindsExcludeEachOtherAsTabled) {
    using os::LockKind;
    const struct {
        LockKind held, wanted;
        os::Locked result;
    } rows[] = {
        {LockKind::kShared, LockKind::kShared, os::Locked::kYes},
        {LockKind::kShared, LockKind::kExclusive, os::Locked::kBusy},
        {LockKind::kExclusive, LockKind::kShared, os::Locked::kBusy},
        {LockKind::kExclusive, LockKind::kExclusive, os::Locked::kBusy},
    };
    const TempDir dir;
    for (const auto& row : rows) {
        const os::File holder = os::openFile(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
        const os::File other = os::openFile(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
        ASSERT_EQ(os::Locked::kYes, os::lockFile(holder, row.held, 0));
        EXPECT_EQ(row.result, os::lockFile(other, row.wanted, 0));
        EXPECT_TRUE(os::unlockFile(holder));
        EXPECT_EQ(os::Locked::kYes, os::lockFile(other, row.wanted, 0));
    }
}

TEST(LockFileTest, WaitsForItsTimeAndEndsWithTheDescriptor) {
    const TempDir dir;
    os::File holder = os::openFile(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
    const os::File other = os::openFile(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(os::Locked::kYes, os::lockFile(holder, os::LockKind::kExclusive, 0));
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(os::Locked::kBusy, os::lockFile(other, os::LockKind::kShared, 0.2));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(200));
    holder = os::File();
    EXPECT_EQ(os::Locked::kYes, os::lockFile(other, os::LockKind::kExclusive, 0));
}

TEST(LockFileTest, TellsWhatCannotBeLocked) {
    EXPECT_EQ(os::Locked::kFailed, os::lockFile(os::File(), os::LockKind::kShared, 0));
}

TEST(SecretsTest, NothingIsDumpedAndFilesAreTheUsersAlone) {
    const TempDir dir;
    const std::string path = dir / "file";
    EXPECT_EQ(0, inChild([&] {
                  rlimit core{};
                  struct stat status {};
                  const bool kept = os::keepSecrets();
                  const os::File file = os::openFile(path.c_str(), O_WRONLY | O_CREAT);
                  const bool examined =
                      getrlimit(RLIMIT_CORE, &core) == 0 && stat(path.c_str(), &status) == 0;
                  return kept && examined && core.rlim_max == 0 && (status.st_mode & 077) == 0 ? 0
                                                                                               : 1;
              }));
}

TEST(StreamsTest, ClosedOnesAreOccupied) {
    EXPECT_EQ(0, inChild([] {
                  (void)::close(0);
                  (void)::close(2);
                  const bool occupied = os::occupyStandardStreams();
                  const os::File next = os::openFile("/dev/null", O_RDONLY);
                  return occupied && next.get() > 2 ? 0 : 1;
              }));
}

TEST(StreamsTest, ClosedOnesTakeAndGiveNothing) {
    EXPECT_EQ(0, inChild([] {
                  (void)::close(0);
                  (void)::close(1);
                  const bool occupied = os::occupyStandardStreams();
                  char byte = 0;
                  const bool readFails = ::read(0, &byte, 1) < 0 && errno == EBADF;
                  const bool writeFails = ::write(1, &byte, 1) < 0 && errno == EBADF;
                  return occupied && readFails && writeFails ? 0 : 1;
              }));
}

TEST(SignalsTest, EndTheProcessAndTakeTheUnfinishedFileAlong) {
    const struct {
        int signal;
        int result;
    } rows[] = {{SIGINT, 130}, {SIGTERM, -SIGTERM}, {SIGHUP, -SIGHUP}};
    const TempDir dir;
    const std::string path = dir / "unfinished";
    for (const auto& row : rows) {
        ASSERT_TRUE(os::openFile(path.c_str(), O_WRONLY | O_CREAT));
        EXPECT_EQ(row.result, inChild([&] {
                      os::installSignalHandlers();
                      os::removeOnSignal(path.c_str());
                      (void)raise(row.signal);
                      return 1;
                  }));
        EXPECT_EQ(os::Presence::kAbsent, os::presence(path.c_str()));
    }
}

TEST(SignalsTest, AFileThatWasFinishedStays) {
    const TempDir dir;
    const std::string path = dir / "finished";
    ASSERT_TRUE(os::openFile(path.c_str(), O_WRONLY | O_CREAT));
    EXPECT_EQ(130, inChild([&] {
                  os::installSignalHandlers();
                  os::removeOnSignal(path.c_str());
                  os::removeOnSignal(nullptr);
                  (void)raise(SIGINT);
                  return 1;
              }));
    EXPECT_EQ(os::Presence::kPresent, os::presence(path.c_str()));
}

TEST(SignalsTest, WhatTheParentIgnoresStaysIgnored) {
    EXPECT_EQ(7, inChild([] {
                  (void)std::signal(SIGHUP, SIG_IGN);
                  os::installSignalHandlers();
                  (void)raise(SIGHUP);
                  return 7;
              }));
}

TEST(SignalsTest, APipeWithoutReaderIsAFailureOfTheWrite) {
    EXPECT_EQ(EPIPE, inChild([] {
                  os::installSignalHandlers();
                  std::array<int, 2> ends{};
                  if (pipe(ends.data()) != 0 || ::close(ends[0]) != 0) {
                      return 1;
                  }
                  return os::writeAll(ends[1], "x", 1) ? 0 : errno;
              }));
}

TEST(SignalsTest, AFileThatMayNotGrowIsAFailureOfTheWrite) {
    const TempDir folder;
    const std::string path = folder.path() + "/file";
    EXPECT_EQ(EFBIG, inChild([&] {
                  os::installSignalHandlers();
                  const rlimit most{4, 4};
                  const os::File file = os::createAnew(path.c_str());
                  if (!file || ::setrlimit(RLIMIT_FSIZE, &most) != 0) {
                      return 1;
                  }
                  return os::writeAll(file.get(), "12345", 5) ? 0 : errno;
              }));
}

TEST(EnvironmentTest, AForgottenVariableIsWiped) {
    ASSERT_EQ(0, setenv("PROCESS_TEST_SECRET", "hunter2", 1));
    const char* const value = std::getenv("PROCESS_TEST_SECRET");
    os::forgetVariable("PROCESS_TEST_SECRET");
    EXPECT_EQ(nullptr, std::getenv("PROCESS_TEST_SECRET"));
    EXPECT_EQ('\0', value[0]);
    EXPECT_EQ('\0', value[6]);
    os::forgetVariable("PROCESS_TEST_SECRET");
}

TEST(FolderTest, IsThatOfTheProcess) {
    const TempDir dir;
    EXPECT_EQ(0, inChild([&] {
                  return ::chdir(dir.path().c_str()) == 0 && os::currentFolder() == dir.path() ? 0
                                                                                               : 1;
              }));
}

TEST(TerminalTest, AFileIsNone) {
    const os::File file = os::openFile("/dev/null", O_RDWR);
    char line[8];
    EXPECT_FALSE(os::isTerminal(file.get()));
    EXPECT_EQ(0u, os::terminalColumns(file.get()));
    EXPECT_EQ(-1, os::askTerminal(file, os::Echo::kOff, "? ", line, sizeof line));
}

}  // namespace
