#include "lib/index/index_place.h"

#include <fcntl.h>

#include <algorithm>
#include <exception>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/digits.h"
#include "lib/base/files.h"
#include "lib/base/sha256.h"
#include "lib/base/shared_lock.h"
#include "lib/index/index_files.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/process.h"

namespace fstore {
namespace {

constexpr mode_t kOfOwner = 0700;

// Of the file beside "./db": absolute, since SQLite knows of no other folder than the process's.
// Empty when the folder has no path.
std::string fileBeside() {
    const std::string folder = realPath(".");
    const std::string name = std::string(layout::kIndex).substr(2);
    return folder.empty() ? folder : joined(folder == "/" ? "" : folder, name);
}

// Of the folder at this time: a copy of it, also one at the same place, is another one.
std::string idOf(const std::string& path, const struct stat& status) {
    Sha256 digest;
    digest.add(fmt::format("{}\n{}\n{}", path, static_cast<std::uint64_t>(status.st_dev),
                           static_cast<std::uint64_t>(status.st_ino)));
    return toHex(digest.finish());
}

// Whether no other host uses the file system of the folder.
bool isLocal(const char* folder) {
    const os::File opened = os::openFile(folder, O_PATH | O_DIRECTORY);
    return opened && fileSystemOf(opened).reach == LockReach::kHost;
}

// The same of the folder that is there, on the way to one that may not be.
bool isOnThisHost(std::string path) {
    while (!path.empty() && !exists(path)) {
        path.erase(path.rfind('/'));
    }
    return isLocal(path.empty() ? "/" : path.c_str());
}

// Beside "./db", and the caller's if that is another one.
std::vector<std::string> places(const std::string& cache) {
    std::vector<std::string> files;
    for (const std::string& file : {fileBeside(), indexFile(cache)}) {
        if (!file.empty() && std::ranges::find(files, file) == files.end()) {
            files.push_back(file);
        }
    }
    return files;
}

}  // namespace

std::string indexFile(const std::string& cache) {
    struct stat status {};
    if (os::lstat(".", &status) != 0) {
        return {};
    }
    const bool isBeside = os::isOwn(status) && os::access(".", W_OK) == 0 && isLocal(".");
    if (!isBeside && cache.empty()) {
        return {};
    }
    if (isBeside) {
        return fileBeside();
    }
    const std::string folder = realPath(".");
    if (folder.empty()) {
        return {};
    }
    return isOnThisHost(cache) ? joined(cache, idOf(folder, status) + ".index") : std::string();
}

bool makeFoldersFor(const std::string& file, const std::string& cache) {
    if (cache.empty() || !file.starts_with(cache + "/")) {
        return true;
    }
    for (std::size_t end = file.find('/', 1); end != std::string::npos;
         end = file.find('/', end + 1)) {
        const std::string folder = file.substr(0, end);
        if (!exists(folder) && os::mkdir(folder.c_str(), kOfOwner) != 0 && !exists(folder)) {
            return false;
        }
    }
    return true;
}

void removeIndex(const std::string& cache) noexcept {
    try {
        for (const std::string& file : places(cache)) {
            (void)removeIndexAt(file);
        }
    } catch (const std::exception&) {
        // what is left of it is looked at as any other index
    }
}

std::vector<std::string> othersInPlaceOfIndex(const std::string& cache) {
    std::vector<std::string> others;
    const std::string beside = fileBeside();
    for (const std::string& file : places(cache)) {
        for (const std::string& other : othersAt(file)) {
            others.push_back(file == beside ? layout::kIndex + other.substr(beside.size()) : other);
        }
    }
    return others;
}

}  // namespace fstore
