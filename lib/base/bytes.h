// The bytes of a text, and bytes as a text. Both are views: what is looked at stays where it is.
#ifndef LIB_BASE_BYTES_H
#define LIB_BASE_BYTES_H

#include <span>
#include <string_view>

namespace fstore {

inline std::span<const unsigned char> bytesOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

inline std::string_view asText(std::span<const unsigned char> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace fstore

#endif  // LIB_BASE_BYTES_H
