#include "service/open_state.h"

#include "cmn/no_throw.h"

namespace {

aBuf noBuffer() {
    return aBuf(static_cast<TBuf*>(nullptr));
}

}  // namespace

OpenState::OpenState() : encoder(nullptr), decoder(nullptr), password(noBuffer()) {}

Status OpenState::open(aBuf& key) {
    if (const Status status = setKeys(key); status != kOk) {
        return status;
    }
    opened.store(1, std::memory_order_relaxed);
    return kOk;
}

// Both ciphers get the key, or the encoder loses it again.
Status OpenState::setKeys(aBuf& key) {
    aCryptoEncoder encrypting = ownEncoder();
    if (const Status status = encrypting.setKey(key); status != kOk) {
        return status;
    }
    const Status status = noThrow([&] { return ownDecoder().setKey(key); });
    if (status != kOk) {
        aBuf none = noBuffer();
        (void)encrypting.setKey(none);  // removing a key cannot fail
    }
    return status;
}

Status OpenState::close() {
    return noThrow([&] {
        if (isOpen() == 0) {
            return kClosed;
        }
        aBuf none = noBuffer();
        {
            // Not through handles of their own: those need memory.
            const CMN_Locked locked(coders);
            (void)encoder.setKey(none);
            (void)decoder.setKey(none);
        }
        opened.store(0, std::memory_order_relaxed);
        return kOk;
    });
}

void OpenState::drop() {
    opened.store(0, std::memory_order_relaxed);
    aBuf none = noBuffer();
    const CMN_Locked locked(coders);
    (void)encoder.setKey(none);  // records may hold the ciphers for longer
    (void)decoder.setKey(none);
    encoder = aCryptoEncoder(nullptr);
    decoder = aCryptoDecoder(nullptr);
}

aCryptoEncoder OpenState::ownEncoder() {
    const CMN_Locked locked(coders);
    if (encoder.target() == nullptr) {
        encoder = aCryptoEncoder();
    }
    return aCryptoEncoder(encoder.target());
}

aCryptoDecoder OpenState::ownDecoder() {
    const CMN_Locked locked(coders);
    if (decoder.target() == nullptr) {
        decoder = aCryptoDecoder();
    }
    return aCryptoDecoder(decoder.target());
}

aCryptoEncoder OpenState::setEncoder(const aCryptoEncoder& replacement) {
    const CMN_Locked locked(coders);
    aCryptoEncoder before(encoder.target());
    encoder = replacement;
    return before;
}

void OpenState::setDecoder(const aCryptoDecoder& replacement) {
    const CMN_Locked locked(coders);
    decoder = replacement;
}
