#include "lib/index/index_files.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <initializer_list>
#include <string_view>

#include "lib/base/files.h"
#include "lib/index/index_tables.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/process.h"

namespace fstore {
namespace {

using namespace std::string_view_literals;

constexpr const char* kLog = "-wal";
constexpr const char* kShared = "-shm";
constexpr const char* kJournal = "-journal";
constexpr const char* kUnfinished = "-new";
constexpr std::array kBeside{kLog, kShared, kJournal, kUnfinished};

constexpr mode_t kOthers = S_IRWXG | S_IRWXO;

// A file that one was begun with. Nothing is lost with an empty one; but who made it with other
// rights than ours wants the name for something.
bool isBegun(const struct stat& status) {
    return status.st_size == 0 && status.st_nlink == 1 && (status.st_mode & kOthers) == 0;
}

// Whether it begins with one of these. Of files that SQLite has no locks on: closing one ends the
// locks that other threads have on it.
bool beginsWith(const std::string& file, std::initializer_list<std::string_view> heads) {
    os::File opened;
    off_t size = 0;
    if (os::openRegular(file.c_str(), opened, size, os::Links::kRefuse) != os::Opened::kRegular) {
        return false;
    }
    std::array<char, 8> bytes{};
    const ssize_t count = os::readSome(opened.get(), bytes.data(), bytes.size());
    const std::string_view head(bytes.data(), count < 0 ? 0 : static_cast<std::size_t>(count));
    return std::ranges::any_of(heads,
                               [&](std::string_view each) { return head.starts_with(each); });
}

// The shared memory is under SQLite's locks, so it is known by its size: it grows by pages, from
// what there is before the first one.
bool hasSizeOfShared(off_t size) {
    constexpr off_t kPage = 4096;
    constexpr off_t kBeforeTheFirst = 3;
    return size % kPage == 0 || size == kBeforeTheFirst;
}

bool isOfSqlite(const std::string& file, std::string_view suffix, const struct stat& status) {
    if (isBegun(status)) {
        return true;
    }
    if (suffix == kLog) {
        return beginsWith(file, {"\x37\x7F\x06\x82"sv, "\x37\x7F\x06\x83"sv});
    }
    if (suffix == kJournal) {  // one that is done with may begin with zeros
        return beginsWith(file, {"\xD9\xD5\x05\xF9\x20\xA1\x63\xD7"sv, "\0\0\0\0\0\0\0\0"sv});
    }
    return suffix == kShared && hasSizeOfShared(status.st_size);
}

IndexOwner ownerOf(const std::string& file, std::string_view suffix) {
    struct stat status {};
    if (os::lstat(file.c_str(), &status) != 0) {
        return errno == ENOENT ? IndexOwner::kNobody : IndexOwner::kSomebody;
    }
    if (!S_ISREG(status.st_mode) || !os::isOwn(status)) {
        return IndexOwner::kSomebody;
    }
    const bool isOurs = suffix.empty() ? isBegun(status) || IndexTables::isIndex(file)
                                       : isOfSqlite(file, suffix, status);
    return isOurs ? IndexOwner::kOurs : IndexOwner::kSomebody;
}

bool removeIfThere(const std::string& file) {
    return os::remove(file.c_str()) == 0 || errno == ENOENT;
}

}  // namespace

IndexOwner ownerOfIndex(const std::string& file) {
    return ownerOf(file, "");
}

std::vector<std::string> othersAt(const std::string& file) {
    std::vector<std::string> others;
    const bool isSomebodys = ownerOfIndex(file) == IndexOwner::kSomebody;
    if (isSomebodys) {
        others.push_back(file);
    }
    for (const char* const suffix : kBeside) {
        const IndexOwner owner = ownerOf(file + suffix, suffix);
        if (owner == IndexOwner::kSomebody || (isSomebodys && owner != IndexOwner::kNobody)) {
            others.push_back(file + suffix);
        }
    }
    return others;
}

std::string newIndexAt(const std::string& file) {
    return file + kUnfinished;
}

bool removeIndexAt(const std::string& file) noexcept {
    try {
        if (ownerOfIndex(file) == IndexOwner::kSomebody) {
            return false;
        }
        // First: without its log it could contradict itself.
        bool done = removeIfThere(file);
        for (const char* const suffix : kBeside) {
            const std::string beside = file + suffix;
            done =
                ownerOf(beside, suffix) != IndexOwner::kSomebody && removeIfThere(beside) && done;
        }
        return done;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace fstore
