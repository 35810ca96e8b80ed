#include "lib/base/switched_files.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/files.h"
#include "os/files.h"
#include "os/links.h"
#include "os/process.h"

namespace fstore {
namespace {

constexpr const char* kBefore = "before";
constexpr const char* kNew = "new";
constexpr const char* kLock = "lock";
constexpr const char* kNothing = "nothing";  // the text of the link "before", where nothing was
constexpr mode_t kForAll = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;
constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;

using Type = os::EntryType;

std::string folderAbove(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

[[noreturn]] void refusePath(const std::string& path, const std::string& why) {
    throw Failure(kInvalid, fmt::format("{} {}", path, why), path);
}

void requireName(const std::string& path, const std::string& given) {
    const std::string name = nameOf(path);
    if (name.empty() || name == "." || name == "..") {
        refusePath(given,
                   "cannot be replaced as a whole; name a file, or a folder by its own name");
    }
}

// What is put in place: the one file, or the folder of all of them.
std::string placeOf(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        requireName(name, name);
        if (folderAbove(name) != folderAbove(names.front())) {
            refusePath(name,
                       fmt::format("is not in the folder of {}; files that belong together are "
                                   "one file, or files of one folder",
                                   names.front()));
        }
    }
    if (names.size() == 1) {
        return names.front();
    }
    requireName(folderAbove(names.front()), names.front());
    return folderAbove(names.front());
}

struct stat statusOf(const std::string& path) {
    struct stat status {};
    if (os::lstat(path.c_str(), &status) != 0) {
        failWithErrno("examine", path);
    }
    return status;
}

std::string linkText(const std::string& path) {
    auto text = os::readLink(path.c_str());
    if (!text) {
        failWithErrno("read the link", path);
    }
    return *std::move(text);
}

bool isOfUsOrRoot(const struct stat& status) {
    return os::isOwn(status) || status.st_uid == 0;
}

// Whoever can rename a folder or link on the way to the files could put another link in its place
// at any time, and have this process, which may be root's, read, write and remove elsewhere.
[[noreturn]] void refuseOthers(const std::string& path) {
    refusePath(path,
               "belongs to somebody else, or others can write it, who could have fstore write "
               "elsewhere; run it as the user whom the folder belongs to, or name another folder");
}

constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

// The links in such a folder are those of its users, each of whom can exchange their own.
bool isShared(const struct stat& folder) {
    return (folder.st_mode & kOthersWrite) != 0 && (folder.st_mode & S_ISVTX) != 0;
}

// Where a path leads, found step by step as the system does: what a link leads to may be beyond
// suspicion, and the link itself somebody else's.
class Walk {
public:
    explicit Walk(std::string path) : given_(std::move(path)), rest_(given_) {}

    // The folder's path without links.
    std::string end() {
        enter("/");
        while (!rest_.empty()) {
            const std::size_t size = std::min(rest_.find('/'), rest_.size());
            const std::string name = rest_.substr(0, size);
            rest_.erase(0, size + 1);
            step(name);
        }
        return here_ == "/" ? "" : here_;
    }

private:
    void step(const std::string& name) {
        if (name.empty() || name == ".") {
            return;
        }
        if (name == "..") {
            const std::string above = folderAbove(here_);
            enter(above.empty() ? "/" : above);
            return;
        }
        const std::string path = here_ == "/" ? "/" + name : joined(here_, name);
        if (isA(Type::kLink, path)) {
            follow(path);
        } else {
            enter(path);
        }
    }

    void enter(const std::string& folder) {
        if (os::lstat(folder.c_str(), &status_) != 0) {
            fail(errno);
        }
        if (!S_ISDIR(status_.st_mode)) {
            fail(ENOTDIR);
        }
        if (((status_.st_mode & kOthersWrite) != 0 && !isShared(status_)) ||
            !isOfUsOrRoot(status_)) {
            refuseOthers(folder);
        }
        here_ = folder;
    }

    void follow(const std::string& link) {
        constexpr int kMostLinks = 40;  // as the system
        if (++links_ > kMostLinks) {
            fail(ELOOP);
        }
        if (isShared(status_) && !isOfUsOrRoot(statusOf(link))) {
            refuseOthers(link);
        }
        const std::string text = linkText(link);
        rest_ = text + "/" + rest_;
        if (text.starts_with('/')) {
            enter("/");
        }
    }

    [[noreturn]] void fail(int error) const {
        errno = error;
        failWithErrno("find the folder", given_);
    }

    std::string given_;
    std::string rest_;       // what is still to go
    std::string here_;       // the folder that is reached
    struct stat status_ {};  // its status
    int links_ = 0;
};

// The path without links on the way to the name.
std::string inRealFolder(const std::string& path) {
    return joined(Walk(folderAbove(path) + "/").end(), nameOf(path));
}

// The number that the name is, or 0.
unsigned int numberOf(std::string_view name) {
    unsigned int number = 0;
    const auto [rest, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    return error == std::errc() && rest == name.data() + name.size() ? number : 0;
}

void removeFile(const std::string& path) {
    if (os::remove(path.c_str()) != 0 && errno != ENOENT) {
        failWithErrno("remove", path);
    }
}

void writeSynced(const std::string& path, const SecretBytes& bytes, mode_t mode) {
    OutputFile file(path, true);
    file.allow(mode);
    file.write(bytes);
    file.commit();
}

void writeLink(const std::string& path, const std::string& text) {
    removeFile(path);
    if (!os::makeLink(text.c_str(), path.c_str())) {
        failWithErrno("make the link", path);
    }
    syncFolder(folderAbove(path));
}

SecretBytes readFile(const std::string& path) {
    constexpr std::uint64_t kMost = 64U << 20;  // far more than is ever written here
    return InputFile(path).readAll(kMost);
}

// A file or a link, as it is.
void copy(const std::string& from, const std::string& to) {
    if (isA(Type::kLink, from)) {
        writeLink(to, linkText(from));
    } else {
        writeSynced(to, readFile(from), statusOf(from).st_mode & kPermissions);
    }
}

// Whether the name is still that of the open file.
bool isNamed(const os::File& file, const std::string& path) {
    struct stat open {
    }, named{};
    if (os::fstat(file.get(), &open) != 0) {
        failWithErrno("examine", path);
    }
    return os::lstat(path.c_str(), &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

// A few of the names, and how many there are besides.
std::string someOf(const std::vector<std::string>& names) {
    constexpr std::size_t kShown = 3;
    const std::size_t shown = std::min(names.size(), kShown);
    const std::string text = fmt::format(
        "{}", fmt::join(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(shown), ", "));
    return shown == names.size() ? text : fmt::format("{} and {} more", text, names.size() - shown);
}

// Somebody else's could be changed by them at any time, whatever is in it now.
bool isFile(const std::string& path, const SwitchedFile& expected) {
    if (!isA(Type::kFile, path)) {
        return false;
    }
    const struct stat status = statusOf(path);
    return os::isOwn(status) && (status.st_mode & kPermissions) == expected.mode &&
           static_cast<std::size_t>(status.st_size) == expected.bytes.size() &&
           readFile(path) == expected.bytes;
}

}  // namespace

SwitchedFiles::SwitchedFiles(std::string path, bool isFolder)
    : path_(std::move(path)),
      stateName_(fmt::format(".{}.fstore", nameOf(path_))),
      state_(joined(folderAbove(path_), stateName_)),
      isFolder_(isFolder) {}

SwitchedFiles::SwitchedFiles(const std::vector<std::string>& names, double lockSeconds)
    : SwitchedFiles(inRealFolder(placeOf(names)), names.size() > 1) {
    refuseOutput(path_, names.front());
    refuseOther();
    while (!lock(lockSeconds)) {
    }
    refuseOther();  // it may have come while we waited
    refuseFurther(names);
    removeLeftovers();
}

void SwitchedFiles::check(const std::vector<std::string>& names) {
    const SwitchedFiles place(inRealFolder(placeOf(names)), names.size() > 1);
    place.refuseOther();
    place.refuseFurther(names);
}

SwitchedFiles::~SwitchedFiles() {
    if (lock_) {
        (void)os::remove(inState(kLock).c_str());
        (void)os::rmdir(state_.c_str());  // succeeds when nothing was ever put in place
    }
}

void SwitchedFiles::refuseOther() const {
    const Type type = typeOf(path_);
    if (type == Type::kUnknown || (type == Type::kFile && !isFolder_)) {
        return;
    }
    if (!isFolder_) {
        refusePath(path_, type == Type::kLink
                              ? "is a link, which fstore does not follow; name the file itself"
                              : "is not a file; name another one, or move it aside");
    }
    if (type != Type::kLink || !folderInUse(path_)) {
        refusePath(path_,
                   "is in the way: the files of a folder change together only if fstore makes the "
                   "folder; move it aside, name a folder that is not there, or one file for all");
    }
}

// The folder goes as a whole, and with it whatever somebody else keeps there.
void SwitchedFiles::refuseFurther(const std::vector<std::string>& names) const {
    if (!isFolder_ || !isThere()) {
        return;
    }
    std::vector<std::string> further;
    for (const FolderEntry& entry : listFolder(path_ + "/")) {
        const bool isOurs = std::ranges::any_of(
            names, [&](const std::string& name) { return nameOf(name) == entry.name; });
        if (!isOurs || entry.type == FolderEntry::Type::kFolder) {
            further.push_back(entry.name);
        }
    }
    if (!further.empty()) {
        refusePath(path_,
                   fmt::format("has {}, which this deployment does not write: such a folder is "
                               "for one certificate and its key, and is replaced as a whole; "
                               "move what else is there elsewhere, or name another folder",
                               someOf(further)));
    }
}

// The folder, whose files others may read. One that they can write would let them choose what is
// put in place.
os::File SwitchedFiles::openState() const {
    os::File state = os::openFile(state_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!state && errno == ENOENT) {
        return state;
    }
    struct stat status {};
    if (!state || os::fstat(state.get(), &status) != 0) {
        failWithErrno("open the folder", state_);
    }
    if (!os::isOwn(status) || (status.st_mode & kOthersWrite) != 0) {
        refusePath(state_, "belongs to somebody else, or others can write it; remove it");
    }
    if (isFolder_ && (status.st_mode & kPermissions) != kForAll &&
        !os::setPermissions(state, kForAll)) {
        failWithErrno("let others read", state_);
    }
    return state;
}

// False to try again: whoever had the lock has removed it, and perhaps the folder. It is a file
// that others cannot open; whom the system lets open the folder, it lets lock it, for ever.
//
// On a file system that is read-only, nobody replaces anything, and there is nothing to lock.
bool SwitchedFiles::lock(double seconds) {
    if (os::mkdir(state_.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        if (errno == EROFS) {
            return true;
        }
        failWithErrno("create the folder", state_);
    }
    if (!openState()) {
        return false;
    }
    const std::string path = inState(kLock);
    os::File file = os::openFile(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, kReadableByOwner);
    if (!file && errno == ENOENT) {
        return false;
    }
    if (!file && errno == EROFS) {
        return true;
    }
    if (!file) {
        failWithErrno("open", path);
    }
    const os::Locked locked = os::lockFile(file, os::LockKind::kExclusive, seconds);
    if (locked == os::Locked::kFailed) {
        failWithErrno("lock", path);
    }
    if (locked == os::Locked::kBusy) {
        throw Failure(kAlreadyOpen,
                      fmt::format("another process is replacing {}; try again later, or wait "
                                  "longer with --lock-timeout",
                                  path_),
                      path_);
    }
    if (!isNamed(file, path)) {
        return false;
    }
    lock_ = std::move(file);
    return true;
}

std::string SwitchedFiles::inState(const std::string& name) const {
    return joined(state_, name);
}

// The name in the state of the folder that the link leads to, if it is one of those.
std::optional<std::string> SwitchedFiles::folderInUse(const std::string& link) const {
    const auto text = os::readLink(link.c_str());
    if (!text || !text->starts_with(stateName_ + "/")) {
        return std::nullopt;
    }
    std::string name = text->substr(stateName_.size() + 1);
    return numberOf(name) != 0 ? std::optional(std::move(name)) : std::nullopt;
}

void SwitchedFiles::removeLeftovers() const {
    if (!lock_) {
        return;  // of a file system that is read-only
    }
    const auto current = folderInUse(path_), before = folderInUse(inState(kBefore));
    for (const FolderEntry& entry : listFolder(state_)) {
        if (entry.name != kLock && entry.name != kBefore && entry.name != current &&
            entry.name != before) {
            removeTree(inState(entry.name));
        }
    }
}

// Whether there are any files: our own link to a folder that was removed leads to none.
bool SwitchedFiles::isThere() const {
    return exists(isFolder_ ? path_ + "/" : path_);
}

bool SwitchedFiles::hold(const std::vector<SwitchedFile>& files) const {
    if (!isFolder_) {
        return files.size() == 1 && isFile(path_, files.front());
    }
    if (!isThere()) {
        return false;
    }
    const struct stat status = statusOf(path_ + "/");
    return os::isOwn(status) && (status.st_mode & kPermissions) == kForAll &&
           readFolder(path_ + "/").size() == files.size() &&
           std::ranges::all_of(files,
                               [](const SwitchedFile& file) { return isFile(file.name, file); });
}

std::optional<SecretBytes> SwitchedFiles::file() const {
    return !isFolder_ && isThere() ? std::optional(readFile(path_)) : std::nullopt;
}

bool SwitchedFiles::isPending() const {
    return exists(inState(kBefore));
}

void SwitchedFiles::replace(const std::vector<SwitchedFile>& files, Before before) {
    if (!lock_) {
        errno = EROFS;
        failWithErrno("replace", path_);
    }
    if (!isThere()) {
        removeFile(path_);  // a link to a folder that was removed: the new one may get its number
    }
    if (isFolder_) {
        writeLink(inState(kNew), joined(stateName_, writeFolder(files)));
    } else {
        writeSynced(inState(kNew), files.front().bytes, files.front().mode);
    }
    if (before == Before::kKept && !isPending()) {
        keepBefore();
    }
    put();
    if (!isPending()) {
        removeLeftovers();
    }
}

// Under a name that was not in use before: a program may be reading the folder of the last one.
std::string SwitchedFiles::writeFolder(const std::vector<SwitchedFile>& files) const {
    unsigned int last = 0;
    for (const FolderEntry& entry : readFolder(state_)) {
        last = std::max(last, numberOf(entry.name));
    }
    std::string name = std::to_string(last + 1);
    const std::string path = inState(name);
    if (os::mkdir(path.c_str(), S_IRWXU) != 0) {
        failWithErrno("create the folder", path);
    }
    for (const SwitchedFile& file : files) {
        writeSynced(joined(path, nameOf(file.name)), file.bytes, file.mode);
    }
    const os::File folder = os::openFile(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!folder || !os::setPermissions(folder, kForAll)) {
        failWithErrno("let others read", path);
    }
    syncFolder(path);
    return name;
}

void SwitchedFiles::keepBefore() const {
    if (!isThere()) {
        writeLink(inState(kBefore), kNothing);
    } else {
        copy(path_, inState(kBefore));
    }
}

void SwitchedFiles::put() const {
    const std::string from = inState(kNew);
    if (os::rename(from.c_str(), path_.c_str()) != 0) {
        failWithErrno("replace", path_);
    }
    syncFolder(folderAbove(path_) + "/");
}

bool SwitchedFiles::restore() {
    const std::string before = inState(kBefore);
    if (isA(Type::kLink, before) && linkText(before) == kNothing) {
        removeFile(path_);
        syncFolder(folderAbove(path_) + "/");
        return false;
    }
    copy(before, inState(kNew));
    put();
    return true;
}

void SwitchedFiles::settle() {
    if (isPending()) {
        removeFile(inState(kBefore));
        syncFolder(state_);  // a "before" that came back would lead to a folder that is removed
    }
    removeLeftovers();
}

}  // namespace fstore
