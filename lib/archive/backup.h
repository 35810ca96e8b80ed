// The database's folder into an archive and back, and the exchange of one database
// for another.
//
// Paths are relative to the current folder. Failures throw. For one thread, which
// keeps other processes out.
#ifndef LIB_ARCHIVE_BACKUP_H
#define LIB_ARCHIVE_BACKUP_H

#include <string>
#include <vector>

#include "lib/archive/archive.h"
#include "os/handles.h"

namespace fstore {

// The bytes of an open file, from where it stands. `name` is for messages.
ArchiveReader::Source archiveSource(const os::File& file, const std::string& name);

// Reads the archive to its end, which proves it.
ArchiveTotals verifyArchive(const os::File& file, const std::string& name);

// Adds the folder with all files and folders in it, as "db". Returns the paths of what
// is neither and was left out: links and special files, which no database has.
std::vector<std::string> addTree(const std::string& folder, ArchiveWriter& writer);

// Makes the folder, which must not exist, from an archive, reads it back, and makes it
// durable. Modes are those of the archive. A failure leaves a part of it.
ArchiveTotals extractTree(const os::File& file, const std::string& name, const std::string& folder);

// Puts "./new_db" in place of "./db". The old one gets the name "./db-<moment>", which is
// returned; empty when there was none. Broken off anywhere, either the old or the new one
// is the database from then on: what prepareDBFolders() puts back is the old one.
std::string exchangeDatabase(const std::string& moment);

}  // namespace fstore

#endif  // LIB_ARCHIVE_BACKUP_H
