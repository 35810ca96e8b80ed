// What a program decides about its own process: secrecy, standard streams, signals, its
// folder, and a lock that keeps other processes out.
//
// For a program's main thread, before it starts others.
#ifndef OS_PROCESS_H
#define OS_PROCESS_H

#include <string>

#include "os/handles.h"

namespace os {

// Opens those of the descriptors 0, 1 and 2 that are closed, on /dev/null. Otherwise the
// next file opened would get such a number, and messages would be written into it.
[[nodiscard]] bool occupyStandardStreams() noexcept;

// No core dumps, no debugging by other processes of this user, and new files for the user
// alone (umask 077). False when the system refused one of these.
[[nodiscard]] bool keepSecrets() noexcept;

// From now on SIGINT, SIGHUP and SIGTERM restore the terminal's echo, remove the file
// named by removeOnSignal(), and end the process: SIGINT with exit code 130, the others as
// usual. SIGPIPE is ignored; writing fails with EPIPE instead.
void installSignalHandlers() noexcept;

// The absolute path of the file that the signal handler removes; null for none. A path
// that is too long is ignored.
void removeOnSignal(const char* path) noexcept;

// Gives an open file or folder these permission bits, whatever the umask.
[[nodiscard]] bool setPermissions(const File& file, mode_t mode) noexcept;

// The umask that the program was started with, whatever keepSecrets() has made of it.
[[nodiscard]] mode_t givenMask() noexcept;

// The process's folder as an absolute path; empty with errno on failure.
[[nodiscard]] std::string currentFolder();

// Removes a variable from the environment, and its value from memory, where other
// processes of this user could see it.
void forgetVariable(const char* name) noexcept;

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
