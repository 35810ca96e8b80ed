#include "fstore/terminal/json.h"

#include "lib/base/printable.h"

namespace fstore {

std::string jsonText(std::string_view text) {
    if (isUtf8(text)) {
        return std::string(text);
    }
    const std::string dumped = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    return Json::parse(dumped).get<std::string>();
}

}  // namespace fstore
