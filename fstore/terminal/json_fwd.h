// The type of JSON documents, declared.
#ifndef FSTORE_TERMINAL_JSON_FWD_H
#define FSTORE_TERMINAL_JSON_FWD_H

#include <nlohmann/json_fwd.hpp>

namespace fstore {

using Json = nlohmann::ordered_json;  // complete in fstore/terminal/json.h

}  // namespace fstore

#endif  // FSTORE_TERMINAL_JSON_FWD_H
