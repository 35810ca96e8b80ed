// "./db.lock", the file whose lock keeps other processes out of a database; those on other hosts,
// too, where several have the file system: the lock of a folder is known to its own host alone.
//
// It stands beside the folders of the database and is never removed, renamed or saved: who had the
// old file would keep nobody out who has the new one.
//
// For one thread, inside the folder. Failures throw.
#ifndef LIB_DATABASE_LOCK_FILE_H
#define LIB_DATABASE_LOCK_FILE_H

#include <sys/types.h>

#include <string>

#include "lib/database/lock_holder.h"
#include "os/handles.h"

namespace fstore {

class LockFile {
public:
    enum class Use {
        kRead,   // a database that is there
        kWrite,  // the same
        kMake,   // one that may be about to be made
    };

    // Opens it, unless it is open for this use already; makes it if it is not there. False when
    // there is none: no database either, unless one is about to be made; or a reader who may not
    // open or make one, which fault() tells. A reader makes one only as the owner of the database,
    // so that nobody else's reading keeps the owner out.
    //
    //   kInvalid  something of this name is not a regular file
    //   kIo       it cannot be opened, or a writer cannot make it
    bool open(Use use);

    // Whether its name still leads to it. Throws when that cannot be told.
    bool isCurrent() const;

    void close() noexcept { file_ = os::File(); }
    const os::File& file() const noexcept { return file_; }
    const std::string& fault() const noexcept { return fault_; }

    // Writes the line of the one who has the lock; false with errno when it cannot be written.
    [[nodiscard]] bool write(const LockHolder& holder) const;

private:
    bool openExisting(Use use);
    bool make();
    void examine();

    os::File file_;
    dev_t device_ = 0;  // which file it is; while it is open, no other one can be that
    ino_t inode_ = 0;
    bool isWritable_ = false;
    std::string fault_;
};

}  // namespace fstore

#endif  // LIB_DATABASE_LOCK_FILE_H
