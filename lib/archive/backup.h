// The database as one file, and back.
//
// For one thread. Failures throw.
#ifndef LIB_ARCHIVE_BACKUP_H
#define LIB_ARCHIVE_BACKUP_H

#include <string>
#include <vector>

#include "lib/archive/archive.h"
#include "lib/base/files.h"
#include "lib/database/database.h"

namespace fstore {

struct BackupReport {
    ArchiveTotals totals;
    std::vector<std::string> leftOut;  // paths of links and special files, which no database has
};

// Writes the database into the file as it is, damaged or not, and needs no password. The
// file is read back before it counts, while other processes may work with the database.
BackupReport backUp(Database& database, OutputFile& file);

struct RestoreReport {
    ArchiveTotals totals;
    std::string kept;  // the name of the database from before; empty when there was none
};

// Makes a database of the backup in the file `name`; the folder for it is made when there
// is none. All of the backup is read before anything is written, and the database from
// before is put aside only once the new one is there and durable. Throws kInvalid when there
// is a database and not `replace`, kMalformed when the file is no whole backup.
RestoreReport restore(Database& database, const std::string& name, bool replace);

}  // namespace fstore

#endif  // LIB_ARCHIVE_BACKUP_H
