#include "lib/archive/tree.h"

#include <fcntl.h>

#include <climits>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/name_list.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/process.h"

namespace fstore {
namespace {

constexpr mode_t kPermissions = 0777;
constexpr std::uint64_t kMostFile = 0xFFFFFFFF;  // the size of a body has 32 bits

// By path in the archive: the modes there of what has another one on the disk.
using Modes = std::map<std::string, unsigned int>;

// A folder tree as it goes into an archive.
class TreeWriter {
public:
    TreeWriter(ArchiveWriter& writer, const Modes& modes) : writer_(writer), modes_(modes) {}

    void add(const std::string& folder, const std::string& path);
    std::vector<LeftOut> takeLeftOut() { return std::move(leftOut_); }

private:
    unsigned int modeOf(const struct stat& status, const std::string& path) const {
        const auto known = modes_.find(path);
        return known != modes_.end() ? known->second
                                     : static_cast<unsigned int>(status.st_mode & kPermissions);
    }
    void addFolder(const std::string& folder, const std::string& path);
    bool addFile(const std::string& name, const std::string& path);

    ArchiveWriter& writer_;
    const Modes& modes_;
    std::vector<LeftOut> leftOut_;
};

void TreeWriter::addFolder(const std::string& folder, const std::string& path) {
    struct stat status {};
    if (os::lstat(folder.c_str(), &status) != 0) {
        failWithErrno("examine", folder);
    }
    writer_.addFolder({true, path, modeOf(status, path), 0});
}

// False for what can be no file of a database: one larger than a body can be.
bool TreeWriter::addFile(const std::string& name, const std::string& path) {
    const os::File file = os::openFile(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    if (!file || os::fstat(file.get(), &status) != 0) {
        failWithErrno("open", name);
    }
    if (static_cast<std::uint64_t>(status.st_size) > kMostFile) {
        return false;
    }
    writer_.beginFile(
        {false, path, modeOf(status, path), static_cast<std::uint64_t>(status.st_size)});
    std::vector<unsigned char> piece(1 << 18);
    ssize_t got = 0;
    while ((got = os::readSome(file.get(), piece.data(), piece.size())) > 0) {
        writer_.write(std::span(piece).first(static_cast<std::size_t>(got)));
    }
    if (got < 0) {
        failWithErrno("read", name);
    }
    writer_.endFile();
    return true;
}

// Whether the system refuses the path. The store uses the same paths, so no record is deeper.
bool isTooDeep(const std::string& path) {
    return path.size() >= PATH_MAX;
}

// What is in a folder, by name. Nearly all of it are files, of which there may be millions.
class Contents {
public:
    explicit Contents(const std::string& folder) {
        visitEntries(folder, [this](const FolderEntry& entry) {
            names_.add(entry.name);
            if (entry.type != FolderEntry::Type::kFile) {
                others_.emplace(entry.name, entry.type);
            }
        });
        names_.sort();
    }

    std::size_t size() const noexcept { return names_.size(); }
    FolderEntry operator[](std::size_t index) const {
        std::string name(names_[index]);
        const auto other = others_.find(name);
        return {std::move(name), other != others_.end() ? other->second : FolderEntry::Type::kFile};
    }

private:
    NameList names_;
    std::map<std::string, FolderEntry::Type> others_;
};

// NOLINTNEXTLINE(misc-no-recursion): as deep as folders are
void TreeWriter::add(const std::string& folder, const std::string& path) {
    addFolder(folder, path);
    const Contents contents(folder);
    for (std::size_t i = 0; i < contents.size(); ++i) {
        const FolderEntry entry = contents[i];
        const std::string name = joined(folder, entry.name);
        const std::string inside = joined(path, entry.name);
        if (isTooDeep(name)) {
            leftOut_.push_back({name, "its path is longer than the system takes"});
            continue;
        }
        switch (entry.type) {
            case FolderEntry::Type::kFolder:
                add(name, inside);
                break;
            case FolderEntry::Type::kFile:
                if (!addFile(name, inside)) {
                    leftOut_.push_back({name, "it is larger than any file of a database"});
                }
                break;
            case FolderEntry::Type::kOther:
                leftOut_.push_back({name, "it is neither a file nor a folder"});
                break;
        }
    }
}

void setMode(const os::File& file, unsigned int mode, const std::string& path) {
    if (!os::setPermissions(file, static_cast<mode_t>(mode))) {
        failWithErrno("set the permissions of", path);
    }
}

void extractFile(unsigned int mode, ArchiveReader& reader, const std::string& path) {
    os::File file = os::openFile(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
    if (!file) {
        failWithErrno("make", path);
    }
    for (auto piece = reader.read(); !piece.empty(); piece = reader.read()) {
        if (!os::writeAll(file.get(), piece.data(), piece.size())) {
            failWithErrno("write", path);
        }
    }
    setMode(file, mode, path);
    if (!file.close()) {
        failWithErrno("write", path);
    }
}

// What the folder has, as the manifest of an archive of it would say. It has nothing that would be
// left out.
ArchiveTotals totalsOf(const std::string& folder, const Modes& modes) {
    ArchiveWriter writer([](std::span<const unsigned char>) {});
    TreeWriter(writer, modes).add(folder, kArchiveRoot);
    return writer.finish();
}

void syncTree(const std::string& folder) {
    const os::File opened = os::openFile(folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (!opened || os::syncfs(opened.get()) != 0) {
        failWithErrno("sync", folder);
    }
}

}  // namespace

ArchiveReader::Source archiveSource(int descriptor, const std::string& name,
                                    const BytesSeen& seen) {
    return [descriptor, name, seen](std::span<unsigned char> piece) {
        const ssize_t got = os::readSome(descriptor, piece.data(), piece.size());
        if (got < 0) {
            failWithErrno("read", name);
        }
        if (seen) {
            seen(static_cast<std::size_t>(got));
        }
        return static_cast<std::size_t>(got);
    };
}

ArchiveTotals verifyArchive(const os::File& file, const std::string& name, const BytesSeen& seen) {
    ArchiveReader reader(archiveSource(file.get(), name, seen));
    while (reader.next()) {
    }
    return reader.totals();
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as folders are
std::uint64_t sizeOfTree(const std::string& folder) {
    std::uint64_t bytes = 0;
    try {
        visitEntries(folder, [&](const FolderEntry& entry) {
            const std::string name = joined(folder, entry.name);
            struct stat status {};
            if (entry.type == FolderEntry::Type::kFolder) {
                bytes += sizeOfTree(name);
            } else if (os::lstat(name.c_str(), &status) == 0) {
                bytes += static_cast<std::uint64_t>(status.st_size);
            }
        });
    } catch (const MemoryFailure&) {
        throw;
    } catch (const Failure&) {
        // who reads it next is told why that cannot be
    }
    return bytes;
}

std::vector<LeftOut> addTree(const std::string& folder, ArchiveWriter& writer) {
    const Modes none;
    TreeWriter tree(writer, none);
    tree.add(folder, kArchiveRoot);
    return tree.takeLeftOut();
}

ArchiveTotals extractTree(const os::File& file, const std::string& name, const std::string& folder,
                          const BytesSeen& seen) {
    ArchiveReader reader(archiveSource(file.get(), name, seen));
    // A folder gets its mode last: it may not allow what has yet to be made in it.
    std::vector<std::pair<std::string, unsigned int>> folders;
    // Whoever packed the archive does not decide who may read what is unpacked.
    const unsigned int allowed = ~static_cast<unsigned int>(os::givenMask());
    Modes reduced;
    while (const auto entry = reader.next()) {
        const std::string path = folder + entry->path.substr(std::string_view(kArchiveRoot).size());
        const unsigned int mode = entry->mode & allowed;
        if (mode != entry->mode) {
            reduced.emplace(entry->path, entry->mode);
        }
        if (!entry->isFolder) {
            extractFile(mode, reader, path);
        } else if (os::mkdir(path.c_str(), S_IRWXU) == 0) {
            folders.emplace_back(path, mode);
        } else {
            failWithErrno("create the folder", path);
        }
    }
    for (auto it = folders.rbegin(); it != folders.rend(); ++it) {
        setMode(os::openFile(it->first.c_str(), O_RDONLY | O_DIRECTORY), it->second, it->first);
    }
    if (totalsOf(folder, reduced).manifest != reader.totals().manifest) {
        throw Failure(kIo, fmt::format("{} reads back differently from what was written", folder),
                      folder);
    }
    syncTree(folder);
    return reader.totals();
}

}  // namespace fstore
