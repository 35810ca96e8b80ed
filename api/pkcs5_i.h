// Password-based encryption, key derivation and the byte-string map of the PKCS#5
// service (module 67).
//
// Objects come without a reference: the caller attaches the first holder. Setting
// parameters and keys needs an object to itself; encrypting and decrypting may run
// in many threads at once. The order of the operations is a binary contract
// between modules.
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

// A password-based encryption scheme: parameters in, then a key derived once, and
// kept, with which it encrypts and decrypts.
class CMN_EXPORT PBES : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    enum pbes_type : unsigned int {
        kPbkdf2 = 0,  // key derivation of RFC 8018
        kPkcs12 = 1   // key derivation of RFC 7292, appendix B
    };

    // Selectors of parameters.
    enum param : unsigned int {
        kPassword = 1,    // bytes
        kSalt = 2,        // bytes
        kIterations = 3,  // number
        kFirstAlg = 4,    // algorithm of the key derivation
        kKeyLength = 5,   // number, in bytes
        kSecondAlg = 6    // algorithm of the encryption
    };

    // A value is for the selector set last. One that does not fit its selector is
    // refused with kInvalid; the object then keeps what it had, and error() tells.
    // A new parameter drops a derived key.
    virtual Status select(param selector) = 0;
    virtual Status supply(TBuf* bytes) = 0;
    virtual Status supply(unsigned int number) = 0;
    virtual Status supply(pki_alg_t alg) = 0;

    // Uses the given key instead of one derived from the parameters.
    virtual Status setKey(TKey* key) = 0;
    // The key, derived on the first call; null when the parameters do not make one.
    virtual TKey* getKey() = 0;

    // The input as a whole: version byte, 12 bytes of nonce, ciphertext, 16 bytes
    // of tag. Null on failure; a wrong key, damage, truncation and another version
    // are failures of decrypt().
    virtual TBuf* encrypt(TBuf* plain) = 0;
    virtual TBuf* decrypt(TBuf* cipher) = 0;

    // The status of the calling thread's last operation on an object of this service.
    virtual Status error() = 0;
};

class HashMap;

// Key derivation of PKCS#12 (RFC 7292, appendix B). Parameters as for PBES; the
// first algorithm is the digest.
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

    // A new key of the length set; null on failure.
    virtual TKey* getKey(target purpose) = 0;
    // As PBES::error().
    virtual Status error() = 0;

    // Looks derived keys up in `map`, and adds those that are not there: files in
    // which many items share their parameters then cost one derivation. Null ends it.
    virtual Status setHashMap(HashMap* map) = 0;
};

// A map from byte strings to byte strings. Any thread may call it at any time.
class CMN_EXPORT HashMap : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    // Adds copies of both; a value that stands under the key is replaced.
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
