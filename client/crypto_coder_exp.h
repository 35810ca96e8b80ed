// The two handles of the record cipher.
//
// Any thread may call an operation; a handle itself is built, assigned and
// destroyed by one thread at a time. Copies share the cipher.
#ifndef CLIENT_CRYPTO_CODER_EXP_H
#define CLIENT_CRYPTO_CODER_EXP_H

#include "api/t_cryptocoder.h"
#include "client/cmn_abuf.h"
#include "cmn/cmn_stub.h"
#include "cmn/export.h"
#include "cmn/status.h"

// What both handles have: a cipher, or none, and its key.
class CMN_EXPORT CryptoCoderHandle : public CMN_ObjectStub<TCryptoCoder> {
public:
    // kNoObject without cipher; otherwise as TCryptoCoder::setKey().
    [[nodiscard]] Status setKey(aBuf& password);

    // Asks for a handle without cipher that takes no use of the service, neither for
    // itself nor for a cipher assigned to it: for objects of the service's own module,
    // which is there as long as they are.
    struct NoUse {};

protected:
    CMN_HIDDEN explicit CryptoCoderHandle(NoUse /*none*/) : CMN_ObjectStub(nullptr, nullptr) {}
    CryptoCoderHandle();  // a new cipher of the store service, without key
    explicit CryptoCoderHandle(TCryptoCoder* coder);  // may be null
};

class CMN_EXPORT aCryptoEncoder : public CryptoCoderHandle {
public:
    aCryptoEncoder() = default;
    explicit aCryptoEncoder(TCryptoCoder* coder) : CryptoCoderHandle(coder) {}
    CMN_HIDDEN explicit aCryptoEncoder(NoUse none) : CryptoCoderHandle(none) {}

    // Without buffer object when there is no cipher, no key, or it failed.
    aBuf encrypt(aBuf& data);
};

class CMN_EXPORT aCryptoDecoder : public CryptoCoderHandle {
public:
    aCryptoDecoder() = default;
    explicit aCryptoDecoder(TCryptoCoder* coder) : CryptoCoderHandle(coder) {}
    CMN_HIDDEN explicit aCryptoDecoder(NoUse none) : CryptoCoderHandle(none) {}

    // As encrypt(); also for a wrong key and for damage.
    aBuf decrypt(aBuf& data);
};

#endif  // CLIENT_CRYPTO_CODER_EXP_H
