// JSON documents: the library's type, and text that is valid in them.
#ifndef FSTORE_TERMINAL_JSON_H
#define FSTORE_TERMINAL_JSON_H

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "fstore/terminal/json_fwd.h"

namespace fstore {

// The text for a JSON document: what is not UTF-8 becomes the replacement character.
std::string jsonText(std::string_view text);

}  // namespace fstore

#endif  // FSTORE_TERMINAL_JSON_H
