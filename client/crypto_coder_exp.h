// SPDX-License-Identifier: Apache-2.0
// The two handles of the record cipher: a key, and what encrypts or decrypts with it.
//
// Copies share the cipher and keep it alive; the last one that goes deletes it, and the
// key with it. Any thread may call any operation of any handle, also of handles that
// share a cipher: encrypting and decrypting run side by side, and each uses one key from
// beginning to end while setKey() changes it. Building, assigning and destroying a handle
// is one thread's at a time.
//
// Making and copying a handle, and what returns a buffer, can throw std::bad_alloc.
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
    // Derives the key from a password of any bytes, which is slow; nobody else waits for
    // it. A password without buffer removes the key. The password stays the caller's.
    //   kIo        no key could be derived; the cipher keeps the one it has
    //   kNoObject  there is no cipher
    [[nodiscard]] Status setKey(aBuf& password);

    // A handle without cipher that does not keep the service in use, neither for itself
    // nor for a cipher assigned to it: for objects of the service's own module, which is
    // there as long as they are.
    struct NoUse {};

protected:
    CMN_HIDDEN explicit CryptoCoderHandle(NoUse /*none*/) : CMN_ObjectStub(nullptr, nullptr) {}
    // A new cipher without key; without cipher when the store service cannot be reached.
    CryptoCoderHandle();
    explicit CryptoCoderHandle(TCryptoCoder* coder);  // may be null
};

class CMN_EXPORT aCryptoEncoder : public CryptoCoderHandle {
public:
    aCryptoEncoder() = default;
    explicit aCryptoEncoder(TCryptoCoder* coder) : CryptoCoderHandle(coder) {}
    CMN_HIDDEN explicit aCryptoEncoder(NoUse none) : CryptoCoderHandle(none) {}

    // A new buffer with `data` encrypted as a whole: what a decoder with the same password
    // takes, in this process or another. The result has no buffer when there is no cipher
    // or no key, or the step failed. `data` stays as it is.
    aBuf encrypt(aBuf& data);
};

class CMN_EXPORT aCryptoDecoder : public CryptoCoderHandle {
public:
    aCryptoDecoder() = default;
    explicit aCryptoDecoder(TCryptoCoder* coder) : CryptoCoderHandle(coder) {}
    CMN_HIDDEN explicit aCryptoDecoder(NoUse none) : CryptoCoderHandle(none) {}

    // A new buffer with `data` decrypted as a whole. The result has no buffer in the cases
    // of encrypt(), and for another key and for damage: always with the services of this
    // system; with another encryption service, when that notices.
    // error() of such a result is kNoMemory where memory was short, which says nothing of
    // the data, and kNoObject otherwise.
    aBuf decrypt(aBuf& data);
};

#endif  // CLIENT_CRYPTO_CODER_EXP_H
