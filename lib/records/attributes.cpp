#include "lib/records/attributes.h"

#include <algorithm>

#include "lib/base/digits.h"

namespace fstore {

std::optional<unsigned int> parseAttributeId(std::string_view text) {
    const auto* const known = std::ranges::find(attr::kKnown, text, &attr::Known::name);
    return known != std::end(attr::kKnown) ? std::optional(known->id) : parseNumber(text);
}

const char* nameOf(Kind kind) {
    switch (kind) {
        case Kind::kCertificate:
            return "certificate";
        case Kind::kCrl:
            return "crl";
        case Kind::kKey:
            return "key";
        case Kind::kRequest:
            return "request";
        case Kind::kRaw:
            return "raw";
        case Kind::kUnknown:
            break;
    }
    return "record";
}

}  // namespace fstore
