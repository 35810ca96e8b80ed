// SHA-256.
#ifndef LIB_BASE_SHA256_H
#define LIB_BASE_SHA256_H

#include <array>
#include <memory>
#include <span>
#include <string_view>

#include <openssl/evp.h>

namespace fstore {

using Sha256Digest = std::array<unsigned char, 32>;

// Of bytes that come in pieces. One thread's. Throws kIo when OpenSSL refuses, which no input
// makes it do.
class Sha256 {
public:
    Sha256();

    void add(std::span<const unsigned char> bytes);
    void add(std::string_view text);

    // The digest of all that was added. Nothing may be added afterwards.
    Sha256Digest finish();

private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> context_;
};

// Of bytes that are all there.
Sha256Digest sha256(std::span<const unsigned char> bytes);

}  // namespace fstore

#endif  // LIB_BASE_SHA256_H
