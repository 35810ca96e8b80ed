// Where the index of a database is.
//
// Beside "./db", where its owner can write and no other host can: SQLite's files are for processes
// of one host. Else, for readers of read-only media, of the files of others and of file systems of
// the network, in a folder that the caller has for what can be made again.
//
// Inside the folder of a database. Any thread.
#ifndef LIB_INDEX_INDEX_PLACE_H
#define LIB_INDEX_INDEX_PLACE_H

#include <cstddef>
#include <string>
#include <vector>

namespace fstore {

// With more descriptors than this a database gets an index. Below, looking at all of them takes no
// longer than opening it.
inline constexpr std::size_t kWorthAnIndex = 10'000;

// The absolute path of the file, which need not be there; empty where there can be none. `cache` is
// the caller's folder, absolute, which need not be there; empty for none.
std::string indexFile(const std::string& cache);

// Makes the folders of this file, in the caller's. False when they cannot be.
bool makeFoldersFor(const std::string& file, const std::string& cache);

// Removes the index, wherever it is; see removeIndexAt().
void removeIndex(const std::string& cache) noexcept;

// What is somebody's where an index has its files; see othersAt(). By paths as people know them:
// "./db.index".
std::vector<std::string> othersInPlaceOfIndex(const std::string& cache);

}  // namespace fstore

#endif  // LIB_INDEX_INDEX_PLACE_H
