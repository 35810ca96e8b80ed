#include "tests/modules/reference_gcm.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include <openssl/evp.h>

namespace support {
namespace {

using Block = std::array<unsigned char, 16>;

// One block of AES; all that is taken from the library.
Block aes(const std::string& key, const Block& in) {
    const EVP_CIPHER* const cipher = key.size() == 16   ? EVP_aes_128_ecb()
                                     : key.size() == 24 ? EVP_aes_192_ecb()
                                                        : EVP_aes_256_ecb();
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                              EVP_CIPHER_CTX_free);
    Block out{};
    int size = 0;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(key.data());
    if (EVP_EncryptInit_ex2(ctx.get(), cipher, bytes, nullptr, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 ||
        EVP_EncryptUpdate(ctx.get(), out.data(), &size, in.data(), 16) != 1 || size != 16) {
        throw std::runtime_error("no AES");
    }
    return out;
}

// The product in GF(2^128); the first bit of a block is the lowest power.
Block times(const Block& x, Block y) {
    Block product{};
    for (unsigned int bit = 0; bit != 128; ++bit) {
        if ((x[bit / 8] >> (7 - bit % 8) & 1) != 0) {
            for (std::size_t i = 0; i != 16; ++i) {
                product[i] ^= y[i];
            }
        }
        const bool carry = (y[15] & 1) != 0;
        for (std::size_t i = 15; i != 0; --i) {
            y[i] = static_cast<unsigned char>(y[i] >> 1 | y[i - 1] << 7);
        }
        y[0] = static_cast<unsigned char>(y[0] >> 1 ^ (carry ? 0xE1 : 0));
    }
    return product;
}

std::string padded(std::string bytes) {
    bytes.resize((bytes.size() + 15) / 16 * 16);
    return bytes;
}

std::string bitCount(const std::string& bytes) {
    std::string count;
    for (int shift = 56; shift >= 0; shift -= 8) {
        count += static_cast<char>(std::uint64_t{bytes.size()} * 8 >> shift & 0xFF);
    }
    return count;
}

Block ghash(const Block& h, const std::string& bytes) {
    Block hash{};
    for (std::size_t at = 0; at != bytes.size(); at += 16) {
        for (std::size_t i = 0; i != 16; ++i) {
            hash[i] ^= static_cast<unsigned char>(bytes[at + i]);
        }
        hash = times(hash, h);
    }
    return hash;
}

}  // namespace

Sealed gcm(const std::string& key, const std::string& nonce, const std::string& aad,
           const std::string& plain) {
    Block counter{};
    std::copy(nonce.begin(), nonce.end(), counter.begin());
    counter[15] = 1;
    const Block mask = aes(key, counter);
    Sealed sealed;
    for (std::size_t at = 0; at < plain.size(); at += 16) {
        for (std::size_t i = 15; i != 11 && ++counter[i] == 0; --i) {
        }
        const Block stream = aes(key, counter);
        for (std::size_t i = 0; i != std::min<std::size_t>(16, plain.size() - at); ++i) {
            sealed.cipher += static_cast<char>(plain[at + i] ^ stream[i]);
        }
    }
    const Block hash = ghash(aes(key, Block{}), padded(aad) + padded(sealed.cipher) +
                                                    bitCount(aad) + bitCount(sealed.cipher));
    for (std::size_t i = 0; i != 16; ++i) {
        sealed.tag += static_cast<char>(hash[i] ^ mask[i]);
    }
    return sealed;
}

std::string gcmFrame(const std::string& key, const std::string& nonce, const std::string& plain) {
    const std::string version(1, '\1');
    const Sealed sealed = gcm(key, nonce, version, plain);
    return version + nonce + sealed.cipher + sealed.tag;
}

}  // namespace support
