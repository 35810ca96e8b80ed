// The type behind filestore_list. For one thread.
#ifndef CAPI_LISTS_H
#define CAPI_LISTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "capi/description.h"
#include "capi/filestore.h"
#include "lib/base/error.h"

struct filestore_list {
    struct Problem {
        std::uint32_t kind = 0;
        filestore_status status = FILESTORE_OK;
        std::string path;
        std::string message;
        std::uint32_t line = 0;
    };

    // A failure that is about `path`.
    void add(std::uint32_t kind, const fstore::Failure& failure, const std::string& path,
             std::uint32_t line = 0) {
        problems.push_back({kind, failure.exitCode(), path, failure.what(), line});
    }

    std::vector<capi::Description> entries;
    std::vector<Problem> problems;
};

#endif  // CAPI_LISTS_H
