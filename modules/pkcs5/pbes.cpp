#include "modules/pkcs5/pbes.h"

#include <utility>

#include "client/cmn_abuf.h"
#include "client/pkixkeyclnt.h"
#include "cmn/cmn_stub.h"
#include "modules/common/last_status.h"
#include "modules/pkcs5/derive.h"

namespace {

constexpr pki_alg_t kPbkdf2Algs[] = {PKI_ALG_PBKDF2_HMAC_SHA256};
constexpr pki_alg_t kPkcs12Algs[] = {PKI_ALG_SHA1, PKI_ALG_SHA256};
constexpr pki_alg_t kCiphers[] = {PKI_ALG_AES_GCM};

KdfLimits limitsOf(PBES::pbes_type scheme) {
    if (scheme == PBES::kPbkdf2) {
        return {kPbkdf2Algs, kCiphers, 16, 32, 8};
    }
    return {kPkcs12Algs, kCiphers, 16, 32, 8};
}

}  // namespace

Pbes::Pbes(pbes_type scheme) : WithParameters(kType, limitsOf(scheme)), scheme_(scheme) {}

void Pbes::use(std::unique_ptr<GcmFrame> key) {
    ready_.store(key.get(), std::memory_order_release);
    key_ = std::move(key);
}

Status Pbes::setKey(TKey* key) {
    return recorded([&] {
        if (key == nullptr) {
            return kInvalid;
        }
        const GuardLock inUse(key->getGuard());
        if (key->getType() != TKey::kSymmetric) {
            return kInvalid;
        }
        const std::unique_ptr<TBuf> bytes(key->getRaw());
        if (bytes == nullptr) {
            return key->getError();
        }
        std::unique_ptr<GcmFrame> made;
        const Status status = GcmFrame::make({bytes->data(), bytes->length()}, made);
        if (status == kOk) {
            use(std::move(made));
        }
        return status;
    });
}

// The key, derived when that was not done yet. Threads that come meanwhile wait.
Status Pbes::obtainKey(const GcmFrame*& key) {
    key = ready_.load(std::memory_order_acquire);
    if (key != nullptr) {
        return kOk;
    }
    const std::lock_guard locked(deriving_);
    if (key_ == nullptr) {
        WipedBytes bytes;
        std::unique_ptr<GcmFrame> made;
        Status status = scheme_ == kPbkdf2
                            ? derivePbkdf2(parameters(), bytes)
                            : derivePkcs12(parameters(), P12PBKDF::kEncryptionKey, bytes);
        if (status == kOk) {
            status = GcmFrame::make(bytes.view(), made);
        }
        if (status != kOk) {
            return status;
        }
        use(std::move(made));
    }
    key = key_.get();
    return kOk;
}

TKey* Pbes::getKey() {
    return recordedObject<TKey>([&](std::unique_ptr<TKey>& made) {
        const GcmFrame* key = nullptr;
        if (const Status status = obtainKey(key); status != kOk) {
            return status;
        }
        const auto bytes = key->key();
        made.reset(pkixKeyClnt.createTKey(TKey::kSymmetric, bytes.data(),
                                          static_cast<unsigned int>(bytes.size())));
        return made != nullptr ? kOk : kNoObject;
    });
}

// A new buffer that `step` of the key makes of the bytes of `in`.
template <class Step>
TBuf* Pbes::through(TBuf* in, Step step) {
    return recordedObject<TBuf>([&](std::unique_ptr<TBuf>& made) {
        if (in == nullptr) {
            return kInvalid;
        }
        const GcmFrame* key = nullptr;
        if (const Status status = obtainKey(key); status != kOk) {
            return status;
        }
        made.reset(createTBuf());
        if (made == nullptr) {
            return kNoObject;
        }
        const GuardLock inUse(in->getGuard());
        return (key->*step)({in->data(), in->length()}, *made);
    });
}

TBuf* Pbes::encrypt(TBuf* plain) {
    return through(plain, &GcmFrame::encrypt);
}

TBuf* Pbes::decrypt(TBuf* cipher) {
    return through(cipher, &GcmFrame::decrypt);
}

Status Pbes::error() {
    return lastStatus;
}
