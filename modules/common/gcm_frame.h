// Authenticated encryption of whole messages with one AES key: AES-GCM, framed as
//
//   1 byte     version, 1; authenticated with the message
//   12 bytes   nonce, random
//   n bytes    ciphertext, as long as the message
//   16 bytes   tag
//
// Any number of threads may use one object at once, and none waits for another's
// message. With random nonces one key is good for 2^32 messages.
#ifndef MODULES_COMMON_GCM_FRAME_H
#define MODULES_COMMON_GCM_FRAME_H

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "api/t_buf.h"
#include "cmn/status.h"
#include "modules/common/ossl.h"
#include "modules/common/wiped_bytes.h"

class GcmFrame {
public:
    static constexpr unsigned char kVersion = 1;
    static constexpr unsigned int kNonceSize = 12;
    static constexpr unsigned int kHeaderSize = 1 + kNonceSize;
    static constexpr unsigned int kTagSize = 16;
    static constexpr unsigned int kOverhead = kHeaderSize + kTagSize;

    static constexpr bool isKeySize(std::size_t size) noexcept {
        return size == 16 || size == 24 || size == 32;
    }

    // Keeps a copy of `key`. Puts the object into `made`; kInvalid for a key of another
    // size, kNoMemory, or kIo if OpenSSL does not offer the cipher.
    static Status make(std::span<const unsigned char> key, std::unique_ptr<GcmFrame>& made);

    GcmFrame(const GcmFrame&) = delete;
    GcmFrame& operator=(const GcmFrame&) = delete;
    ~GcmFrame();

    std::span<const unsigned char> key() const noexcept { return key_.view(); }

    // The frame of `plain`, or the message of `frame`, appended to the empty buffer
    // `into`, which on failure is empty again.
    //   kNoMemory   also when the frame would be larger than a buffer can be
    //   kMalformed  `frame` is too short or has another version
    //   kIo         a cipher step failed; decrypting: another key, or damage
    Status encrypt(std::span<const unsigned char> plain, TBuf& into) const;
    Status decrypt(std::span<const unsigned char> frame, TBuf& into) const;

private:
    class Session;

    GcmFrame() = default;

    ossl::Cipher cipher_;
    WipedBytes key_;
    // Contexts that know the key already and that no message is using: setting up
    // the key costs more than a short message does.
    // A thread that is alone finds its own again without a lock.
    mutable std::atomic<EVP_CIPHER_CTX*> spare_{nullptr};  // owned
    mutable std::mutex mutex_;  // guards idle_; held for a push or a pop only
    mutable std::vector<ossl::CipherCtx> idle_;
};

#endif  // MODULES_COMMON_GCM_FRAME_H
