// AES-GCM as its definition has it, bit by bit: slow, and not the code under test.
#ifndef TESTS_MODULES_REFERENCE_GCM_H
#define TESTS_MODULES_REFERENCE_GCM_H

#include <string>

namespace support {

struct Sealed {
    std::string cipher;
    std::string tag;
};

// Encrypts; the key has 16, 24 or 32 bytes, the nonce 12.
Sealed gcm(const std::string& key, const std::string& nonce, const std::string& aad,
           const std::string& plain);

// The frame that the modules make of a message.
std::string gcmFrame(const std::string& key, const std::string& nonce, const std::string& plain);

}  // namespace support

#endif  // TESTS_MODULES_REFERENCE_GCM_H
