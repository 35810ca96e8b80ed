// The certificates of a database as trees: under each issuer what it signed.
//
// For one thread, in a database that is entered: a step of withSecrets(), which asks for secrets if
// certificates or keys are encrypted. Failures throw.
#ifndef LIB_WORK_FOREST_H
#define LIB_WORK_FOREST_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "lib/base/error.h"
#include "lib/database/database.h"
#include "lib/records/address.h"
#include "lib/records/record_info.h"

namespace fstore {

struct Branch {
    RecordInfo info;
    std::optional<std::size_t> issuer;  // by index in the forest; none where it has depth 0
    // Its issuer where that stands below it, as they issued each other.
    std::optional<Address> issuerBelow = {};
    bool isRoot = false;         // it issued itself
    std::optional<Address> key;  // that is in the database
    bool isSuperseded = false;   // lib/work/successors.h
    std::size_t depth = 0;       // of issuers above it
};

struct Forest {
    // Each behind its issuer, and what one issuer signed by subject, then by time of end.
    std::vector<Branch> branches;
    // What ends first of those in force that are not superseded; by index.
    std::optional<std::size_t> first;
    std::vector<Failure> leftOut;  // what could not be read
};

// All certificates, or, for the name of a host as hostNameOf() returns it, those that cover it and
// their issuers. An issuer is one whose key made the signature; of several, which then have one
// key, the one that chainOf() takes.
Forest forestOf(Database& database, const std::optional<std::string>& host);

}  // namespace fstore

#endif  // LIB_WORK_FOREST_H
