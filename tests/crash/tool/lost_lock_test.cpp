// A command whose lock another host has taken, since it slept or was cut off: whatever it was
// doing, it makes nothing visible any more, and what the other host has written stays.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/database/lock_holder.h"
#include "tests/crash/figures.h"
#include "tests/crash/tool/tool_crash.h"

namespace crash {
namespace {

namespace fs = std::filesystem;

using fault::Call;
using fault::Event;
using testing::HasSubstr;

constexpr std::uint32_t kSharedMagic = 0x00C36400;  // a file system whose locks hold between hosts
constexpr int kIoCode = 9;

std::string lockFileOf(const ToolWorkload& workload) {
    return workload.folder + "/db.lock";
}

// The other host writes its line, as whoever takes the lock does. This host still believes that it
// has the lock: of a lock that was lost and got again, the system tells nothing.
void takeElsewhere(const std::string& lockFile) {
    static const std::string line = fstore::print({.token = std::string(32, 'f'),
                                                   .pid = 4711,
                                                   .since = 1893456000,
                                                   .host = "other.example",
                                                   .program = "fstore"});
    const int fd = ::open(lockFile.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(static_cast<ssize_t>(line.size()), ::pwrite(fd, line.data(), line.size(), 0));
    ASSERT_EQ(0, ::close(fd));
}

bool isOf(const Event& event, const ToolWorkload& workload) {
    const std::string head = workload.folder == "." ? "" : workload.folder + "/";
    return event.path.starts_with(head + "db") || event.path.starts_with(head + "new_db") ||
           event.path.starts_with(head + "old_db");
}

bool isVisible(const Event& event, const ToolWorkload& workload) {
    return (event.call == Call::kRename || event.call == Call::kRemove ||
            event.call == Call::kRmdir) &&
           event.error == 0 && isOf(event, workload) && !isLockFile(event.path);
}

// Is the lock still held, and was it ever since?
constexpr std::array kQuestion{Call::kFlock, Call::kOpen, Call::kForgetPages, Call::kRead,
                               Call::kClose};

bool isLook(const Event& event) {
    return event.call == Call::kRead && isLockFile(event.path);
}

bool isSigning(const Event& event) {
    return event.call == Call::kWrite && isLockFile(event.path);
}

// What the command made visible after `struck` calls though it could know better. A look at the
// lock file from before that is good for one call after it: no one can look and rename at once.
std::string shownBlindly(const std::vector<Event>& events, std::size_t struck,
                         const ToolWorkload& workload) {
    std::ptrdiff_t looked = -1;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (isSigning(events[i]) && i >= struck) {
            return {};  // it had given the lock back, and has taken it from the other host since
        }
        if (isLook(events[i])) {
            looked = static_cast<std::ptrdiff_t>(i);
        } else if (isVisible(events[i], workload)) {
            if (i >= struck && (looked < 0 || static_cast<std::size_t>(looked) >= struck)) {
                return fault::describe(events[i]);
            }
            looked = -1;
        }
    }
    return {};
}

class LostLockTest : public testing::TestWithParam<ToolWorkload> {
protected:
    LostLockTest() {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread is there yet
        (void)::setenv("FILESTORE_MODULES", MODULES, 1);
    }

    void stand(const Tree& tree) {
        clearCurrentFolder();
        writeCurrentFolder(tree);
    }

    // The calls of a run from its first on the database until the end, in which `what` happens in
    // front of the nth call.
    std::vector<Event> runWith(int nth, const std::function<void()>& what, Ran& ran) {
        const fault::PathsFrom here(fs::current_path().string());
        const fault::Meanwhile meanwhile(nth, what);
        const fault::Recorder recorder;
        ran = run(GetParam().command);
        return recorder.events();
    }

private:
    Scratch scratch_;
};

// Between the last sync of a new file and each rename or removal that shows it stand the question
// to the lock and a look at the token, and nothing but a close after that.
TEST_P(LostLockTest, LooksRightBeforeEachStepThatShows) {
    const ToolRecording recording = record(GetParam());
    stand(recording.start);
    const fault::FileSystemOf shared(kSharedMagic);
    Ran ran;
    const std::vector<Event> events = runWith(
        1, [] {}, ran);
    ASSERT_EQ(0, ran.code) << ran.said;
    std::size_t shown = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (!isVisible(events[i], GetParam())) {
            continue;
        }
        ++shown;
        ASSERT_GE(i, kQuestion.size());
        for (std::size_t k = 0; k < kQuestion.size(); ++k) {
            const Event& event = events[i - kQuestion.size() + k];
            EXPECT_TRUE(event.call == kQuestion[k] && isLockFile(event.path) && event.error == 0)
                << fault::describe(event) << " before " << fault::describe(events[i]);
        }
    }
    EXPECT_GT(shown, 0U);
}

// On the disk of one host nothing is asked.
TEST_P(LostLockTest, ALocalFileSystemLosesNoLocks) {
    const ToolRecording recording = record(GetParam());
    ASSERT_EQ(0, recording.ran.code);
    EXPECT_TRUE(std::ranges::none_of(recording.everyCall, isLook));
}

TEST_P(LostLockTest, ShowsNothingOnceTheLockIsAnothers) {
    const ToolWorkload& workload = GetParam();
    const ToolRecording recording = record(workload);
    const fault::FileSystemOf shared(kSharedMagic);
    Ran whole;
    stand(recording.start);
    const std::vector<Event> calls = runWith(
        1, [] {}, whole);
    const std::size_t stride = isFull() ? 1 : std::max<std::size_t>(1, calls.size() / 60);
    std::size_t stopped = 0;
    for (std::size_t struck = 1; struck < calls.size(); struck += stride) {
        stand(recording.start);
        bool isTaken = false;
        const auto take = [&] {
            isTaken = fs::exists(lockFileOf(workload)) && fs::file_size(lockFileOf(workload)) != 0;
            if (isTaken) {
                takeElsewhere(lockFileOf(workload));
            }
        };
        Ran ran;
        const std::vector<Event> events = runWith(static_cast<int>(struck) + 1, take, ran);
        const auto atStroke = events.begin() + static_cast<std::ptrdiff_t>(struck);
        const bool isSigned = std::any_of(events.begin(), atStroke, isSigning);
        if (!isTaken || !isSigned) {
            continue;  // it had no lock to lose
        }
        SCOPED_TRACE(fault::describe(calls[struck]) + ", call " + std::to_string(struck));
        EXPECT_EQ("", shownBlindly(events, struck, workload));
        EXPECT_TRUE(ran.code == 0 || ran.code == kIoCode) << ran.code << ": " << ran.said;
        if (ran.code != 0) {
            ++stopped;
            EXPECT_THAT(ran.said, HasSubstr("the lock was lost"));
            EXPECT_THAT(ran.said, HasSubstr("4711 on other.example"));
        }
        const auto acknowledged = ran.code == 0 ? Acknowledged::kYes : Acknowledged::kNo;
        EXPECT_EQ("", recoverAndJudge(recording, acknowledged, Repaired::kPerhaps)) << ran.said;
    }
    EXPECT_GT(stopped, 0U);
    count("tool: locks lost", static_cast<long>(stopped));
}

// Where a command takes what the other host has written since for its own.
struct Rival {
    std::size_t at = 0;  // the call that does
    std::string descriptor;
};

// The exchange of the whole database, or else the first step that concerns a record.
Rival rivalOf(const std::vector<Event>& events, const ToolWorkload& workload) {
    const auto signs = std::find_if(events.rbegin(), events.rend(), isSigning).base();
    const auto exchange = std::find_if(signs, events.end(), [](const Event& event) {
        return event.call == Call::kRename && event.path == "db";
    });
    if (exchange != events.end()) {
        return {static_cast<std::size_t>(exchange - events.begin()), "db/settings/a.dsc"};
    }
    const auto step = std::find_if(signs, events.end(), [&](const Event& event) {
        return isVisible(event, workload) && event.call == Call::kRename;
    });
    if (step == events.end()) {
        throw std::runtime_error("it renames nothing");
    }
    return {static_cast<std::size_t>(step - events.begin()),
            step->path.ends_with(".dsc") ? step->path : step->to};
}

class RivalTest : public LostLockTest {
protected:
    static constexpr const char* kTheirs = "00000004 00000005 theirs\n";

    // The run in which the other host takes the lock and writes the record in front of that call;
    // what the record is afterwards.
    std::string runAgainst(std::size_t call, const std::string& descriptor, Ran& ran) {
        const auto write = [&] {
            takeElsewhere(lockFileOf(GetParam()));
            std::ofstream("theirs") << kTheirs;
            fs::rename("theirs", descriptor);
        };
        (void)runWith(static_cast<int>(call) + 1, write, ran);
        const Tree left = readCurrentFolder();
        const auto found = left.find(descriptor);
        return found == left.end() ? "nothing" : found->second.bytes;
    }
};

// That it does matter: on a file system of one host, where nobody asks, their record is lost.
TEST_P(RivalTest, OnlyTheTokenSavesWhatTheOtherHostHasWritten) {
    const ToolRecording recording = record(GetParam());
    ASSERT_EQ(0, recording.ran.code) << recording.ran.said;
    Ran ran;
    {
        const Rival rival = rivalOf(recording.everyCall, GetParam());
        stand(recording.start);
        EXPECT_NE(kTheirs, runAgainst(rival.at, rival.descriptor, ran)) << rival.descriptor;
        EXPECT_EQ(0, ran.code) << ran.said;
    }
    const fault::FileSystemOf shared(kSharedMagic);
    stand(recording.start);
    const std::vector<Event> calls = runWith(
        1, [] {}, ran);
    const Rival rival = rivalOf(calls, GetParam());
    // In front of the question, whose lock still seems to be held.
    ASSERT_EQ(Call::kFlock, calls[rival.at - kQuestion.size()].call);
    stand(recording.start);
    EXPECT_EQ(kTheirs, runAgainst(rival.at - kQuestion.size(), rival.descriptor, ran))
        << rival.descriptor;
    EXPECT_EQ(kIoCode, ran.code) << ran.said;
    EXPECT_THAT(ran.said, HasSubstr("the lock was lost"));
}

std::vector<ToolWorkload> changing(const std::vector<std::string_view>& names) {
    std::vector<ToolWorkload> found;
    std::ranges::copy_if(toolWorkloads(), std::back_inserter(found), [&](const auto& workload) {
        return std::ranges::find(names, workload.name) != names.end();
    });
    return found;
}

class ReachTest : public LostLockTest {};

// Where each host may have locks of its own, a command says so once.
TEST_P(ReachTest, WarnsOnceWhereLocksMayNotHold) {
    const ToolRecording recording = record(GetParam());
    const struct {
        std::uint32_t magic;
        bool warns;
    } rows[] = {{0xEF53, false},    {0x01021994, false}, {kSharedMagic, false}, {0x01021997, true},
                {0x65735546, true}, {0x6969, true},      {0x12345678, true}};
    const std::string head = "warning: locks on this file system (";
    for (const auto& row : rows) {
        const fault::FileSystemOf system(row.magic);
        stand(recording.start);
        const Ran ran = run(GetParam().command);
        EXPECT_EQ(0, ran.code) << ran.said;
        const std::size_t first = ran.said.find(head);
        ASSERT_EQ(row.warns, first != std::string::npos) << ran.said;
        if (row.warns) {
            EXPECT_THAT(ran.said, HasSubstr(") may not hold between hosts; let one host write\n"));
            EXPECT_EQ(std::string::npos, ran.said.find(head, first + 1)) << ran.said;
        }
    }
}

TEST_P(ReachTest, RefusesToWorkThereWhenToldSo) {
    const ToolRecording recording = record(GetParam());
    Command command = GetParam().command;
    command.args.insert(command.args.begin(), "--require-shared-lock");
    for (const std::uint32_t magic : {0x01021997U, 0x65735546U, 0x6969U, 0x12345678U}) {
        const fault::FileSystemOf system(magic);
        stand(recording.start);
        const Ran ran = run(command);
        EXPECT_EQ(2, ran.code);
        EXPECT_THAT(ran.said, HasSubstr("may not hold between hosts"));
        Tree left = readCurrentFolder();
        std::erase_if(left, [](const auto& file) { return isLockFile(file.first); });
        Tree start = recording.start;
        std::erase_if(start, [](const auto& file) { return isLockFile(file.first); });
        EXPECT_EQ(hashOf(start), hashOf(left)) << ran.said;
    }
}

// And it asks as between hosts, whatever the file system.
TEST_P(ReachTest, AsksOnAnyFileSystemWhenToldSo) {
    const ToolRecording recording = record(GetParam());
    stand(recording.start);
    Command command = GetParam().command;
    command.args.insert(command.args.begin(), "--require-shared-lock");
    const fault::PathsFrom here(fs::current_path().string());
    const fault::Recorder recorder;
    EXPECT_EQ(0, run(command).code);
    EXPECT_TRUE(std::ranges::any_of(recorder.events(), isLook));
}

// Of what flock() may answer when the server has dropped the lock, nothing is a lock.
TEST_P(ReachTest, ALockThatTheSystemRefusesIsLost) {
    const ToolRecording recording = record(GetParam());
    const fault::FileSystemOf shared(kSharedMagic);
    stand(recording.start);
    Ran ran;
    const std::vector<Event> calls = runWith(
        1, [] {}, ran);
    const Rival rival = rivalOf(calls, GetParam());
    ASSERT_EQ(Call::kFlock, calls[rival.at - kQuestion.size()].call);
    const auto nth =
        std::count_if(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(rival.at),
                      [](const Event& event) { return event.call == Call::kFlock; });
    for (const int error : {EBADF, ENOLCK, EIO, EBADFD, ENOTCONN, EWOULDBLOCK}) {
        stand(recording.start);
        const fault::FailingCall failing(static_cast<int>(nth), error, fault::Mode::kOnce,
                                         {Call::kFlock});
        ran = run(GetParam().command);
        EXPECT_EQ(kIoCode, ran.code) << ::strerrorname_np(error);
        EXPECT_THAT(ran.said, HasSubstr("the lock was lost")) << ::strerrorname_np(error);
        EXPECT_EQ("", recoverAndJudge(recording, Acknowledged::kNo, Repaired::kPerhaps));
    }
}

// Between hosts a lock that cannot be signed is none; on a disk of one host it is.
TEST_P(ReachTest, ALockThatCannotBeSignedIsNoneBetweenHosts) {
    const ToolRecording recording = record(GetParam());
    const auto nth = 1 + std::count_if(recording.everyCall.begin(),
                                       std::ranges::find_if(recording.everyCall, isSigning),
                                       [](const Event& e) { return e.call == Call::kWrite; });
    for (const bool isShared : {false, true}) {
        const fault::FileSystemOf system(isShared ? kSharedMagic : 0xEF53);
        stand(recording.start);
        const fault::FailingCall failing(static_cast<int>(nth), ENOSPC, fault::Mode::kOnce,
                                         {Call::kWrite});
        const Ran ran = run(GetParam().command);
        EXPECT_EQ(isShared ? kIoCode : 0, ran.code) << ran.said;
        EXPECT_EQ(isShared, ran.said.find("db.lock") != std::string::npos) << ran.said;
    }
}

INSTANTIATE_TEST_SUITE_P(Each, ReachTest, testing::ValuesIn(changing({"put_over", "rm"})),
                         [](const auto& one) { return one.param.name; });

INSTANTIATE_TEST_SUITE_P(Each, LostLockTest,
                         testing::ValuesIn(changing({"put_over", "set", "rm", "rm_two", "import",
                                                     "passwd", "passwd_keep_old", "passwd_rotate",
                                                     "restore_replace", "key_add_password",
                                                     "key_rm", "check_repair", "check_undo"})),
                         [](const auto& one) { return one.param.name; });

INSTANTIATE_TEST_SUITE_P(Each, RivalTest,
                         testing::ValuesIn(changing({"put_over", "set", "rm", "import", "passwd",
                                                     "restore_replace"})),
                         [](const auto& one) { return one.param.name; });

}  // namespace
}  // namespace crash
