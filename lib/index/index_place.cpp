#include "lib/index/index_place.h"

#include <fcntl.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

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

std::string nameBeside() {
    return std::string(layout::kIndex).substr(2);
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
    std::vector<std::string> files{layout::kIndex};
    std::string chosen = indexFile(cache);
    if (chosen.starts_with(cache + "/") && !cache.empty()) {
        files.push_back(std::move(chosen));
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
    const std::string folder = realPath(".");
    if (folder.empty()) {
        return {};
    }
    if (isBeside) {
        return joined(folder == "/" ? "" : folder, nameBeside());
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
    for (const std::string& file : places(cache)) {
        std::ranges::move(othersAt(file), std::back_inserter(others));
    }
    return others;
}

}  // namespace fstore
