// The type behind filestore_db.
#ifndef CAPI_DB_H
#define CAPI_DB_H

#include "capi/border.h"
#include "capi/handle.h"

struct filestore_db final : capi::Handle {
    using capi::Handle::Handle;
};

namespace capi {

// Throws kInvalid for null.
inline Handle& handleOf(filestore_db* db) {
    require(db != nullptr, "db is null");
    return *db;
}

}  // namespace capi

#endif  // CAPI_DB_H
