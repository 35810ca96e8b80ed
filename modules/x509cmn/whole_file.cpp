#include "modules/x509cmn/whole_file.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "os/files.h"
#include "os/fs.h"
#include "os/handles.h"

namespace {

std::string folderOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return ".";
    }
    return std::string(path.substr(0, slash == 0 ? 1 : slash));
}

// A number that is not soon seen again, in this process or another.
unsigned long long freshNumber() noexcept {
    static std::atomic<unsigned int> calls{0};
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    return static_cast<unsigned long long>(now) * 1024 +
           calls.fetch_add(1, std::memory_order_relaxed);
}

// Creates a file beside the one that it is going to replace; none when it cannot.
// A name that is taken belongs to someone else, and another one is tried.
os::File createBeside(const std::string& folder, std::string& name) {
    os::File file;
    for (int tries = 0; !file && (tries == 0 || (errno == EEXIST && tries < 100)); ++tries) {
        name = folder + "/.new-" + std::to_string(freshNumber());
        file = os::openFile(name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    }
    return file;
}

}  // namespace

Status loadWhole(const char* path, std::size_t most, WipedBytes& into) noexcept {
    os::File file;
    off_t size = 0;
    if (os::openRegular(path, file, size) != os::Opened::kRegular) {
        return kMissing;
    }
    WipedBytes bytes;
    if (static_cast<std::make_unsigned_t<off_t>>(size) > most ||
        !bytes.reset(static_cast<std::size_t>(size))) {
        return kNoMemory;
    }
    // One byte more tells a file that grows, or whose size is not its length.
    unsigned char beyond = 0;
    if (!os::readAll(file.get(), bytes.data(), bytes.size()) ||
        os::readSome(file.get(), &beyond, 1) != 0) {
        return kIo;
    }
    into = std::move(bytes);
    return kOk;
}

Status saveWhole(const char* path, std::span<const unsigned char> bytes) {
    const std::string folder = folderOf(path);
    std::string name;
    os::File file = createBeside(folder, name);
    if (!file) {
        return kIo;
    }
    os::TempPath fresh(std::move(name));
    if (!os::writeAll(file.get(), bytes.data(), bytes.size()) ||
        !os::closeDurably(std::move(file)) || os::rename(fresh.c_str(), path) != 0) {
        return kIo;
    }
    fresh.commit();
    return os::syncFolder(folder.c_str()) ? kOk : kIo;
}
