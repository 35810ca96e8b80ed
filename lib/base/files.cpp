#include "lib/base/files.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <span>

#include <fmt/format.h>
#include <linux/magic.h>

#include "lib/base/error.h"
#include "lib/base/name_list.h"
#include "os/base.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/output.h"
#include "os/process.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr int kStdin = 0;
constexpr std::size_t kPiece = 1 << 20;

[[noreturn]] void failTooLarge(const std::string& name, std::uint64_t most) {
    throw Failure(kInvalid, fmt::format("{} is larger than the limit of {} bytes", name, most),
                  name);
}

// The system's own links to devices stand in /dev, where only the system writes; not below, where
// everybody may ("/dev/shm").
bool isLinkOfDevices(const std::string& path) {
    constexpr std::string_view kDevices = "/dev/";
    return path.starts_with(kDevices) && path.find('/', kDevices.size()) == std::string::npos;
}

[[noreturn]] void failOnLink(const std::string& name) {
    throw Failure(
        kInvalid,
        fmt::format("{} is a link, which fstore does not follow; name the file itself", name),
        name);
}

// Whether what has the name takes bytes as they come. Throws where neither that nor a new file is
// possible or allowed.
bool isStreamAt(const std::string& path, const std::string& name, bool replace) {
    struct stat status {};
    if (os::lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return false;
        }
        failWithErrno("write", name);
    }
    switch (status.st_mode & S_IFMT) {
        case S_IFREG:
            if (!replace) {
                throw Failure(kInvalid, fmt::format("{} already exists", name),
                              Advice{"--force replaces it"}, name);
            }
            return false;
        case S_IFDIR:
            throw Failure(kInvalid, fmt::format("{} is a folder; name a file", name), name);
        case S_IFLNK:
            if (!isLinkOfDevices(path)) {
                failOnLink(name);
            }
            return true;
        default:
            return true;
    }
}

// The entries of the folder at `path`, which messages call `name`.
void visitEntriesOf(const char* path, const std::string& name, const EntryUser& use) {
    const os::Dir folder = os::openFolder(path);
    if (!folder) {
        failWithErrno("read the folder", name);
    }
    while (const dirent* const entry = os::nextEntry(folder.get())) {
        const std::string inside = entry->d_name;
        if (inside == "." || inside == "..") {
            continue;
        }
        os::EntryType type = os::entryType(*entry);
        if (type == os::EntryType::kUnknown) {
            type = os::entryTypeOf(joined(path, inside).c_str());
        }
        if (type == os::EntryType::kUnknown) {
            failWithErrno("examine", joined(name, inside));
        }
        using Type = FolderEntry::Type;
        use({inside, type == os::EntryType::kFolder ? Type::kFolder
                     : type == os::EntryType::kFile ? Type::kFile
                                                    : Type::kOther});
    }
    if (errno != 0) {
        failWithErrno("read the folder", name);
    }
}

// In the functions below `path` begins at the thread's os::Base, and `name` is for messages.

void removeEntry(const char* path, const std::string& name) {
    requireLock();
    if (os::remove(path) != 0 && errno != ENOENT) {
        failWithErrno("remove", name);
    }
}

void removeFolder(const char* path, const std::string& name) {
    requireLock();
    if (os::rmdir(path) != 0 && errno != ENOENT) {
        failWithErrno("remove", name);
    }
}

// From descriptor to descriptor: a link that takes the place of a folder meanwhile is not
// followed. As deep as the system lets us hold folders open.
// NOLINTNEXTLINE(misc-no-recursion)
void emptyFolder(const char* path, const std::string& name) {
    const os::File folder = os::openFile(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!folder) {
        failWithErrno("read the folder", name);
    }
    const os::Base inside(folder.get());
    NameList files;
    std::vector<std::string> folders;
    visitEntriesOf(".", name, [&](const FolderEntry& entry) {
        if (entry.type == FolderEntry::Type::kFolder) {
            folders.push_back(entry.name);
        } else {
            files.add(entry.name);
        }
    });
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string file(files[i]);
        removeEntry(file.c_str(), joined(name, file));
    }
    for (const std::string& each : folders) {
        const std::string shown = joined(name, each);
        emptyFolder(each.c_str(), shown);
        removeFolder(each.c_str(), shown);
    }
}

}  // namespace

InputFile::InputFile(const std::string& name) : name_(name) {
    if (name == kStandardStream) {
        name_ = "the standard input";
        return;
    }
    file_ = os::openFile(name.c_str(), O_RDONLY | O_NOCTTY);
    if (!file_) {
        failWithErrno("open", name);
    }
}

SecretBytes InputFile::readAll(std::uint64_t most) {
    const int fd = file_ ? file_.get() : kStdin;
    struct stat status {};
    if (os::fstat(fd, &status) != 0) {
        failWithErrno("examine", name_);
    }
    std::uint64_t expected = 0;
    if (S_ISREG(status.st_mode)) {
        expected = static_cast<std::uint64_t>(status.st_size);
        if (expected > most) {
            failTooLarge(name_, most);
        }
    }
    // One byte more than the size: a file that does not grow is then read without a
    // move of what has been read.
    SecretBytes bytes(static_cast<std::size_t>(std::max<std::uint64_t>(expected + 1, 4096)));
    std::size_t filled = 0;
    for (;;) {
        if (filled == bytes.size()) {
            bytes.resize(bytes.size() * 2);
        }
        const std::size_t piece = std::min(bytes.size() - filled, kPiece);
        const ssize_t got = os::readSome(fd, bytes.data() + filled, piece);
        if (got < 0) {
            failWithErrno("read", name_);
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
        if (filled > most) {
            failTooLarge(name_, most);
        }
    }
    bytes.resize(filled);
    return bytes;
}

namespace {

std::atomic<OutputRule> outputRule{nullptr};

}  // namespace

void setOutputRule(OutputRule rule) noexcept {
    outputRule = rule;
}

void refuseOutput(const std::string& path, const std::string& name) {
    if (const OutputRule rule = outputRule) {
        rule(path, name);
    }
}

OutputFile::OutputFile(const std::string& name, bool replace) : name_(name), replace_(replace) {
    if (name == kStandardStream) {
        name_ = "the standard output";
        given_ = os::kStandardOutput;
        return;
    }
    if (name.empty()) {
        throw Failure(kInvalid, "the name of the file to write is empty");
    }
    path_ = absolutePath(name);
    given_ = os::descriptorNamed(path_);
    if (given_ >= 0) {
        struct stat status {};
        if (os::fstat(given_, &status) != 0) {
            failWithErrno("write", name);
        }
    } else if (isStreamAt(path_, name_, replace_)) {
        openStream();
    } else {
        openDraft();
    }
}

void OutputFile::openStream() {
    const int follow = isLinkOfDevices(path_) ? 0 : O_NOFOLLOW;
    stream_ = os::openFile(path_.c_str(), O_WRONLY | O_NOCTTY | follow);
    struct stat status {};
    if (!stream_ || os::fstat(stream_.get(), &status) != 0) {
        failWithErrno("write", name_);
    }
    if (S_ISREG(status.st_mode)) {  // by a link of /dev, or it has just taken the place
        failOnLink(name_);
    }
}

void OutputFile::openDraft() {
    refuseOutput(path_, name_);
    if (!draft_.emplace(os::removeOnSignal).open(path_)) {
        failOnDraft();
    }
}

void OutputFile::failOnDraft() const {
    if (errno == EEXIST && !draft_->inTheWay().empty()) {
        throw Failure(kInvalid,
                      fmt::format("{} cannot be written, since {} is in the way of its draft",
                                  name_, draft_->inTheWay()),
                      Advice{"move that elsewhere"}, draft_->inTheWay());
    }
    failWithErrno("write", name_);
}

OutputFile::~OutputFile() {
    draft_.reset();
    os::removeOnSignal(nullptr);
}

int OutputFile::fd() const noexcept {
    if (draft_) {
        return draft_->file().get();
    }
    return stream_ ? stream_.get() : given_;
}

bool OutputFile::isStandardOutput() const noexcept {
    return given_ == os::kStandardOutput;
}

void OutputFile::write(std::span<const unsigned char> bytes) {
    if (!os::writeAll(fd(), bytes.data(), bytes.size())) {
        if (given_ == os::kStandardOutput && errno == EPIPE) {
            throw Failure(kIo, "");  // who closed the pipe knows it
        }
        failWithErrno("write", name_);
    }
}

void OutputFile::allow(mode_t mode) {
    if (draft_ && !os::setPermissions(draft_->file(), mode)) {
        failWithErrno("set the permissions of", name_);
    }
}

os::File OutputFile::reopen() const {
    os::File file = draft_->reopenForReading();
    if (!file) {
        failWithErrno("read back", name_);
    }
    return file;
}

void OutputFile::commit() {
    if (!draft_) {
        // A disk can be synced, a FIFO or terminal cannot.
        const bool done =
            !stream_ || ((os::fsync(stream_.get()) == 0 || errno == EINVAL) && stream_.close());
        if (!done) {
            failWithErrno("write", name_);
        }
        return;
    }
    if (isStreamAt(path_, name_, replace_)) {
        throw Failure(kInvalid, fmt::format("{} became another file meanwhile", name_), name_);
    }
    using Existing = os::Draft::Existing;
    if (!draft_->commit(replace_ ? Existing::kReplaced : Existing::kKept)) {
        if (errno == EEXIST && !replace_ && draft_->inTheWay().empty()) {
            throw Failure(kInvalid,
                          fmt::format("{} was made by another program meanwhile, and stays", name_),
                          name_);
        }
        failOnDraft();
    }
    syncFolder(path_.substr(0, path_.rfind('/')) + "/");
}

std::string absolutePath(const std::string& path) {
    if (path.starts_with('/')) {
        return path;
    }
    const std::string here = os::currentFolder();
    if (here.empty()) {
        failWithErrno("find", "the current folder");
    }
    return joined(here == "/" ? "" : here, path);
}

std::string realPath(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> text(os::realpath(path.c_str(), nullptr),
                                                      std::free);
    return text != nullptr ? std::string(text.get()) : std::string();
}

std::string joined(const std::string& folder, const std::string& name) {
    return folder + "/" + name;
}

void visitEntries(const std::string& path, const EntryUser& use) {
    visitEntriesOf(path.c_str(), path, use);
}

// A folder has a link from each folder in it, besides its own name and ".". Others have one link
// for a folder always, or answer what a server of theirs thinks.
bool hasNoFolders(const std::string& path) {
    constexpr std::array<std::uint32_t, 3> kCounting{EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC,
                                                     TMPFS_MAGIC};
    constexpr nlink_t kOfItself = 2;
    const os::File folder = os::openFile(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    struct stat status {};
    struct statfs system {};
    return folder && os::fstat(folder.get(), &status) == 0 && status.st_nlink == kOfItself &&
           os::fstatfs(folder.get(), &system) == 0 &&
           std::ranges::find(kCounting, static_cast<std::uint32_t>(system.f_type)) !=
               kCounting.end();
}

std::vector<FolderEntry> readFolder(const std::string& path) {
    std::vector<FolderEntry> entries;
    visitEntries(path, [&](FolderEntry entry) { entries.push_back(std::move(entry)); });
    return entries;
}

std::vector<FolderEntry> listFolder(const std::string& path) {
    std::vector<FolderEntry> entries = readFolder(path);
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
    return entries;
}

RegularFile openRegular(const std::string& path) {
    os::File file;
    off_t size = 0;
    switch (os::openRegular(path.c_str(), file, size, os::Links::kRefuse)) {
        case os::Opened::kRegular:
            return {std::move(file), static_cast<std::uint64_t>(size)};
        case os::Opened::kNotRegular:
            throw Failure(kMalformed, fmt::format("{} is not a regular file", path), path);
        case os::Opened::kFailed:
            break;
    }
    failWithErrno("open", path);
}

void readInPieces(const std::string& path, const PieceUser& use) {
    const os::File file = openRegular(path).file;
    std::vector<unsigned char> piece(1 << 16);
    ssize_t got = 0;
    while ((got = os::readSome(file.get(), piece.data(), piece.size())) > 0) {
        use(std::span(piece).first(static_cast<std::size_t>(got)));
    }
    if (got < 0) {
        failWithErrno("read", path);
    }
}

bool exists(const std::string& path) {
    struct stat status {};
    if (os::lstat(path.c_str(), &status) == 0) {
        return true;
    }
    if (errno == ENOENT || errno == ENOTDIR) {
        return false;
    }
    failWithErrno("examine", path);
}

os::EntryType typeOf(const std::string& path) {
    const os::EntryType found = os::entryTypeOf(path.c_str());
    if (found == os::EntryType::kUnknown && errno != ENOENT && errno != ENOTDIR) {
        failWithErrno("examine", path);
    }
    return found;
}

bool isA(os::EntryType type, const std::string& path) {
    return typeOf(path) == type;
}

void removeTree(const std::string& path) {
    const os::EntryType type = typeOf(path);
    if (type == os::EntryType::kUnknown) {
        return;
    }
    if (type != os::EntryType::kFolder) {
        removeEntry(path.c_str(), path);  // a link goes, what it leads to stays
        return;
    }
    emptyFolder(path.c_str(), path);
    removeFolder(path.c_str(), path);
}

void syncFolder(const std::string& path) {
    if (!os::syncFolder(path.c_str())) {
        failWithErrno("sync", path);
    }
}

}  // namespace fstore
