#include "store/filefunc.h"

#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <string_view>

#include "cmn/no_throw.h"
#include "os/files.h"
#include "store/context.h"

namespace {

// What a copy makes of a folder that cannot be listed to its end, of a file that ends before
// its size, and of what already has the name of the copy.
struct Copying {
    bool isAnew = false;  // fails; otherwise it goes on, adds to a folder, and overwrites a file
    NameTest isReplaced = nullptr;  // of duplicateFolder()
};

// Lengthens a path by an entry's name for as long as it lives.
class Below {
public:
    Below(std::string& path, const char* name) : path_(path), length_(path.size()) {
        path_ += '/';
        path_ += name;
    }
    Below(const Below&) = delete;
    Below& operator=(const Below&) = delete;
    ~Below() { path_.resize(length_); }

private:
    std::string& path_;
    const std::size_t length_;
};

bool isDots(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// FileList takes an empty path for the current folder, but names below it are
// formed from the path as it is: they would be those of the file system's root.
Status listFirst(FileList& entries, const std::string& path) {
    if (path.empty()) {
        return kIo;
    }
    if (const Status s = entries.setRootFolder(path.c_str()); s != kOk) {
        return s;
    }
    return entries.readFirst();
}

// A multiple of the file system's block, large enough that a record is moved by
// one read and one write. Not inlined: the walk over folders is recursive and
// must not carry the buffer in each of its frames.
[[gnu::noinline]] bool copyBytes(int from, int to, off_t atLeast) {
    char buffer[4 * 4096];
    for (;;) {
        const ssize_t got = os::readSome(from, buffer, sizeof buffer);
        if (got <= 0) {
            return got == 0 && atLeast <= 0;
        }
        if (!os::writeAll(to, buffer, static_cast<std::size_t>(got))) {
            return false;
        }
        atLeast -= got;
    }
}

Status copyAs(const char* from, const char* to, const Copying& copying) {
    os::File source;
    off_t size = 0;
    if (os::openRegular(from, source, size) != os::Opened::kRegular) {
        return kIo;
    }
    const int existing = copying.isAnew ? O_EXCL : O_TRUNC;
    os::File target = os::openFile(to, O_WRONLY | O_CREAT | existing | O_NONBLOCK | O_NOCTTY);
    if (!target) {
        return kIo;
    }
    // Some file systems tell only at the close that they had no room.
    const off_t atLeast = copying.isAnew ? size : 0;
    const bool copied = copyBytes(source.get(), target.get(), atLeast);
    if (!target.close() || !copied) {
        (void)os::remove(to);
        return kIo;
    }
    return kOk;
}

// A second name costs one call, and no bytes. Where it cannot be had, be it for the file
// system's reasons, the file's or its owner's, the bytes are copied.
Status duplicateFile(const FileList& entries, const char* from, const char* to,
                     const Copying& copying) {
    if (copying.isReplaced != nullptr && entries.isRegularFile() &&
        copying.isReplaced(entries.getName()) && os::link(from, to) == 0) {
        return kOk;
    }
    return copyAs(from, to, copying);
}

bool makeFolder(const char* path, const Copying& copying) {
    return os::mkdir(path, 0750) == 0 || (errno == EEXIST && !copying.isAnew);
}

// The walks below are recursive. Their depth is bounded by the length that the
// system allows a path, to which each level adds, and by the number of streams
// that a process may have open, of which each level holds one.
// NOLINTNEXTLINE(misc-no-recursion)
Status copyTree(std::string& from, std::string& to, const Copying& copying) {
    if (!makeFolder(to.c_str(), copying)) {
        return kIo;
    }
    FileList entries;
    Status listed = listFirst(entries, from);
    for (; listed == kOk; listed = entries.readNext()) {
        if (isDots(entries.getName())) {
            continue;
        }
        const Below source(from, entries.getName());
        const Below target(to, entries.getName());
        const Status copied = entries.isFolder() != 0
                                  ? copyTree(from, to, copying)
                                  : duplicateFile(entries, from.c_str(), to.c_str(), copying);
        if (copied != kOk) {
            return copied;
        }
    }
    if (listed == kIo) {
        return copying.isAnew ? kIo : kOk;
    }
    return listed == kEnd ? kOk : listed;
}

Status copyTree(const char* from, const char* to, const Copying& copying) {
    return noThrow([&] {
        std::string source = from;
        std::string target = to;
        return copyTree(source, target, copying);
    });
}

// NOLINTNEXTLINE(misc-no-recursion)
void clearTree(std::string& path) {
    FileList entries;
    for (Status s = listFirst(entries, path); s == kOk; s = entries.readNext()) {
        if (isDots(entries.getName())) {
            continue;
        }
        // What cannot be deleted stays; removeFolder() finds it by looking afterwards.
        const Below entry(path, entries.getName());
        if (entries.isFolder() != 0) {
            clearTree(path);
            (void)watched::rmdir(path.c_str());
        } else {
            (void)watched::remove(path.c_str());
        }
    }
}

// Slashes at the end of a path make the system follow a link. The root keeps one.
std::string withoutEndSlashes(const char* path) {
    std::string name = path;
    while (name.size() > 1 && name.back() == '/') {
        name.pop_back();
    }
    return name;
}

// A link that could not be deleted is still there although it leads nowhere.
bool isGone(const char* path) {
    return os::presence(path) == os::Presence::kAbsent &&
           os::entryTypeOf(path) != os::EntryType::kLink;
}

}  // namespace

FileList::FileList() noexcept = default;

FileList::~FileList() = default;

Status FileList::setRootFolder(const char* path) {
    return noThrow([&] {
        root = path != nullptr && *path != '\0' ? path : ".";
        return kOk;
    });
}

const char* FileList::getRootFolder() const {
    return root.c_str();
}

Status FileList::readFirst() {
    stream.close();
    current = nullptr;
    folder = 0;
    stream = os::openFolder(root.c_str());
    return stream ? readNext() : kIo;
}

Status FileList::readNext() {
    current = nullptr;
    folder = 0;
    if (!stream) {
        return kClosed;
    }
    const dirent* const entry = os::nextEntry(stream.get());
    if (entry == nullptr) {
        return errno == 0 ? kEnd : kIo;
    }
    return describeEntry(entry);
}

Status FileList::describeEntry(const dirent* entry) {
    return noThrow([&] {
        os::EntryType type = os::entryType(*entry);
        if (type == os::EntryType::kUnknown) {
            type = os::entryTypeOf((root + "/" + entry->d_name).c_str());
        }
        if (type == os::EntryType::kUnknown) {
            return kIo;
        }
        current = entry;
        folder = type == os::EntryType::kFolder ? 1 : 0;
        return kOk;
    });
}

const char* FileList::getName() const {
    return current != nullptr ? current->d_name : nullptr;
}

int FileList::isFolder() const {
    return folder;
}

bool FileList::isRegularFile() const {
    return current != nullptr && os::entryType(*current) == os::EntryType::kFile;
}

Status copyFile(const char* from, const char* to) {
    return copyAs(from, to, {});
}

Status copyFolder(const char* from, const char* to) {
    return from != nullptr && to != nullptr ? copyFolder_r(from, to) : kInvalid;
}

Status copyFolder_r(const char* from, const char* to) {
    return copyTree(from, to, {});
}

Status duplicateFolder(const char* from, const char* to, NameTest isReplaced) {
    return from != nullptr && to != nullptr
               ? copyTree(from, to, {.isAnew = true, .isReplaced = isReplaced})
               : kInvalid;
}

void clearFolder(const char* path) {
    if (*path == '\0') {
        return;
    }
    (void)noThrow([&] {  // what is left over for lack of memory stays, like all that fails
        std::string folder = withoutEndSlashes(path);
        const os::EntryType kind = os::entryTypeOf(folder.c_str());
        if (kind == os::EntryType::kLink) {
            (void)watched::remove(folder.c_str());
        } else if (kind == os::EntryType::kFolder) {
            clearTree(folder);
        }
        return kOk;
    });
}

Status removeFolder(const char* path) {
    if (path == nullptr) {
        return kInvalid;
    }
    clearFolder(path);
    (void)watched::rmdir(path);  // the look that follows tells whether it has worked
    return isGone(path) ? kOk : kIo;
}

std::string getFullPath(const char* path) {
    std::string full;
    (void)noThrow([&] {  // leaves it empty
        char resolved[PATH_MAX];
        if (path == nullptr) {
            return kInvalid;
        }
        const bool found = os::realpath(path, resolved) != nullptr && *resolved != '\0' &&
                           os::presence(resolved) == os::Presence::kPresent;
        full = found ? resolved : path;
        return kOk;
    });
    return full;
}
