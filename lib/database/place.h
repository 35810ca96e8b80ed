// Where a database is.
#ifndef LIB_DATABASE_PLACE_H
#define LIB_DATABASE_PLACE_H

#include <cstddef>
#include <string>

#include "lib/index/index_place.h"

namespace fstore {

struct Place {
    std::string folder = ".";  // that holds "db"
    double lockSeconds = 10;   // to wait for other processes
    // The folder, open; it stays open for as long as the place is used. The text is then for
    // messages only. Negative where the text says which folder it is.
    int descriptor = -1;
    // Whether to work only where the lock surely holds between hosts.
    bool requireSharedLock = false;
    // An absolute path: a folder of the caller for what can be made again, and need not be there.
    // Empty for none.
    std::string cache = {};
    // With more descriptors than this a database gets an index (lib/index).
    std::size_t worthIndex = kWorthAnIndex;

    // The folder in words for messages.
    std::string describe() const { return folder == "." ? "this folder" : folder; }
};

}  // namespace fstore

#endif  // LIB_DATABASE_PLACE_H
