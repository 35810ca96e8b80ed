#include "modules/common/gcm_frame.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include <openssl/rand.h>

#include "cmn/no_throw.h"

namespace {

// OpenSSL counts the bytes of one step in an int; this is far below and costs nothing.
constexpr std::size_t kStep = std::size_t{1} << 20;

}  // namespace

// One message's use of a context, which goes back to the idle ones afterwards.
class GcmFrame::Session {
public:
    explicit Session(const GcmFrame& owner)
        : owner_(owner), ctx_(owner.spare_.exchange(nullptr, std::memory_order_acquire)) {
        if (ctx_ != nullptr) {
            return;
        }
        const std::lock_guard locked(owner_.mutex_);
        if (!owner_.idle_.empty()) {
            ctx_ = std::move(owner_.idle_.back());
            owner_.idle_.pop_back();
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        if (ctx_ == nullptr) {
            return;
        }
        EVP_CIPHER_CTX* none = nullptr;
        if (owner_.spare_.compare_exchange_strong(none, ctx_.get(), std::memory_order_release,
                                                  std::memory_order_relaxed)) {
            (void)ctx_.release();
            return;
        }
        (void)noThrow([&] {  // without memory for one more, the context is freed
            const std::lock_guard locked(owner_.mutex_);
            owner_.idle_.push_back(std::move(ctx_));
            return kOk;
        });
    }

    bool start(const unsigned char* nonce, bool encrypting) {
        const int direction = encrypting ? 1 : 0;
        if (ctx_ == nullptr) {
            ossl::CipherCtx fresh(EVP_CIPHER_CTX_new());
            if (fresh == nullptr ||
                EVP_CipherInit_ex2(fresh.get(), owner_.cipher_.get(), owner_.key_.data(), nullptr,
                                   direction, nullptr) != 1) {
                return false;
            }
            ctx_ = std::move(fresh);
        }
        int length = 0;
        return EVP_CipherInit_ex2(ctx_.get(), nullptr, nullptr, nonce, direction, nullptr) == 1 &&
               EVP_CipherUpdate(ctx_.get(), nullptr, &length, &kVersion, 1) == 1;
    }

    // Replaces the bytes by their encryption or decryption.
    bool transform(unsigned char* bytes, std::size_t size) {
        while (size != 0) {
            const int step = static_cast<int>(std::min(size, kStep));
            int done = 0;
            if (EVP_CipherUpdate(ctx_.get(), bytes, &done, bytes, step) != 1 || done != step) {
                return false;
            }
            bytes += step;
            size -= static_cast<std::size_t>(step);
        }
        return true;
    }

    bool finishEncrypting(unsigned char* tag) {
        int length = 0;
        return EVP_CipherFinal_ex(ctx_.get(), tag, &length) == 1 &&
               EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_AEAD_GET_TAG, kTagSize, tag) == 1;
    }

    // False when the tag is not the message's.
    bool finishDecrypting(unsigned char* tag) {
        int length = 0;
        unsigned char none = 0;
        return EVP_CIPHER_CTX_ctrl(ctx_.get(), EVP_CTRL_AEAD_SET_TAG, kTagSize, tag) == 1 &&
               EVP_CipherFinal_ex(ctx_.get(), &none, &length) == 1;
    }

private:
    const GcmFrame& owner_;
    ossl::CipherCtx ctx_;
};

GcmFrame::~GcmFrame() {
    const ossl::CipherCtx spare(spare_.load(std::memory_order_acquire));
}

Status GcmFrame::make(std::span<const unsigned char> key, std::unique_ptr<GcmFrame>& made) {
    if (!isKeySize(key.size())) {
        return kInvalid;
    }
    const ossl::QuietErrors quiet;
    const char* const name = key.size() == 16   ? "AES-128-GCM"
                             : key.size() == 24 ? "AES-192-GCM"
                                                : "AES-256-GCM";
    std::unique_ptr<GcmFrame> frame(new GcmFrame);
    frame->cipher_.reset(EVP_CIPHER_fetch(nullptr, name, nullptr));
    if (frame->cipher_ == nullptr) {
        return kIo;
    }
    if (!frame->key_.assign(key)) {
        return kNoMemory;
    }
    made = std::move(frame);
    return kOk;
}

Status GcmFrame::encrypt(std::span<const unsigned char> plain, TBuf& into) const {
    if (plain.size() > std::numeric_limits<unsigned int>::max() - kOverhead) {
        return kNoMemory;
    }
    const ossl::QuietErrors quiet;
    std::array<unsigned char, kHeaderSize> header{kVersion};
    if (RAND_bytes(header.data() + 1, kNonceSize) != 1) {
        return kIo;
    }
    const auto size = static_cast<unsigned int>(plain.size());
    if (into.append(header.data(), kHeaderSize) != kOk || into.append(plain.data(), size) != kOk) {
        (void)into.clear();
        return kNoMemory;
    }
    Session session(*this);
    std::array<unsigned char, kTagSize> tag{};
    if (!session.start(header.data() + 1, true) ||
        !session.transform(into.data() + kHeaderSize, size) ||
        !session.finishEncrypting(tag.data())) {
        (void)into.clear();
        return kIo;
    }
    if (into.append(tag.data(), kTagSize) != kOk) {
        (void)into.clear();
        return kNoMemory;
    }
    return kOk;
}

Status GcmFrame::decrypt(std::span<const unsigned char> frame, TBuf& into) const {
    if (frame.size() < kOverhead || frame[0] != kVersion) {
        return kMalformed;
    }
    const ossl::QuietErrors quiet;
    const auto size = static_cast<unsigned int>(frame.size() - kOverhead);
    if (into.append(frame.data() + kHeaderSize, size) != kOk) {
        return kNoMemory;
    }
    std::array<unsigned char, kTagSize> tag{};
    std::copy_n(frame.data() + kHeaderSize + size, kTagSize, tag.data());
    Session session(*this);
    if (!session.start(frame.data() + 1, false)) {
        (void)into.clear();
        return kNoMemory;  // nothing of the message has been looked at yet
    }
    if (!session.transform(into.data(), size) || !session.finishDecrypting(tag.data())) {
        (void)into.clear();  // nobody may see what was not proved to be the message
        return kIo;
    }
    return kOk;
}
