#include "lib/database/state_file.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <functional>
#include <sstream>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/process.h"

namespace fstore {
namespace {

constexpr std::size_t kLength = 256;  // of the line; blanks fill it
constexpr std::string_view kHead = "filestore-state-1";
constexpr std::string_view kHeadOfAll = "filestore-state-";  // of any version
constexpr const char* kNever = "-";
constexpr const char* kSound = "sound";
constexpr const char* kUnsound = "unsound";

std::string pathOf(const Place& place) {
    return joined(place.folder, std::string(layout::kState).substr(2));
}

std::string timeText(const std::optional<std::int64_t>& time) {
    return time ? printTime(*time) : kNever;
}

std::string lineOf(const DatabaseState& state) {
    std::string line = fmt::format("{} {} {} {}", kHead, timeText(state.backup),
                                   timeText(state.check), state.isSound ? kSound : kUnsound);
    line.resize(kLength - 1, ' ');
    return line + '\n';
}

// What is no such line, of a later version for example, says nothing.
DatabaseState stateIn(const std::string& line) {
    std::istringstream words(line);
    std::string head, backup, check, found;
    words >> head >> backup >> check >> found;
    if (head != kHead) {
        return {};
    }
    return {parseTime(backup), parseTime(check), found == kSound};
}

DatabaseState stateIn(const os::File& file) {
    std::string line(kLength, '\0');
    const ssize_t got = os::pread(file.get(), line.data(), line.size(), 0);
    return got == static_cast<ssize_t>(kLength) ? stateIn(line) : DatabaseState{};
}

// A line of any version, also one that was damaged or is still to be written. Else it is
// somebody's.
bool isState(const os::File& file, const struct stat& status) {
    std::array<char, kHeadOfAll.size()> head{};
    return S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           (status.st_size == 0 || status.st_size == static_cast<off_t>(kLength) ||
            (os::pread(file.get(), head.data(), head.size(), 0) ==
                 static_cast<ssize_t>(head.size()) &&
             std::string_view(head.data(), head.size()) == kHeadOfAll));
}

// An empty File for what is not such a file, or cannot be opened. Nothing is followed or waited
// for.
os::File openState(const std::string& path, int flags) {
    constexpr mode_t kForAll = 0666;
    os::File file = os::openFile(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, kForAll);
    struct stat status {};
    // One of several names may be that of somebody else's file.
    const bool isOurs = file && os::fstat(file.get(), &status) == 0 && isState(file, status);
    return isOurs ? std::move(file) : os::File{};
}

// Who may change the database may note in its file, also when root was the first to do so.
void shareWithOwner(const os::File& file, const Place& place) {
    struct stat status {};
    const std::string live = joined(place.folder, layout::kLiveName);
    if (os::isRoot() && os::lstat(live.c_str(), &status) == 0) {
        (void)os::giveTo(file, status.st_uid, status.st_gid);
    }
}

bool change(const Place& place, const std::function<void(DatabaseState&)>& take) {
    const os::File file = openState(pathOf(place), O_RDWR | O_CREAT);
    // Anybody who can read the file could keep its lock, so nobody waits for it.
    if (!file || os::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        return false;
    }
    shareWithOwner(file, place);
    DatabaseState state = stateIn(file);
    take(state);
    const std::string line = lineOf(state);
    return os::pwrite(file.get(), line.data(), line.size(), 0) == static_cast<ssize_t>(kLength);
}

}  // namespace

bool isOtherThanState() {
    struct stat status {};
    errno = 0;
    return os::lstat(layout::kState, &status) == 0 && !openState(layout::kState, O_RDONLY) &&
           errno != EACCES;
}

DatabaseState readState(const Place& place) {
    const os::File file = openState(pathOf(place), O_RDONLY);
    return file ? stateIn(file) : DatabaseState{};
}

bool forgetState(const Place& place) {
    return !openState(pathOf(place), O_RDONLY) ||
           change(place, [](DatabaseState& state) { state = {}; });
}

bool noteBackup(const Place& place, std::int64_t time) {
    return change(place, [&](DatabaseState& state) { state.backup = time; });
}

bool noteCheck(const Place& place, std::int64_t time, bool isSound) {
    return change(place, [&](DatabaseState& state) {
        state.check = time;
        state.isSound = isSound;
    });
}

}  // namespace fstore
