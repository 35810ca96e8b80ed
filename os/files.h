// SPDX-License-Identifier: Apache-2.0
// What users of files need beyond single calls: whole transfers, durable closing, and
// questions about names whose answer is never a guess.
//
// Any thread may call any of these. A failure leaves its reason in errno. Interrupted
// calls continue and are never reported.
#ifndef OS_FILES_H
#define OS_FILES_H

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>

#include "os/handles.h"

namespace os {

// open(2) with O_CLOEXEC added; an empty File on failure. `mode` is that of a
// created file before the umask, by default the one of fopen().
[[nodiscard]] File openFile(const char* path, int flags, mode_t mode = 0666) noexcept;

// Creates a file for writing, in place of whatever has the name, unless that is a folder:
// never through a link, and without waiting for the reader of a FIFO. An empty File on
// failure.
[[nodiscard]] File createAnew(const char* path) noexcept;

[[nodiscard]] Dir openFolder(const char* path) noexcept;  // an empty Dir on failure

enum class Opened {
    kRegular,     // `file` is open for reading and `size` is its size in bytes
    kNotRegular,  // a folder, FIFO, socket or device; nothing is open
    kFailed       // absent, or could not be opened or examined: see errno
};

enum class Links {
    kFollow,
    kRefuse  // a path that ends at a symbolic link cannot be opened (ELOOP)
};

// Opens a regular file for reading. Never waits: a FIFO without writer is reported like
// any other file that is not regular.
[[nodiscard]] Opened openRegular(const char* path, File& file, off_t& size,
                                 Links links = Links::kFollow) noexcept;

// Up to `size` bytes from the descriptor's position; 0 at the end of the file,
// -1 on failure.
[[nodiscard]] ssize_t readSome(int fd, void* data, std::size_t size) noexcept;

// Exactly `size` bytes, or false. A file that ends too early is a failure with errno 0.
[[nodiscard]] bool readAll(int fd, void* data, std::size_t size) noexcept;

// All bytes, or false when a call fails or stores nothing; some may be stored then.
[[nodiscard]] bool writeAll(int fd, const void* data, std::size_t size) noexcept;

// A file without a name that has the bytes of this one, from its position on; an empty File on
// failure.
[[nodiscard]] File copyInMemory(const File& file) noexcept;

// Makes the file's bytes durable and closes it, also when the sync fails. True only if
// both succeeded. A loss of power may still take its name: see syncFolder().
[[nodiscard]] bool closeDurably(File file) noexcept;

// Makes the names in a folder durable: what was created, renamed or removed in it. Where
// the file system has no way to do so, nothing more can be asked of it, and the answer is
// true; a sync that it tried and that failed is false.
[[nodiscard]] bool syncFolder(const char* path) noexcept;

enum class Presence {
    kPresent,
    kAbsent,  // the system says so: there is no such name
    kUnknown  // the name could not be examined; do not take it for absent
};

// Follows symbolic links: one that leads nowhere, or to itself, is absent, and so is a name
// that is too long for any file.
[[nodiscard]] Presence presence(const char* path) noexcept;

// The next entry of an open stream, "." and ".." among them, valid until the
// next call on the stream. Null at the end with errno 0, and on failure with
// errno set. A folder that was removed while it was being listed has ended.
[[nodiscard]] dirent* nextEntry(DIR* dir) noexcept;

enum class EntryType {
    kFolder,
    kFile,    // a regular file
    kLink,    // a symbolic link, whatever it leads to
    kOther,   // a special file
    kUnknown  // not said, or could not be examined
};

// The type of a listed entry, from the listing. Some file systems do not give it
// (kUnknown); then ask for the path.
[[nodiscard]] EntryType entryType(const dirent& entry) noexcept;
[[nodiscard]] EntryType entryTypeOf(const char* path) noexcept;

}  // namespace os

#endif  // OS_FILES_H
