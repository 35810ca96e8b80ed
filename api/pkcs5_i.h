// SPDX-License-Identifier: Apache-2.0
// Password-based encryption, key derivation and the byte-string map of the PKCS#5
// service (module 67).
//
// Objects come without a reference: the caller attaches the first holder. Setting
// parameters, keys and maps needs an object to itself; getting keys, encrypting and
// decrypting may run in many threads at once. Nothing throws: operations that return
// an object return null on failure, and error() then says why. A number that no
// selector, algorithm, purpose or object has is kInvalid everywhere. The order of the
// operations is a binary contract between modules.
#ifndef API_PKCS5_I_H
#define API_PKCS5_I_H

#include "api/pki_alg.h"
#include "api/t_buf.h"
#include "api/t_key.h"
#include "cmn/cmn_gref.h"
#include "cmn/export.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

// The identifier of the PKCS#5 service, 67.
extern Tuint32ID pkcs5ID;

// A password-based encryption scheme: parameters in, then a key is derived once,
// and kept, with which it encrypts and decrypts.
class CMN_EXPORT PBES : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    enum pbes_type : unsigned int {
        kPbkdf2 = 0,  // key derivation of RFC 8018
        kPkcs12 = 1   // key derivation of RFC 7292, appendix B
    };

    // Selectors of parameters. A scheme needs all of them; an empty password and an
    // empty salt are values like any other.
    enum param : unsigned int {
        kPassword = 1,    // up to 1 MiB
        kSalt = 2,        // up to 1 MiB
        kIterations = 3,  // 1 to 10,000,000
        // Of kPbkdf2: PKI_ALG_PBKDF2_HMAC_SHA256. Of kPkcs12: the digest, which is
        // PKI_ALG_SHA1 or PKI_ALG_SHA256.
        kFirstAlg = 4,
        kKeyLength = 5,  // in bytes: 16, 24 or 32
        kSecondAlg = 6   // PKI_ALG_AES_GCM
    };

    // A value is for the selector set last. kInvalid for a value that does not suit its
    // selector, for null, and for an unknown selector. A parameter that was refused counts
    // as missing until it gets a value, so that there is never another key than the one
    // asked for; an unknown one stays missing. Every value, and a refused selector, drops
    // the key, also one that was set.
    virtual Status select(param selector) = 0;
    virtual Status supply(TBuf* bytes) = 0;
    virtual Status supply(unsigned int number) = 0;
    virtual Status supply(pki_alg_t alg) = 0;

    // Uses a copy of the given key, a symmetric one of 16, 24 or 32 bytes, instead of
    // one derived from the parameters. kInvalid for any other.
    virtual Status setKey(TKey* key) = 0;
    // A new key object with the key, which is derived when there is none yet; null
    // with kInvalid while a parameter is missing.
    virtual TKey* getKey() = 0;

    // The input as a whole: version byte (1), 12 bytes of nonce, ciphertext, 16 bytes
    // of tag. Derives the key when there is none yet, but never one that is there.
    // Without a key null as getKey(). Decrypting, null with
    //   kMalformed  the input is shorter than an empty message, or of another version
    //   kIo         another key, or damage of any kind
    virtual TBuf* encrypt(TBuf* plain) = 0;
    virtual TBuf* decrypt(TBuf* cipher) = 0;

    // The status of the calling thread's last operation on an object of this service.
    // kNoObject: the service of buffers or keys did not make one.
    virtual Status error() = 0;
};

class HashMap;

// Key derivation of PKCS#12 (RFC 7292, appendix B). Parameters as for a PBES of type
// kPkcs12, but keys have 1 to 64 bytes, and there is no second algorithm: its
// selector is unknown. The password is UTF-8; the derivation uses it as a BMPString
// with its terminating zero.
class CMN_EXPORT P12PBKDF : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    using param = PBES::param;
    // What the derived bytes are for: the ID byte of the derivation.
    enum target : unsigned int { kEncryptionKey = 1, kInitialVector = 2, kMacKey = 3 };

    virtual Status select(param selector) = 0;
    virtual Status supply(TBuf* bytes) = 0;
    virtual Status supply(unsigned int number) = 0;
    virtual Status supply(pki_alg_t alg) = 0;

    // A new symmetric key of the length set; null with kInvalid while a parameter is
    // missing, and for an unknown purpose.
    virtual TKey* getKey(target purpose) = 0;
    // As PBES::error().
    virtual Status error() = 0;

    // Looks derived keys up in `map`, and adds those that are not in it: files in
    // which many items share their parameters then cost one derivation. The map holds
    // keys, under digests of what they were derived from. Null ends this.
    virtual Status setHashMap(HashMap* map) = 0;
};

// A map from byte strings to byte strings. Any thread may call it at any time.
class CMN_EXPORT HashMap : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    // Adds copies of both, or replaces the value that is under the key. kInvalid for
    // null.
    virtual Status add(TBuf* key, TBuf* value) = 0;
    // A new buffer with a copy of the value; null when there is none.
    virtual TBuf* find(TBuf* key) = 0;
};

class CMN_EXPORT PKCS5_Interface : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    enum objectName_t : unsigned int { kPbes0 = 0, kPbes1 = 1, kP12Pbkdf = 2, kHashMap = 3 };

    // A new PBES, P12PBKDF or HashMap; null for another name and on failure.
    virtual CMN_GuardedRef* createObject(objectName_t name) = 0;
};

#endif  // API_PKCS5_I_H
