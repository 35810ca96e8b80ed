#include "lib/database/weakness.h"

#include <string>
#include <vector>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/database/folders.h"
#include "lib/database/protection.h"
#include "lib/database/state_file.h"
#include "lib/records/catalogue.h"
#include "os/fs.h"

namespace fstore {
namespace {

constexpr std::int64_t kOtherClock = 60 * std::int64_t{60};  // that another host's may be ahead

constexpr const char* kWeakCost = "weak-cost";

void lookAtFolder(const std::string& path, mode_t harmless, std::vector<Weakness>& found) {
    struct stat status {};
    if (os::lstat(path.c_str(), &status) == 0 && (status.st_mode & S_IWOTH) != 0 &&
        (status.st_mode & harmless) == 0) {
        found.push_back({"writable-folder", path,
                         "can be written by every user of this host; protect it with chmod o-w"});
    }
}

bool isCheap(const ScryptCost& cost) {
    return cost.work() < ScryptCost{}.work();
}

void lookAtSlots(const Protection& protection, std::vector<Weakness>& found) {
    constexpr const char* kAdvice =
        "costs less to guess than is usual; `fstore passwd{} --cost {}` makes it dearer";
    const auto& line = protection.inForce.line;
    if (line && line->form == Slot::Form::kScrypt &&
        isCheap({.ln = line->ln, .r = line->r, .p = line->p})) {
        found.push_back(
            {kWeakCost, "",
             "the password " + fmt::format(fmt::runtime(kAdvice), "", ScryptCost::kDefaultLn)});
    }
    for (const UnlockSlot& slot : protection.inForce.slots) {
        if (slot.kind == SlotKind::kPassword && isCheap(slot.cost)) {
            found.push_back(
                {kWeakCost, "",
                 fmt::format("the password of slot {} ", slot.n) +
                     fmt::format(fmt::runtime(kAdvice), fmt::format(" --slot {} --rewrap", slot.n),
                                 ScryptCost::kDefaultLn)});
        }
    }
}

}  // namespace

std::vector<Weakness> weaknessesOf(Database& database) {
    const Hold hold = database.enter(Access::kRead, Need::kFiles);
    if (!folderState().live) {
        return {};
    }
    std::vector<Weakness> found;
    // In a folder like /tmp nobody renames what is another's; but anybody adds records of his own.
    lookAtFolder(".", S_ISVTX, found);
    Unread unread;  // whoever checks is told of these
    for (const std::string& folder : allFolders(&unread)) {
        lookAtFolder(folder.empty() ? layout::kLive : joined(layout::kLive, folder), 0, found);
    }
    try {
        lookAtSlots(database.examineProtection(), found);
    } catch (const MemoryFailure&) {
        throw;
    } catch (const Failure&) {
        // the check says that they cannot be read
    }
    return found;
}

std::vector<Weakness> backupWeakness(const Place& place, std::int64_t seconds) {
    const auto last = readState(place).backup;
    if (!last) {
        return {{"old-backup", "", "no backup of this database is known"}};
    }
    if (*last > now() + kOtherClock) {
        return {{"old-backup", "",
                 fmt::format("the last backup is said to be of {}, which is to come; one of the "
                             "clocks was wrong",
                             printTime(*last))}};
    }
    if (now() - *last > seconds) {
        return {{"old-backup", "",
                 fmt::format("the last backup is of {}, longer ago than asked", printTime(*last))}};
    }
    return {};
}

}  // namespace fstore
