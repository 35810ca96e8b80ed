// What records a database has, folder by folder, and which of them a user means.
//
// Needs a Database that was entered (lib/database/database.h). For one thread.
#ifndef LIB_RECORDS_CATALOGUE_H
#define LIB_RECORDS_CATALOGUE_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/name_list.h"
#include "lib/records/address.h"

namespace fstore {

// Whether the folder is there, as a folder and not as a link to one.
bool isFolder(const std::string& folder);

// Throws kMissing unless the folder is there, as a folder and not as a link to one.
void requireFolder(const std::string& folder);

// Folders that could not be looked into, and why: they are deeper than the system takes paths,
// or do not let themselves be read. Null where that ends the operation.
using Unread = std::vector<Failure>;

// The folders below "db" that are there, their parents before them; the first is "db"
// itself, as the empty text.
std::vector<std::string> allFolders(Unread* unread = nullptr);

// Calls visit(folder, entry) for all that is in each of them, in no order.
using EntryVisitor = std::function<void(const std::string&, const FolderEntry&)>;
void visitAllEntries(const EntryVisitor& visit, Unread* unread = nullptr);

// As allFolders(), without reading a folder where all are known (lib/records/lookup.h).
std::vector<std::string> knownFolders(Unread* unread = nullptr);

// The names of the records of a folder that allFolders() has found, sorted. What a crash left
// behind must have been repaired.
NameList recordNamesIn(const std::string& folder);

// The same records.
std::vector<Address> recordsIn(const std::string& folder);

// Calls visit(address) for all records but the internal ones, by folder and name, until it returns
// false. Takes memory for the names of one folder at a time.
using RecordVisitor = std::function<bool(const Address&)>;
void visitRecords(const RecordVisitor& visit, Unread* unread = nullptr);

// How many those are.
std::uint64_t countRecords(Unread* unread = nullptr);

// All of them at once.
std::vector<Address> allRecords(Unread* unread = nullptr);

// Where the record may be that the user's words name, in the folders that are there: for a bare
// name one place in each folder, for a digest none. Looks at no record, and reads no folder that
// its file system says has none in it.
std::vector<Address> placesOf(const AddressText& text);

// The record that the user's words stand for. Throws kMissing for none and kInvalid
// when there are several.
Address resolve(std::string_view text);

// The same for who reads the record next, by Record::read() or RecordHead::read(): when they name
// its place, whether it is there is left to that. By a bare name also one is meant that a crash has
// left moved aside.
Address resolveToRead(std::string_view text);

// The record whose address is the nearest to one that nothing has; empty when none is near. Reads
// the folder that it names, or all.
std::string nearestRecord(std::string_view address);

}  // namespace fstore

#endif  // LIB_RECORDS_CATALOGUE_H
