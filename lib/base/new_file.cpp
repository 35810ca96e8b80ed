#include "lib/base/new_file.h"

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/files.h"

namespace fstore {

void requireNewFile(const std::string& name) {
    if (name.empty()) {
        throw Failure(kInvalid, "the name of the new file is empty");
    }
    // The names of open descriptors exist as well.
    if (name == kStandardStream || exists(name)) {
        throw Failure(kInvalid,
                      name == kStandardStream
                          ? "the standard output keeps nothing; name a new file"
                          : fmt::format("{} already exists; name a new file", name),
                      name);
    }
}

}  // namespace fstore
