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

bool isInside(const std::string& file, const std::string& folder) {
    const std::string path = absolutePath(file);
    const std::string parent = realPath(path.substr(0, path.rfind('/') + 1)) + "/";
    const std::string live = realPath(joined(folder, layout::kLiveName));
    return !live.empty() && parent.starts_with(live + "/");
}

}  // namespace

void refuseInside(const std::string& file, const Context& context) {
    if (file != "-" && isInside(file, context.database.place().folder)) {
        throw Failure(kInvalid,
                      fmt::format("{} is inside the database; name a file elsewhere", file), file);
    }
}

void warnIfBeside(const std::string& what, const std::string& file, Context& context) {
    if (isBeside(file, context.database.place().folder)) {
        context.output.warn(
            fmt::format("the {} {} is in the folder of the database, so a copy of the one has the "
                        "other; move it elsewhere",
                        what, file));
    }
}

}  // namespace fstore
