// What a program decides about its own process: secrecy, standard streams, signals, its
// folder, and a lock that keeps other processes out.
//
// For a program's main thread, before it starts others.
#ifndef OS_PROCESS_H
#define OS_PROCESS_H

#include <csignal>
#include <cstddef>
#include <string>

#include "os/handles.h"

namespace os {

// Opens those of the descriptors 0, 1 and 2 that are closed, on /dev/null, so that reading and
// writing them still fails with EBADF: an input that nobody gave is not an empty one. Otherwise the
// next file opened would get such a number, and messages would be written into it.
[[nodiscard]] bool occupyStandardStreams() noexcept;

// No core dumps, no debugging by other processes of this user, and new files for the user
// alone (umask 077). False when the system refused one of these.
[[nodiscard]] bool keepSecrets() noexcept;

// `size` bytes of memory for secrets, zeroed, never to be given back. Core dumps leave it out, and
// it is not swapped as long as the user may lock so much memory (RLIMIT_MEMLOCK): a guard that the
// system refuses is left out, and the memory is good all the same. Null when there is none. Any
// thread may call this.
[[nodiscard]] void* mapForSecrets(std::size_t size) noexcept;

// From now on SIGINT, SIGHUP and SIGTERM restore the terminal's echo, remove the file
// named by removeOnSignal(), and end the process: SIGINT with exit code 130, the others as
// usual. SIGPIPE and SIGXFSZ are ignored; writing fails with EPIPE or EFBIG instead.
void installSignalHandlers() noexcept;

// While it lives, the first SIGINT is only noted, for work that ends by itself when it learns of
// it; the next one ends the process. Needs the handlers. One at a time.
class NotedInterrupt {
public:
    NotedInterrupt() noexcept;
    NotedInterrupt(const NotedInterrupt&) = delete;
    NotedInterrupt& operator=(const NotedInterrupt&) = delete;
    ~NotedInterrupt();
};

// Whether one was noted since a NotedInterrupt was made. From any thread.
[[nodiscard]] bool isInterruptNoted() noexcept;

// The absolute path of the file that the signal handler removes; null for none. A path
// that is too long is ignored, and so are all in a process without the handlers.
void removeOnSignal(const char* path) noexcept;

// The process group that the signal handler sends the signal to as well; 0 for none.
void killOnSignal(pid_t group) noexcept;

// Gives an open file or folder these permission bits, whatever the umask.
[[nodiscard]] bool setPermissions(const File& file, mode_t mode) noexcept;

// Whether a file belongs to the user whose rights this process has.
[[nodiscard]] bool isOwn(const struct stat& status) noexcept;

// Gives an open file to a user and a group; -1 leaves one as it is.
[[nodiscard]] bool giveTo(const File& file, uid_t user, gid_t group) noexcept;

// Whether this process has the rights of the superuser.
[[nodiscard]] bool isRoot() noexcept;

// What others know this process by; a name is empty when the system does not say.
[[nodiscard]] std::string hostName();
[[nodiscard]] long processId() noexcept;
[[nodiscard]] std::string programName();

// The umask that the program was started with, whatever keepSecrets() has made of it. Any thread
// may ask: it is not set for the purpose, but read where the system shows it, and if that cannot be
// read, it is 077.
[[nodiscard]] mode_t givenMask() noexcept;

// The process's folder as an absolute path; empty with errno on failure.
[[nodiscard]] std::string currentFolder();

// Removes a variable from the environment, and its value from memory, where other
// processes of this user could see it.
void forgetVariable(const char* name) noexcept;

// Has every child that this process forks from now on call this function first. False when there
// is not enough memory.
[[nodiscard]] bool callInChildren(void (*function)()) noexcept;

// While it lives, what this thread writes beyond the limit of file sizes, or into a pipe that
// nobody reads, fails (EFBIG, EPIPE) and does no more: the signal that the system sends besides
// (SIGXFSZ, SIGPIPE), which ends a program that does not expect it, is taken away. For one thread,
// which destroys several in reverse order.
class QuietWrites {
public:
    QuietWrites() noexcept;
    QuietWrites(const QuietWrites&) = delete;
    QuietWrites& operator=(const QuietWrites&) = delete;
    ~QuietWrites();

private:
    sigset_t before_;   // what the thread had blocked
    sigset_t pending_;  // and what waited for it, which is not ours to take
};

enum class LockKind { kShared, kExclusive };
enum class Locked {
    kYes,
    kBusy,   // another process held it until the time was up
    kFailed  // see errno
};

// Takes the advisory lock (flock) on an open file or folder, or changes the kind of the
// one that is held; in between, it is briefly not held. Waits up to `seconds`. The lock
// ends with the descriptor.
[[nodiscard]] Locked lockFile(const File& file, LockKind kind, double seconds) noexcept;
[[nodiscard]] bool unlockFile(const File& file) noexcept;

}  // namespace os

#endif  // OS_PROCESS_H
