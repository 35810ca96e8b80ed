// Where a database is.
#ifndef LIB_DATABASE_PLACE_H
#define LIB_DATABASE_PLACE_H

#include <string>

namespace fstore {

struct Place {
    std::string folder = ".";  // that holds "db"
    double lockSeconds = 10;   // to wait for other processes

    // The folder in words for messages.
    std::string describe() const { return folder == "." ? "this folder" : folder; }
};

}  // namespace fstore

#endif  // LIB_DATABASE_PLACE_H
