#include "tests/support/fs_fault.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <optional>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "os/base.h"
#include "os/fs.h"
#include "os/rename_new.h"
#include "os/unnamed_file.h"
#include "tests/support/alloc_fault.h"

namespace fault {
namespace {

std::size_t index(Call call) {
    return static_cast<std::size_t>(call);
}

struct Opened {
    std::string path;
    unsigned handle = 0;
};

// What the plans have decided about one call.
struct Verdict {
    int error = 0;
    std::size_t size = 0;  // bytes that a read or write may move
    bool untyped = false;
    bool found = false;
    std::optional<std::uint32_t> magic;
    bool struck = false;
};

}  // namespace

// The state behind the calls. Whoever uses it holds `mutex`.
class Seam {
public:
    static Seam& get() {
        // Never destroyed: globals of the code under test may outlive any global of ours.
        static Seam& seam = *new Seam;
        return seam;
    }

    Verdict consult(Call call, std::size_t size) {
        ++counts[index(call)];
        Verdict verdict;
        verdict.size = size;
        for (Trouble* const trouble : troubles) {
            if (strikes(*trouble, call, verdict)) {
                trouble->hit_ = verdict.struck = true;
                apply(*trouble, verdict);
            }
        }
        return verdict;
    }

    void record(const Event& event) {
        for (Recorder* const recorder : recorders) {
            if (recorder->calls_.has(event.call)) {
                recorder->events_.push_back(event);
            }
        }
    }

    std::mutex mutex;
    std::vector<Trouble*> troubles;
    std::vector<Recorder*> recorders;
    std::array<long, kCallKinds> counts{};
    std::unordered_map<int, Opened> files;
    std::unordered_map<DIR*, Opened> folders;
    unsigned lastHandle = 0;
    std::string root;  // of a PathsFrom; empty without one

private:
    // Room at once, so that the tables do not grow while a test counts allocations.
    Seam() {
        files.reserve(1024);
        folders.reserve(1024);
    }

    static std::size_t shortened(const Trouble& trouble, std::size_t size) {
        return std::min(trouble.atMost_, std::max<std::size_t>(size / 2, 1));
    }

    static bool strikes(Trouble& trouble, Call call, const Verdict& verdict) {
        if (!trouble.calls_.has(call) || (trouble.kind_ == Trouble::Kind::kShort &&
                                          shortened(trouble, verdict.size) >= verdict.size)) {
            return false;
        }
        const long left = --trouble.remaining_;
        if (trouble.kind_ == Trouble::Kind::kFind) {
            return left >= 0;
        }
        if (left > 0 || (left < 0 && trouble.mode_ == Mode::kOnce)) {
            return false;
        }
        return trouble.error_ != EINTR || left % 2 == 0;
    }

    static void apply(const Trouble& trouble, Verdict& verdict) {
        switch (trouble.kind_) {
            case Trouble::Kind::kFail:
                verdict.error = trouble.error_;
                break;
            case Trouble::Kind::kShort:
                verdict.size = shortened(trouble, verdict.size);
                break;
            case Trouble::Kind::kDie:
                ::_exit(kDeath);
            case Trouble::Kind::kUntype:
                verdict.untyped = true;
                break;
            case Trouble::Kind::kFind:
                verdict.found = true;
                break;
            case Trouble::Kind::kMeanwhile:
                trouble.act();
                break;
            case Trouble::Kind::kMagic:
                verdict.magic = static_cast<std::uint32_t>(trouble.atMost_);
                break;
        }
    }
};

namespace {

// A file that is read by position falls short of what it has only where one of its pages
// ends, or has nothing to give.
std::size_t wholePages(std::size_t allowed, std::size_t asked) {
    constexpr std::size_t kPage = 4096;
    if (allowed == asked || allowed == 0) {
        return allowed;
    }
    const std::size_t pages = allowed / kPage * kPage;
    return pages != 0 ? pages : asked;
}

// Before main(), so that no test finds its allocations among its own.
[[maybe_unused]] const Seam& madeEarly = Seam::get();

// One call on its way through the seam, which it holds for as long as it lives.
class Step {
public:
    Step(Call call, const char* path, std::size_t size = 0) : Step(call, size) {
        event.path = path != nullptr ? fromBase(path) : "(null)";
    }
    Step(Call call, int fd, std::size_t size = 0) : Step(call, size) { knownAs(seam.files, fd); }
    Step(Call call, DIR* dir) : Step(call, std::size_t{0}) { knownAs(seam.folders, dir); }

    // Sets errno when the call has to fail.
    bool fails() {
        if (verdict.error != 0) {
            errno = verdict.error;
        }
        return verdict.error != 0;
    }

    // Ends the call with its result, and with the errno that is set now.
    template <class Number>
    Number done(Number result) {
        finish(result, result < 0);
        return result;
    }
    template <class Target>
    Target* done(Target* result, bool failed) {
        finish(result != nullptr ? 1 : 0, failed);
        return result;
    }

    // The path as it would be without a Base: behind the name of the folder it begins at.
    std::string fromBase(const char* path) const {
        const auto found = seam.files.find(os::baseFolder());
        const bool hasBase = found != seam.files.end() && path[0] != '/';
        const std::string whole = hasBase ? found->second.path + "/" + path : path;
        return seam.root.empty() ? whole : fromRoot(whole, hasBase);
    }

    template <class Table, class Key>
    void open(Table& table, Key key) {
        event.handle = ++seam.lastHandle;
        table[key] = Opened{event.path, event.handle};
    }

private:
    std::string fromRoot(const std::string& path, bool isRelative) const {
        using Path = std::filesystem::path;
        const Path whole = isRelative ? Path(seam.root) / path : std::filesystem::absolute(path);
        const std::string plain = whole.lexically_normal().string();
        const std::string relative = Path(plain).lexically_relative(seam.root).string();
        if (relative.starts_with("..")) {
            return plain;
        }
        return relative.ends_with('/') ? relative.substr(0, relative.size() - 1) : relative;
    }

    Step(Call call, std::size_t size) : verdict(seam.consult(call, size)) {
        event.call = call;
        event.struck = verdict.struck;
    }

    template <class Table, class Key>
    void knownAs(const Table& table, Key key) {
        const auto found = table.find(key);
        if (found == table.end()) {
            event.path = "?";  // not opened through the seam
            return;
        }
        event.path = found->second.path;
        event.handle = found->second.handle;
    }

    void finish(long long result, bool failed) {
        const int kept = errno;
        event.result = result;
        event.error = failed ? kept : 0;
        seam.record(event);
        errno = kept;
    }

    AllocationPause pause_;

public:
    Seam& seam = Seam::get();

private:
    std::lock_guard<std::mutex> lock_{seam.mutex};

public:
    const Verdict verdict;
    Event event{};
};

std::string join(const std::vector<const char*>& words) {
    std::string text;
    for (const char* const word : words) {
        text += text.empty() ? "" : "|";
        text += word;
    }
    return text;
}

std::string describeFlags(int flags) {
    std::vector<const char*> words;
    const int access = flags & O_ACCMODE;
    words.push_back(access == O_RDONLY ? "rdonly" : access == O_WRONLY ? "wronly" : "rdwr");
    const struct {
        int flag;
        const char* word;
    } names[] = {{O_CREAT, "creat"},
                 {O_EXCL, "excl"},
                 {O_TRUNC, "trunc"},
                 {O_APPEND, "append"},
                 {O_DIRECTORY, "directory"}};
    for (const auto& name : names) {
        if ((flags & name.flag) != 0) {
            words.push_back(name.word);
        }
    }
    return join(words);
}

template <class Pointer>
void forget(std::vector<Pointer>& list, Pointer one) {
    list.erase(std::remove(list.begin(), list.end(), one), list.end());
}

}  // namespace

const char* nameOf(Call call) {
    static constexpr std::array<const char*, kCallKinds> kNames{
        "open",   "close",          "read",     "write",       "fstat",   "fsync",
        "syncfs", "startWriteback", "access",   "lstat",       "rename",  "remove",
        "mkdir",  "rmdir",          "realpath", "opendir",     "readdir", "closedir",
        "flock",  "utimens",        "fstatfs",  "forgetPages", "link"};
    return kNames[index(call)];
}

const std::vector<int>& errnosOf(Call call) {
    static const std::array<std::vector<int>, kCallKinds> kErrnos{{
        {EACCES, EAGAIN, EBUSY, EDQUOT, EINTR, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENOMEM,
         ENOSPC, ENXIO, EOVERFLOW, EPERM, EROFS, ETXTBSY},      // open
        {EDQUOT, EINTR, EIO, ENOSPC},                           // close
        {EINTR, EIO, ENOMEM},                                   // read
        {EDQUOT, EFBIG, EINTR, EIO, ENOMEM, ENOSPC, EPERM},     // write
        {EACCES, EIO, ENOMEM, EOVERFLOW},                       // fstat
        {EDQUOT, EINTR, EINVAL, EIO, ENOSPC, EROFS},            // fsync
        {EDQUOT, EIO, ENOSPC},                                  // syncfs
        {EIO, ENOMEM, ENOSPC},                                  // startWriteback
        {EACCES, EIO, ENOMEM},                                  // access
        {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOMEM, EOVERFLOW},  // lstat
        {EACCES, EBUSY, EDQUOT, EIO, ELOOP, EMLINK, ENAMETOOLONG, ENOMEM, ENOSPC, EPERM, EROFS,
         EXDEV},                                                                           // rename
        {EACCES, EBUSY, EIO, ELOOP, ENAMETOOLONG, ENOMEM, ENOSPC, EPERM, EROFS},           // remove
        {EACCES, EDQUOT, EIO, ELOOP, EMLINK, ENAMETOOLONG, ENOMEM, ENOSPC, EPERM, EROFS},  // mkdir
        {EACCES, EBUSY, EIO, ELOOP, ENAMETOOLONG, ENOMEM, EPERM, EROFS},                   // rmdir
        {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOMEM},                         // realpath
        {EACCES, EINTR, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENOMEM},  // opendir
        {EINTR, EIO, ENOMEM, EOVERFLOW},                                    // readdir
        {EINTR, EIO},                                                       // closedir
        {EINTR, EIO, ENOLCK, ENOTSUP, EWOULDBLOCK},                         // flock
        {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOMEM, EPERM, EROFS},           // utimens
        {EINTR, EIO, ENOMEM, ENOSYS, EOVERFLOW},                            // fstatfs
        {EBADF, EINVAL, ESPIPE},                                            // forgetPages
        {EACCES, EDQUOT, EIO, ELOOP, EMLINK, ENAMETOOLONG, ENOMEM, ENOSPC, EOPNOTSUPP, EPERM, EROFS,
         EXDEV},  // link
    }};
    return kErrnos[index(call)];
}

Trouble::Trouble(Kind kind, int nth, Mode mode, Calls calls, int error, std::size_t atMost)
    : kind_(kind), mode_(mode), calls_(calls), error_(error), atMost_(atMost), remaining_(nth) {
    Seam& seam = Seam::get();
    const std::lock_guard<std::mutex> lock(seam.mutex);
    seam.troubles.push_back(this);
}

Trouble::~Trouble() {
    (void)lift();
}

bool Trouble::hit() const {
    const std::lock_guard<std::mutex> lock(Seam::get().mutex);
    return hit_;
}

bool Trouble::lift() {
    Seam& seam = Seam::get();
    const std::lock_guard<std::mutex> lock(seam.mutex);
    forget(seam.troubles, this);
    return hit_;
}

int inChild(const std::function<int()>& body) {
    std::fflush(nullptr);  // or the child would repeat what is still buffered
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        ::_exit(body());
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string describe(const Event& event) {
    std::string line = nameOf(event.call);
    line += " " + event.path;
    if (!event.to.empty()) {
        line += " " + event.to;
    }
    if (event.call == Call::kOpen) {
        line += " " + describeFlags(event.flags);
    }
    if (event.error != 0) {
        return line + " failed " + ::strerrorname_np(event.error);
    }
    if (event.call == Call::kRead || event.call == Call::kWrite) {
        line += " " + std::to_string(event.result);
    }
    return line;
}

Recorder::Recorder(Calls calls) : calls_(calls) {
    Seam& seam = Seam::get();
    const std::lock_guard<std::mutex> lock(seam.mutex);
    seam.recorders.push_back(this);
}

Recorder::~Recorder() {
    Seam& seam = Seam::get();
    const std::lock_guard<std::mutex> lock(seam.mutex);
    forget(seam.recorders, this);
}

std::vector<Event> Recorder::events() const {
    const std::lock_guard<std::mutex> lock(Seam::get().mutex);
    return events_;
}

std::vector<std::string> Recorder::lines() const {
    std::vector<std::string> lines;
    for (const Event& event : events()) {
        lines.push_back(describe(event));
    }
    return lines;
}

PathsFrom::PathsFrom(std::string folder) {
    Seam& seam = Seam::get();
    const std::lock_guard<std::mutex> lock(seam.mutex);
    seam.root = std::move(folder);
}

PathsFrom::~PathsFrom() {
    Seam& seam = Seam::get();
    const std::lock_guard<std::mutex> lock(seam.mutex);
    seam.root.clear();
}

long callCount(Calls calls) {
    Seam& seam = Seam::get();
    const std::lock_guard<std::mutex> lock(seam.mutex);
    long count = 0;
    for (int kind = 0; kind < kCallKinds; ++kind) {
        const Call call = static_cast<Call>(kind);
        count += calls.has(call) ? seam.counts[index(call)] : 0;
    }
    return count;
}

std::vector<std::string> openHandles() {
    Seam& seam = Seam::get();
    const std::lock_guard<std::mutex> lock(seam.mutex);
    std::vector<std::string> names;
    const auto pathOf = [](const auto& open) { return open.second.path; };
    std::transform(seam.files.begin(), seam.files.end(), std::back_inserter(names), pathOf);
    std::transform(seam.folders.begin(), seam.folders.end(), std::back_inserter(names), pathOf);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace fault

using fault::Call;
using fault::Step;

namespace {

// No test takes the power away for real: what was synced is told by the record, and
// the disk's time is saved.
int pretendToSync(int fd) {
    return ::fcntl(fd, F_GETFD) < 0 ? -1 : 0;
}

}  // namespace

int os::open(const char* path, int flags, mode_t mode) noexcept {
    Step step(Call::kOpen, path);
    step.event.flags = flags;
    step.event.mode = mode;
    const int fd = step.fails() ? -1 : ::openat(os::baseFolder(), path, flags, mode);
    if (fd >= 0) {
        step.open(step.seam.files, fd);
    }
    return step.done(fd);
}

int os::close(int fd) noexcept {
    Step step(Call::kClose, fd);
    step.seam.files.erase(fd);
    const int result = ::close(fd);
    return step.done(step.fails() ? -1 : result);
}

ssize_t os::read(int fd, void* data, std::size_t size) noexcept {
    Step step(Call::kRead, fd, size);
    return step.done(step.fails() ? -1 : ::read(fd, data, step.verdict.size));
}

ssize_t os::pread(int fd, void* data, std::size_t size, off_t at) noexcept {
    Step step(Call::kRead, fd, size);
    return step.done(
        step.fails() ? -1 : ::pread(fd, data, fault::wholePages(step.verdict.size, size), at));
}

ssize_t os::write(int fd, const void* data, std::size_t size) noexcept {
    Step step(Call::kWrite, fd, size);
    const ssize_t stored = step.fails() ? -1 : ::write(fd, data, step.verdict.size);
    if (stored > 0) {
        step.event.data.assign(static_cast<const char*>(data), static_cast<std::size_t>(stored));
        step.event.offset = ::lseek(fd, 0, SEEK_CUR) - stored;
    }
    return step.done(stored);
}

ssize_t os::pwrite(int fd, const void* data, std::size_t size, off_t at) noexcept {
    Step step(Call::kWrite, fd, size);
    const ssize_t stored = step.fails() ? -1 : ::pwrite(fd, data, step.verdict.size, at);
    if (stored > 0) {
        step.event.data.assign(static_cast<const char*>(data), static_cast<std::size_t>(stored));
        step.event.offset = at;
    }
    return step.done(stored);
}

int os::fstatfs(int fd, struct statfs* status) noexcept {
    Step step(Call::kFstatfs, fd);
    const int result = step.fails() ? -1 : ::fstatfs(fd, status);
    if (result == 0 && step.verdict.magic) {
        status->f_type = static_cast<decltype(status->f_type)>(*step.verdict.magic);
    }
    return step.done(result);
}

int os::fstat(int fd, struct stat* status) noexcept {
    Step step(Call::kFstat, fd);
    return step.done(step.fails() ? -1 : ::fstat(fd, status));
}

int os::forgetPages(int fd) noexcept {
    Step step(Call::kForgetPages, fd);
    return step.done(step.fails() ? -1 : 0);
}

int os::fsync(int fd) noexcept {
    Step step(Call::kFsync, fd);
    return step.done(step.fails() ? -1 : pretendToSync(fd));
}

int os::syncfs(int fd) noexcept {
    Step step(Call::kSyncfs, fd);
    return step.done(step.fails() ? -1 : pretendToSync(fd));
}

int os::startWriteback(int fd) noexcept {
    Step step(Call::kStartWriteback, fd);
    return step.done(step.fails() ? -1 : ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE));
}

// As a file system without unnamed files: what is on disk is followed by names here.
os::File os::openUnnamed(const char* /*folder*/) noexcept {
    errno = EOPNOTSUPP;
    return {};
}

os::File os::reopen(const File& /*file*/, int /*flags*/) noexcept {
    errno = ENOENT;
    return {};
}

bool os::giveName(const File& /*file*/, const char* /*path*/) noexcept {
    errno = ENOENT;
    return false;
}

int os::flock(int fd, int operation) noexcept {
    Step step(Call::kFlock, fd);
    return step.done(step.fails() ? -1 : ::flock(fd, operation));
}

int os::access(const char* path, int mode) noexcept {
    Step step(Call::kAccess, path);
    if (step.verdict.found) {
        return step.done(0);
    }
    return step.done(step.fails() ? -1 : ::faccessat(os::baseFolder(), path, mode, 0));
}

int os::lstat(const char* path, struct stat* status) noexcept {
    Step step(Call::kLstat, path);
    return step.done(step.fails() ? -1
                                  : ::fstatat(os::baseFolder(), path, status, AT_SYMLINK_NOFOLLOW));
}

int os::rename(const char* from, const char* to) noexcept {
    Step step(Call::kRename, from);
    step.event.to = step.fromBase(to);
    return step.done(step.fails() ? -1 : ::renameat(os::baseFolder(), from, os::baseFolder(), to));
}

int os::renameNew(const char* from, const char* to) noexcept {
    Step step(Call::kRename, from);
    step.event.to = step.fromBase(to);
    return step.done(step.fails() ? -1 : os::renameNewAt(os::baseFolder(), from, to));
}

int os::link(const char* file, const char* to) noexcept {
    Step step(Call::kLink, file);
    step.event.to = step.fromBase(to);
    return step.done(step.fails() ? -1 : ::linkat(os::baseFolder(), file, os::baseFolder(), to, 0));
}

int os::remove(const char* path) noexcept {
    Step step(Call::kRemove, path);
    return step.done(step.fails() ? -1 : os::removeAtBase(path));
}

int os::mkdir(const char* path, mode_t mode) noexcept {
    Step step(Call::kMkdir, path);
    step.event.mode = mode;
    return step.done(step.fails() ? -1 : ::mkdirat(os::baseFolder(), path, mode));
}

int os::rmdir(const char* path) noexcept {
    Step step(Call::kRmdir, path);
    return step.done(step.fails() ? -1 : ::unlinkat(os::baseFolder(), path, AT_REMOVEDIR));
}

int os::utimens(const char* path, const timespec times[2]) noexcept {
    Step step(Call::kUtimens, path);
    return step.done(
        step.fails() ? -1 : ::utimensat(os::baseFolder(), path, times, AT_SYMLINK_NOFOLLOW));
}

char* os::realpath(const char* path, char* resolved) noexcept {
    Step step(Call::kRealpath, path);
    char* const result = step.fails() ? nullptr : os::realpathAtBase(path, resolved);
    return step.done(result, result == nullptr);
}

DIR* os::opendir(const char* path) noexcept {
    Step step(Call::kOpendir, path);
    DIR* const dir = step.fails() ? nullptr : os::opendirAtBase(path);
    if (dir != nullptr) {
        step.open(step.seam.folders, dir);
    }
    return step.done(dir, dir == nullptr);
}

dirent* os::readdir(DIR* dir) noexcept {
    Step step(Call::kReaddir, dir);
    const int before = errno;
    errno = 0;
    dirent* const entry = step.fails() ? nullptr : ::readdir(dir);
    const bool failed = entry == nullptr && errno != 0;
    if (entry != nullptr) {
        step.event.to = entry->d_name;
        if (step.verdict.untyped) {
            entry->d_type = DT_UNKNOWN;
        }
    }
    if (!failed) {
        errno = before;  // as the system does, which sets errno only for a failure
    }
    return step.done(entry, failed);
}

int os::closedir(DIR* dir) noexcept {
    Step step(Call::kClosedir, dir);
    step.seam.folders.erase(dir);
    const int result = ::closedir(dir);
    return step.done(step.fails() ? -1 : result);
}
