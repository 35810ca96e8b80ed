#include "os/command.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "os/files.h"
#include "os/process.h"
#include "tests/support/in_child.h"
#include "tests/support/temp_dir.h"

namespace {

using os::CommandEnd;
using std::chrono::steady_clock;
using support::inChild;

constexpr double kLong = 60;

CommandEnd shell(const std::string& script, double seconds = kLong) {
    return os::runCommand({"/bin/sh", "-c", script}, seconds);
}

// Whether the process whose number is in the file is gone within some seconds.
bool isGone(const std::string& file) {
    const pid_t process = std::stoi(support::readFile(file));
    for (int i = 0; i < 500; ++i) {
        // One that nobody has waited for, such as pid 1 of a container, is as good as gone.
        std::ifstream status("/proc/" + std::to_string(process) + "/stat");
        std::string line;
        if (!std::getline(status, line) || line.find(") Z ") != std::string::npos) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST(CommandTest, EndsAsItsProgramDoes) {
    for (const int code : {0, 1, 127, 255}) {
        const CommandEnd end = shell("exit " + std::to_string(code));
        EXPECT_EQ(0, end.error);
        EXPECT_EQ(code, end.exitCode);
        EXPECT_EQ(0, end.signal);
        EXPECT_FALSE(end.isLate);
    }
    for (const int signal : {SIGKILL, SIGTERM, SIGPIPE}) {
        const CommandEnd end = shell("kill -" + std::to_string(signal) + " $$");
        EXPECT_EQ(0, end.error);
        EXPECT_EQ(signal, end.signal);
    }
}

TEST(CommandTest, WordsAreTheProgramsOwn) {
    EXPECT_EQ(0, os::runCommand({"test", "a  b", "=", "a  b"}, kLong).exitCode);  // found by PATH
    EXPECT_EQ(0, os::runCommand({"test", "-z", ""}, kLong).exitCode);
    EXPECT_EQ(0, os::runCommand({"test", "$HOME", "!=", "*"}, kLong).exitCode);
}

TEST(CommandTest, ItHasTheStandardStreamsOnly) {
    const os::File ours = os::openFile("/dev/null", O_RDONLY);
    const os::File given(::fcntl(ours.get(), F_DUPFD, 50));  // not closed by exec()
    ASSERT_LE(50, given.get());
    EXPECT_EQ(0, shell("test ! -e /proc/$$/fd/" + std::to_string(given.get())).exitCode);
    EXPECT_LE(0, ::fcntl(given.get(), F_GETFD));
}

TEST(CommandTest, ItCanWriteWithoutAStandardError) {
    EXPECT_EQ(
        0, inChild([] {
            ::close(STDERR_FILENO);
            if (shell("echo out && echo error >&2").exitCode != 0 || !os::occupyStandardStreams()) {
                return 1;
            }
            return shell("echo out && echo error >&2").exitCode;
        }));
}

TEST(CommandTest, WhatItSaysGoesIntoTheFileThatIsNamed) {
    const support::TempWorkingDir folder;
    const os::CommandPlace place{.output = "said", .withheld = {}};
    const std::string script = "echo out; echo error >&2; exit 3";
    EXPECT_EQ(3, os::runCommand({"/bin/sh", "-c", script}, kLong, place).exitCode);
    EXPECT_EQ("out\nerror\n", support::readFile("said"));
}

TEST(CommandTest, VariablesCanBeWithheld) {
    ASSERT_EQ(0, ::setenv("COMMAND_TEST_A", "a", 1));
    ASSERT_EQ(0, ::setenv("COMMAND_KEPT", "b", 1));
    const os::CommandPlace place{.output = {}, .withheld = "COMMAND_TEST_"};
    const std::string script = "test -z \"$COMMAND_TEST_A\" && test \"$COMMAND_KEPT\" = b";
    EXPECT_EQ(0, os::runCommand({"/bin/sh", "-c", script}, kLong, place).exitCode);
    EXPECT_NE(0, shell(script).exitCode);
}

TEST(CommandTest, ProgramsAreFoundByPath) {
    const support::TempWorkingDir folder;
    const std::string before = std::getenv("PATH");
    support::writeFile("text", "no program");
    support::writeFile("program", "#!/bin/sh");
    std::filesystem::permissions("program", std::filesystem::perms::owner_all);
    std::filesystem::create_directory("folder");
    EXPECT_FALSE(os::isInPath("program"));
    ASSERT_EQ(0, ::setenv("PATH", "/nowhere:.", 1));
    EXPECT_TRUE(os::isInPath("program"));
    EXPECT_FALSE(os::isInPath("text"));
    EXPECT_FALSE(os::isInPath("folder"));
    ASSERT_EQ(0, ::setenv("PATH", before.c_str(), 1));
}

TEST(CommandTest, WhatCannotBeStartedSaysWhy) {
    const support::TempWorkingDir folder;
    support::writeFile("text", "no program");
    std::filesystem::create_directory("folder");
    EXPECT_EQ(ENOENT, os::runCommand({"./none"}, kLong).error);
    EXPECT_EQ(ENOENT, os::runCommand({"no-such-program-anywhere"}, kLong).error);
    EXPECT_EQ(EACCES, os::runCommand({"./text"}, kLong).error);
    EXPECT_EQ(EACCES, os::runCommand({"./folder"}, kLong).error);
    std::filesystem::permissions("text", std::filesystem::perms::owner_all);
    EXPECT_EQ(ENOEXEC, os::runCommand({"./text"}, kLong).error);
    EXPECT_EQ(E2BIG, os::runCommand({"true", std::string(1 << 20, 'x')}, kLong).error);
}

TEST(CommandTest, WhoIgnoresTheEndOfChildrenHearsOfThisOne) {
    EXPECT_EQ(0, inChild([] {
                  (void)signal(SIGCHLD, SIG_IGN);
                  const CommandEnd end = shell("exit 3");
                  const bool isKept = signal(SIGCHLD, SIG_DFL) == SIG_IGN;
                  return end.error == 0 && end.exitCode == 3 && isKept ? 0 : 1;
              }));
}

TEST(CommandTest, ReadsNothingAndMayPrintMuch) {
    EXPECT_EQ(0, inChild([] {
                  int ends[2];
                  if (pipe(ends) != 0 || dup2(ends[0], STDIN_FILENO) < 0) {
                      return 2;  // an input that never ends
                  }
                  const os::File null = os::openFile("/dev/null", O_WRONLY);
                  if (dup2(null.get(), STDERR_FILENO) < 0) {
                      return 2;
                  }
                  return shell(
                             "test -z \"$(cat)\" && head -c 10000000 /dev/zero && "
                             "head -c 10000000 /dev/zero >&2")
                      .exitCode;
              }));
}

TEST(CommandTest, WhatItLeavesRunningIsNotWaitedFor) {
    const support::TempWorkingDir folder;
    const auto began = steady_clock::now();
    EXPECT_EQ(0, shell("sleep 60 & echo $! >left").exitCode);
    EXPECT_LT(steady_clock::now() - began, std::chrono::seconds(30));
    const pid_t left = std::stoi(support::readFile("left"));
    EXPECT_EQ(0, kill(left, SIGKILL));  // it runs on
}

TEST(CommandTest, WhoIsLateIsKilledWithWhatItStarted) {
    const support::TempWorkingDir folder;
    const auto began = steady_clock::now();
    const CommandEnd end =
        shell("trap '' TERM INT HUP; sleep 60 & echo $! >left; while :; do sleep 1; done", 0.5);
    EXPECT_TRUE(end.isLate);
    EXPECT_EQ(0, end.error);
    EXPECT_LT(steady_clock::now() - began, std::chrono::seconds(30));
    EXPECT_TRUE(isGone("left"));
}

TEST(CommandTest, ASignalEndsItToo) {
    const support::TempWorkingDir folder;
    const pid_t child = fork();
    if (child == 0) {
        os::installSignalHandlers();
        _exit(shell("echo $$ >left.new; mv left.new left; sleep 60").exitCode);
    }
    while (!std::filesystem::exists("left")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // that it waits for its program
    EXPECT_EQ(0, kill(child, SIGTERM));
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(isGone("left"));
}

}  // namespace
