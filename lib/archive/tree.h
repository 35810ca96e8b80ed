// A database's folder into an archive, and back.
//
// Paths are relative to the current folder. Failures throw. For one thread, which
// keeps other processes out.
#ifndef LIB_ARCHIVE_TREE_H
#define LIB_ARCHIVE_TREE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lib/archive/archive.h"
#include "os/handles.h"

namespace fstore {

// Told of each piece of an archive, how many bytes it has. What it throws ends the work.
using BytesSeen = std::function<void(std::size_t)>;

// The bytes of an open descriptor, from its position on. `name` is for messages.
ArchiveReader::Source archiveSource(int descriptor, const std::string& name, const BytesSeen& seen);

// Reads the archive to its end, which verifies it.
ArchiveTotals verifyArchive(const os::File& file, const std::string& name,
                            const BytesSeen& seen = {});

// What no database has: a link, a special file, a file that is larger than a body can be, or a
// path that is longer than the system takes.
struct LeftOut {
    std::string path;
    const char* reason;  // a clause about it
};

// About how many bytes an archive of the folder has. What cannot be looked at counts nothing.
std::uint64_t sizeOfTree(const std::string& folder);

// Adds the folder with all files and folders in it, as "db", and returns what it leaves out.
std::vector<LeftOut> addTree(const std::string& folder, ArchiveWriter& writer);

// Creates the folder, which must not exist, from an archive, reads it back, and makes it
// durable. Modes are those of the archive, less the umask that the program was started with. A
// failure leaves a part of it.
ArchiveTotals extractTree(const os::File& file, const std::string& name, const std::string& folder,
                          const BytesSeen& seen = {});

}  // namespace fstore

#endif  // LIB_ARCHIVE_TREE_H
