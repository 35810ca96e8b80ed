// A cipher for tests: fast, and the same in every build. It notices a wrong key,
// damage and truncation as an authenticated cipher does, and hides nothing from
// anybody who tries.
#ifndef TESTS_SUPPORT_DOUBLES_TOY_CIPHER_H
#define TESTS_SUPPORT_DOUBLES_TOY_CIPHER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace toy {

inline constexpr std::size_t kNonceSize = 12;
inline constexpr std::size_t kTagSize = 16;
inline constexpr std::size_t kOverhead = 1 + kNonceSize + kTagSize;

// What a key is derived from. Each field matters to the result.
struct Parameters {
    std::string password;
    std::string salt;
    unsigned int iterations = 0;
    unsigned int length = 0;  // of the key, in bytes
    unsigned int firstAlg = 0;
    unsigned int secondAlg = 0;
    unsigned int purpose = 0;

    // All of it as bytes; different parameters never give the same.
    std::string image() const;
};
std::string derive(const Parameters& parameters);

// Version byte 1, nonce, ciphertext as long as the plaintext, tag.
std::string seal(std::string_view key, std::uint64_t nonce, std::string_view plain);

// As seal(), of so many zero bytes, in pieces: for more than memory holds.
void sealZeros(std::string_view key, std::uint64_t nonce, std::uint64_t size,
               const std::function<void(std::string_view)>& write);

// The plaintext; nothing when `sealed` did not come from seal() with this key.
std::optional<std::string> open(std::string_view key, std::string_view sealed);

// kTagSize bytes that depend on the key and all of the data.
std::string tag(std::string_view key, std::string_view data);

}  // namespace toy

#endif  // TESTS_SUPPORT_DOUBLES_TOY_CIPHER_H
