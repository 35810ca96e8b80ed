// The database as one file, and back.
//
// For one thread. Failures throw.
#ifndef LIB_ARCHIVE_BACKUP_H
#define LIB_ARCHIVE_BACKUP_H

#include <functional>
#include <string>
#include <vector>

#include "lib/archive/archive.h"
#include "lib/archive/tree.h"
#include "lib/base/files.h"
#include "lib/base/observer.h"
#include "lib/database/database.h"

namespace fstore {

struct BackupReport {
    ArchiveTotals totals;
    std::vector<LeftOut> leftOut;
    bool verified = false;  // a stream cannot be read back
};

// Writes the database into the file as it is, damaged or not; needs no password. Then reads
// the file back, unless it is a stream, while other processes may use the database again.
BackupReport backUp(Database& database, OutputFile& file);

// Reads the backup in the file to its end, "-" for the standard input, and calls use(entry) for
// each folder and file in it, if there is a use. What was used is verified only when this returns.
// Throws kMalformed when it is not a whole backup.
using ArchiveEntryUser = std::function<void(const ArchiveEntry&)>;
ArchiveTotals readBackup(const std::string& name, Observer& observer,
                         const ArchiveEntryUser& use = {});

struct RestoreReport {
    ArchiveTotals totals;
    std::string kept;  // the name of the previous database; empty when there was none
};

// Creates a database from the backup in the file `name`, and its folder if there is none.
// Reads all of the backup before it writes anything, and moves the previous database aside only
// when the new one is complete and durable. Throws kInvalid when there is a database and not
// `replace`, kMalformed when the file is not a whole backup.
RestoreReport restore(Database& database, const std::string& name, bool replace);

}  // namespace fstore

#endif  // LIB_ARCHIVE_BACKUP_H
