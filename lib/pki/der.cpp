#include "lib/pki/der.h"

namespace fstore {

std::optional<std::uint64_t> endOfSequence(std::span<const unsigned char> bytes) {
    constexpr unsigned char kSequence = 0x30;
    if (bytes.size() < 2 || bytes[0] != kSequence) {
        return std::nullopt;
    }
    const std::size_t lengthBytes = bytes[1] & 0x7Fu;
    if (bytes[1] < 0x80) {
        return 2 + std::uint64_t{bytes[1]};
    }
    if (lengthBytes == 0) {
        return bytes.size();  // the end tells the length; some PKCS#12 files are written so
    }
    if (lengthBytes > 4 || bytes.size() < 2 + lengthBytes) {
        return std::nullopt;
    }
    std::uint64_t length = 0;
    for (const unsigned char byte : bytes.subspan(2, lengthBytes)) {
        length = length << 8 | byte;
    }
    return 2 + lengthBytes + length;
}

}  // namespace fstore
