#include "lib/database/output_rule.h"

#include <algorithm>
#include <array>
#include <string_view>

#include <fmt/format.h>

#include "format/layout.h"
#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"

namespace fstore {
namespace {

// "db" of "./db".
std::string_view plainName(const char* path) {
    return std::string_view(path).substr(std::string_view("./").size());
}

// Whether the folder is one that a database's records are in, now, during a change or since one.
bool holdsRecords(const std::string& folder) {
    const std::string_view name = std::string_view(folder).substr(folder.rfind('/') + 1);
    const bool isNamedSo =
        name.starts_with(fmt::format("{}-", layout::kLiveName)) ||
        std::ranges::any_of(std::array{layout::kLive, layout::kCopy, layout::kPrevious},
                            [&](const char* path) { return plainName(path) == name; });
    return isNamedSo && exists(joined(folder, descriptorName(layout::kKeyRecord)));
}

// Whether it lies where repairs have moved files to.
bool holdsLost(const std::string& folder) {
    const std::size_t last = folder.rfind('/');
    return folder.substr(last + 1) == plainName(layout::kLost) &&
           holdsRecords(joined(folder.substr(0, last), layout::kLiveName));
}

// What repairs, changes of the password and the index make and remove beside the records. The index
// has files beside itself, as "db.index-wal".
bool isBesideRecords(const std::string& folder, std::string_view file) {
    const bool isNamedSo =
        file.starts_with(plainName(layout::kIndex)) ||
        std::ranges::any_of(std::array{layout::kLockFile, layout::kState, layout::kCopy,
                                       layout::kPrevious, layout::kLost},
                            [&](const char* path) { return plainName(path) == file; });
    return isNamedSo && holdsRecords(joined(folder, layout::kLiveName));
}

}  // namespace

void refuseInDatabase(const std::string& path, const std::string& name) {
    const std::size_t last = path.rfind('/');
    const std::string folder = realPath(path.substr(0, last + 1));
    if (isBesideRecords(folder, std::string_view(path).substr(last + 1))) {
        throw Failure(kInvalid,
                      fmt::format("{} is the database's own; name a file elsewhere", name), name);
    }
    for (std::string above = folder; !above.empty(); above.erase(above.rfind('/'))) {
        if (holdsRecords(above) || holdsLost(above)) {
            throw Failure(kInvalid,
                          fmt::format("{} is inside the database; name a file elsewhere", name),
                          name);
        }
    }
}

}  // namespace fstore
