#include "fstore/commands/beside_database.h"

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/files.h"
#include "lib/database/database.h"

namespace fstore {
namespace {

bool isBeside(const std::string& file, const std::string& folder) {
    const std::string path = realPath(file);
    const std::string home = realPath(folder) + "/";
    const std::string inside = path.starts_with(home) ? path.substr(home.size()) : std::string();
    return !inside.empty() && (inside.find('/') == std::string::npos ||
                               inside.starts_with(std::string(layout::kLiveName) + "/"));
}

}  // namespace

void warnIfBeside(const std::string& what, const std::string& file, Context& context) {
    if (isBeside(file, context.database.place().folder)) {
        context.output.warn(
            fmt::format("the {} {} is in the folder of the database, so a copy of the one has the "
                        "other; move it elsewhere",
                        what, file));
    }
}

}  // namespace fstore
