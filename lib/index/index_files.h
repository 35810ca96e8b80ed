// The files of an index, and whose they are.
//
// An index has a name that its user may have given to something else. What no index of ours begins
// with is somebody's: it is neither written nor deleted, and keeps the database from having an
// index.
//
// Any thread. Nothing here waits for a FIFO or follows a link.
#ifndef LIB_INDEX_INDEX_FILES_H
#define LIB_INDEX_INDEX_FILES_H

#include <string>
#include <vector>

namespace fstore {

enum class IndexOwner {
    kNobody,   // there is nothing of this name
    kOurs,     // an index, of any version and perhaps damaged; or one that was only begun
    kSomebody  // a file that is no index, a folder, a link, a special file; or it cannot be told
};

// By the type of the file and what it begins with.
IndexOwner ownerOfIndex(const std::string& file);

// Of the files that an index at this path has, and of what is left of one, those that are
// somebody's. What is beside a file that is not ours belongs to that file.
std::vector<std::string> othersAt(const std::string& file);

// Under which the file is made before it gets its name.
std::string newIndexAt(const std::string& file);

// Removes the index of this path and what is beside it, but nothing that is somebody's. Nobody else
// is in the database. False when something of it stays.
bool removeIndexAt(const std::string& file) noexcept;

}  // namespace fstore

#endif  // LIB_INDEX_INDEX_FILES_H
