// The encryption that contenders without one of their own are given: AES-128-GCM with a
// fresh nonce for each message, as the store's, by the shortest way through OpenSSL.
#ifndef BENCH_CONTEST_GCM_H
#define BENCH_CONTEST_GCM_H

#include <cstring>
#include <memory>
#include <vector>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include "bench/contest/contender.h"

// One thread's. A frame is nonce, ciphertext and tag.
class Gcm {
public:
    explicit Gcm(const char* password) {
        unsigned char key[16];
        const bool ready =
            PKCS5_PBKDF2_HMAC(password, static_cast<int>(std::strlen(password)), nullptr, 0, 1000,
                              EVP_sha256(), sizeof key, key) == 1 &&
            EVP_EncryptInit_ex(sealing_.get(), EVP_aes_128_gcm(), nullptr, key, nullptr) == 1 &&
            EVP_DecryptInit_ex(opening_.get(), EVP_aes_128_gcm(), nullptr, key, nullptr) == 1;
        require(ready, "no cipher");
    }

    std::vector<unsigned char> seal(const std::vector<unsigned char>& plain) {
        std::vector<unsigned char> frame(kNonce + plain.size() + kTag);
        int size = 0;
        const bool sealed =
            RAND_bytes(frame.data(), kNonce) == 1 &&
            EVP_EncryptInit_ex(sealing_.get(), nullptr, nullptr, nullptr, frame.data()) == 1 &&
            EVP_EncryptUpdate(sealing_.get(), frame.data() + kNonce, &size, plain.data(),
                              static_cast<int>(plain.size())) == 1 &&
            EVP_EncryptFinal_ex(sealing_.get(), frame.data() + kNonce + size, &size) == 1 &&
            EVP_CIPHER_CTX_ctrl(sealing_.get(), EVP_CTRL_AEAD_GET_TAG, kTag,
                                frame.data() + kNonce + plain.size()) == 1;
        require(sealed, "not encrypted");
        return frame;
    }

    void open(const unsigned char* frame, std::size_t size, std::vector<unsigned char>& plain) {
        require(size >= kNonce + kTag, "no frame");
        plain.resize(size - kNonce - kTag);
        unsigned char tag[kTag];
        std::memcpy(tag, frame + size - kTag, kTag);
        int done = 0;
        const bool opened =
            EVP_DecryptInit_ex(opening_.get(), nullptr, nullptr, nullptr, frame) == 1 &&
            EVP_DecryptUpdate(opening_.get(), plain.data(), &done, frame + kNonce,
                              static_cast<int>(plain.size())) == 1 &&
            EVP_CIPHER_CTX_ctrl(opening_.get(), EVP_CTRL_AEAD_SET_TAG, kTag, tag) == 1 &&
            EVP_DecryptFinal_ex(opening_.get(), plain.data() + done, &done) == 1;
        require(opened, "not decrypted");
    }

private:
    static constexpr int kNonce = 12;
    static constexpr int kTag = 16;
    using Ctx = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

    Ctx sealing_{EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free};
    Ctx opening_{EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free};
};

#endif  // BENCH_CONTEST_GCM_H
