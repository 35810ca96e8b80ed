// What callers pass, checked. Failures throw kInvalid.
#ifndef CAPI_ARGUMENTS_H
#define CAPI_ARGUMENTS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "capi/border.h"

namespace capi {

inline void requireFlags(std::uint32_t flags, std::uint32_t known) {
    require((flags & ~known) == 0, "unknown flags");
}

inline const char* requireText(const char* text, const char* why) {
    require(text != nullptr, why);
    return text;
}

inline std::optional<std::string> optionalText(const char* text) {
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

inline std::span<const unsigned char> bytesOf(const void* bytes, std::size_t size) {
    require(bytes != nullptr || size == 0, "the bytes are null, and their size is not 0");
    return {static_cast<const unsigned char*>(bytes), size};
}

}  // namespace capi

#endif  // CAPI_ARGUMENTS_H
