// Writes DER, and what only looks like it: the caller has every byte in hand.
#ifndef TESTS_MODULES_PKIXKEY_DER_WRITER_H
#define TESTS_MODULES_PKIXKEY_DER_WRITER_H

#include <algorithm>
#include <string>

namespace der {

inline std::string element(int tag, const std::string& contents) {
    std::string length;
    for (std::size_t rest = contents.size(); rest != 0; rest >>= 8) {
        length.insert(0, 1, static_cast<char>(rest & 0xFF));
    }
    if (contents.size() >= 0x80) {
        length.insert(0, 1, static_cast<char>(0x80 + length.size()));
    } else {
        length.assign(1, static_cast<char>(contents.size()));
    }
    return static_cast<char>(tag) + length + contents;
}

inline std::string sequence(const std::string& elements) {
    return element(0x30, elements);
}
inline std::string octets(const std::string& bytes) {
    return element(0x04, bytes);
}
inline std::string bits(const std::string& bytes) {
    return element(0x03, '\0' + bytes);
}

// The number that the big-endian bytes are, at least 0, whatever zeros lead.
inline std::string number(std::string bytes) {
    bytes.erase(0, std::min(bytes.find_first_not_of('\0'), bytes.size()));
    if (bytes.empty() || (bytes[0] & 0x80) != 0) {
        bytes.insert(0, 1, '\0');
    }
    return element(0x02, bytes);
}

}  // namespace der

#endif  // TESTS_MODULES_PKIXKEY_DER_WRITER_H
