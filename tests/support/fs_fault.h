// A file system that goes wrong to order: the second definition of os/fs.h
// (target os_fault). Every call reaches the real file system unless a plan says
// otherwise, is counted, and can be recorded; only syncs, which no test could tell
// from none, end there.
//
// Plans and recorders are objects on a test's stack, act on the calls of all
// threads while they live, and may be combined. Calls are serialised, so a
// record is the order in which they happened.
#ifndef TESTS_SUPPORT_FS_FAULT_H
#define TESTS_SUPPORT_FS_FAULT_H

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace fault {

enum class Call {
    kOpen,
    kClose,
    kRead,   // pread() as well
    kWrite,  // pwrite() as well
    kFstat,
    kFsync,
    kSyncfs,
    kStartWriteback,
    kAccess,
    kLstat,
    kRename,
    kRemove,
    kMkdir,
    kRmdir,
    kRealpath,
    kOpendir,
    kReaddir,
    kClosedir,
    kFlock,
    kUtimens,
    kFstatfs,
    kForgetPages,
    kLink
};
inline constexpr int kCallKinds = static_cast<int>(Call::kLink) + 1;

const char* nameOf(Call call);  // as in os/fs.h

// A set of kinds of call.
class Calls {
public:
    constexpr Calls(std::initializer_list<Call> calls) {
        for (const Call call : calls) {
            bits_ |= bit(call);
        }
    }
    static constexpr Calls all() {
        Calls calls{};
        calls.bits_ = (1U << kCallKinds) - 1;
        return calls;
    }
    constexpr bool has(Call call) const { return (bits_ & bit(call)) != 0; }
    constexpr void add(Call call) { bits_ |= bit(call); }

private:
    static constexpr std::uint32_t bit(Call call) { return 1U << static_cast<unsigned>(call); }
    std::uint32_t bits_ = 0;
};

// The calls that change the disk or what of it outlives a loss of power: all
// that a crash state depends on.
inline constexpr Calls kLastingCalls{Call::kOpen,   Call::kClose,  Call::kWrite,  Call::kFsync,
                                     Call::kSyncfs, Call::kRename, Call::kRemove, Call::kMkdir,
                                     Call::kRmdir,  Call::kLink};

// What a call can fail with, as the manual pages and file systems have it.
// Answers that state a fact about the tree (ENOENT, ENOTDIR, EEXIST, ENOTEMPTY,
// EISDIR; of access() also ELOOP and ENAMETOOLONG) are left out, for they would be
// lies and not failures, and so are those that only a wrong call meets (EBADF, EFAULT).
const std::vector<int>& errnosOf(Call call);

enum class Mode {
    kOnce,
    // From the nth call to the end. A signal does not interrupt every restart
    // of a call, so a lasting EINTR strikes every second call only.
    kFromThenOn
};

// What all plans share: trouble at the `nth` call, counted from 1, of those
// kinds that the plan is about.
class Trouble {
public:
    Trouble(const Trouble&) = delete;
    Trouble& operator=(const Trouble&) = delete;

    bool hit() const;  // has it struck?
    bool lift();       // ends the trouble; true when it has struck

protected:
    enum class Kind { kFail, kShort, kDie, kUntype, kFind, kMagic, kMeanwhile };

    Trouble(Kind kind, int nth, Mode mode, Calls calls, int error, std::size_t atMost);
    virtual ~Trouble();

    virtual void act() const {}  // of kMeanwhile

private:
    friend class Seam;

    const Kind kind_;
    const Mode mode_;
    const Calls calls_;
    const int error_;
    const std::size_t atMost_;
    long remaining_;  // calls until it strikes; 0 and below: struck at this and earlier calls
    bool hit_ = false;
};

// The call fails with `error` and does nothing, except that a failing close()
// or closedir() does close, as it would.
class FailingCall : public Trouble {
public:
    FailingCall(int nth, int error, Mode mode = Mode::kOnce, Calls calls = Calls::all())
        : Trouble(Kind::kFail, nth, mode, calls, error, 0) {}
};

// Files have one name each, as on some file systems.
class NoLinks : public FailingCall {
public:
    NoLinks() : FailingCall(1, EPERM, Mode::kFromThenOn, {Call::kLink}) {}
};

// A read or write moves half of the bytes asked for, and no more than `atMost`.
// Calls that this would not shorten do not count. With `atMost` 0 a write
// stores nothing and a read finds the end of the file.
class ShortCall : public Trouble {
public:
    explicit ShortCall(int nth, Mode mode = Mode::kOnce, std::size_t atMost = SIZE_MAX,
                       Calls calls = {Call::kRead, Call::kWrite})
        : Trouble(Kind::kShort, nth, mode, calls, 0, atMost) {}
};

// The process ends before the call, with exit code kDeath and without any
// clean-up. For children: see inChild().
class DyingCall : public Trouble {
public:
    explicit DyingCall(int nth, Calls calls = Calls::all())
        : Trouble(Kind::kDie, nth, Mode::kOnce, calls, 0, 0) {}
};

// Folder listings tell no entry types, as on some file systems.
class UntypedEntries : public Trouble {
public:
    UntypedEntries() : Trouble(Kind::kUntype, 1, Mode::kFromThenOn, {Call::kReaddir}, 0, 0) {}
};

// The next `count` names that access() is asked for are there, whatever the disk says:
// as many files as nobody wants to make.
class TakenNames : public Trouble {
public:
    explicit TakenNames(int count)
        : Trouble(Kind::kFind, count, Mode::kFromThenOn, {Call::kAccess}, 0, 0) {}
};

// In front of the call, somebody else does `what`, by calls of the system's own.
class Meanwhile : public Trouble {
public:
    Meanwhile(int nth, std::function<void()> what, Calls calls = Calls::all())
        : Trouble(Kind::kMeanwhile, nth, Mode::kOnce, calls, 0, 0), what_(std::move(what)) {}

private:
    void act() const override { what_(); }

    const std::function<void()> what_;
};

// Every folder is on a file system of this kind (statfs's f_type).
class FileSystemOf : public Trouble {
public:
    explicit FileSystemOf(std::uint32_t magic)
        : Trouble(Kind::kMagic, 1, Mode::kFromThenOn, {Call::kFstatfs}, 0, magic) {}
};

inline constexpr int kDeath = 77;

// Runs `body` in a child process and returns the child's exit code: what `body`
// returned, kDeath when a DyingCall struck, or 128 plus a signal's number. The
// caller's process must have no other thread.
int inChild(const std::function<int()>& body);

struct Event {
    Call call;
    std::string path;      // as given, behind the name of an os::Base; of a descriptor or stream:
                           // as given when it was opened
    std::string to;        // new name of kRename and kLink, name of the entry that kReaddir gave
    unsigned handle = 0;   // from kOpen or kOpendir to the closing: its number, never used twice
    int flags = 0;         // of kOpen
    mode_t mode = 0;       // of kOpen and kMkdir
    long long offset = 0;  // kWrite: where in the file the bytes went
    std::string data;      // kWrite: the bytes stored
    long long result = 0;  // as returned; of a call that gives a pointer: 1, or 0 for null
    int error = 0;         // errno of a call that failed, else 0
    bool struck = false;   // a plan changed the outcome
};

// One line: the call, its paths, for kOpen what the flags mean to the file
// ("wronly|creat|trunc"), for kRead and kWrite the bytes moved, and "failed"
// with the errno's name where that was so. "rename ./db/a ./db/b"
std::string describe(const Event& event);

// Keeps every call of the given kinds while it lives.
class Recorder {
public:
    explicit Recorder(Calls calls = Calls::all());
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder();

    std::vector<Event> events() const;
    std::vector<std::string> lines() const;  // each event described

private:
    friend class Seam;

    const Calls calls_;
    std::vector<Event> events_;
};

// While it lives, the paths of events are relative to `folder`, wherever the process goes and
// however it names them; what is elsewhere has an absolute one. One may live at a time.
class PathsFrom {
public:
    explicit PathsFrom(std::string folder);  // absolute, without links
    PathsFrom(const PathsFrom&) = delete;
    PathsFrom& operator=(const PathsFrom&) = delete;
    ~PathsFrom();
};

// Calls made since the program began.
long callCount(Calls calls = Calls::all());

// The names under which descriptors and streams that are still open were
// opened; empty when nothing has leaked.
std::vector<std::string> openHandles();

}  // namespace fault

#endif  // TESTS_SUPPORT_FS_FAULT_H
