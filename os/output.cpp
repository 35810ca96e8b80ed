#include "os/output.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <string_view>

#include "os/files.h"
#include "os/fs.h"

namespace os {
namespace {

// A disk can be synced, a terminal or a pipe cannot and says so.
bool syncIfCan(const File& file) noexcept {
    int synced = os::fsync(file.get());
    while (synced != 0 && errno == EINTR) {
        synced = os::fsync(file.get());
    }
    return synced == 0 || errno == EINVAL;
}

}  // namespace

int descriptorNamed(std::string_view path) noexcept {
    if (path == "/dev/stdout") {
        return 1;
    }
    if (path == "/dev/stderr") {
        return 2;
    }
    for (const std::string_view folder : {"/dev/fd/", "/proc/self/fd/"}) {
        int number = -1;
        if (path.substr(0, folder.size()) == folder) {
            const char* const end = path.data() + path.size();
            const auto read = std::from_chars(path.data() + folder.size(), end, number);
            return read.ec == std::errc() && read.ptr == end && number >= 0 ? number : -1;
        }
    }
    return -1;
}

// Opens it anew, and looks again at what it is: the name may be another file's by now.
bool Output::openThrough(const char* path) noexcept {
    file_ = openFile(path, O_WRONLY | O_NOCTTY | O_NOFOLLOW);
    struct stat status {};
    if (!file_ || os::fstat(file_.get(), &status) != 0) {
        return false;
    }
    if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
        errno = EBUSY;
        return false;
    }
    return true;
}

Output::Opened Output::open(const std::string& path) {
    through_ = descriptorNamed(path);
    if (through_ >= 0) {
        return Opened::kReady;
    }
    switch (entryTypeOf(path.c_str())) {
        case EntryType::kLink:
            return Opened::kLink;
        case EntryType::kFolder:
            errno = EISDIR;
            return Opened::kFailed;
        case EntryType::kOther:
            return openThrough(path.c_str()) ? Opened::kReady : Opened::kFailed;
        case EntryType::kUnknown:
            if (errno != ENOENT || path.empty() || path.back() == '/') {
                return Opened::kFailed;
            }
            [[fallthrough]];
        case EntryType::kFile:
            break;
    }
    return draft_.emplace().open(path) ? Opened::kReady : Opened::kFailed;
}

bool Output::commit() noexcept {
    if (through_ >= 0) {
        return true;
    }
    if (!draft_) {
        return syncIfCan(file_) && file_.close();
    }
    return draft_->commit(Draft::Existing::kReplaced) && draft_->syncName();
}

}  // namespace os
