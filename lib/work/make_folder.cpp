#include "lib/work/make_folder.h"

#include <fcntl.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

#include <fmt/format.h>

#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/printable.h"
#include "lib/records/address.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/process.h"

namespace fstore {
namespace {

constexpr mode_t kModeBits = 07777;

// The names that records' files have are theirs, also of folders.
void refuseName(const std::string& folder, std::string_view name) {
    const bool isRecords = isUniqueName(name) || !markerOf(name).empty();
    if (isRecords || printable(name) != name) {
        throw Failure(
            kInvalid,
            fmt::format("\"{}\" cannot be the name of a folder: it {}", printable(name),
                        isRecords ? "is that of a record's file" : "has unprintable characters"),
            folder);
    }
}

void refuseNames(const std::string& folder) {
    if (folder.empty()) {
        throw Failure(kInvalid, "name a folder below \"db\", as in \"certificates/local\"");
    }
    for (std::size_t at = 0; at < folder.size();) {
        const std::size_t end = std::min(folder.find('/', at), folder.size());
        refuseName(folder, std::string_view(folder).substr(at, end - at));
        at = end + 1;
    }
}

void makeOne(const std::string& folder) {
    const std::size_t last = folder.rfind('/');
    const std::string above = folderPath(last == std::string::npos ? "" : folder.substr(0, last));
    const std::string path = folderPath(folder);
    struct stat status {};
    if (os::lstat(above.c_str(), &status) != 0 || os::mkdir(path.c_str(), S_IRWXU) != 0) {
        failWithErrno("create the folder", path);
    }
    const os::File made = os::openFile(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!made || !os::setPermissions(made, status.st_mode & kModeBits)) {
        failWithErrno("give its permissions to the folder", path);
    }
    syncFolder(path);
    syncFolder(above);
}

}  // namespace

void makeFolder(const std::string& text, bool parents) {
    const std::string folder = parseFolder(text);
    refuseNames(folder);
    if (!parents && isFolder(folder)) {
        throw Failure(kInvalid, fmt::format("there is a folder {} already", folder), folder);
    }
    const std::size_t last = folder.rfind('/');
    if (!parents && last != std::string::npos) {
        requireFolder(folder.substr(0, last));
    }
    for (std::size_t end = 0; end < folder.size();) {
        end = std::min(folder.find('/', end + 1), folder.size());
        if (!isFolder(folder.substr(0, end))) {
            requireLock();
            makeOne(folder.substr(0, end));
        }
    }
}

}  // namespace fstore
