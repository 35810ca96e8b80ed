// SPDX-License-Identifier: Apache-2.0
// Key objects, and the PKIX key service (module 0x3f0008) that makes them.
//
// Objects come without a reference: the caller attaches the first holder.
// Operations that use a key (sign, verify, encrypt, decrypt, isConsistent and the
// getters) may run in many threads at once; those that change it need the key to
// themselves. Nothing throws. Operations that return an object return null on failure,
// and getError() then says why. In general
//   kInvalid    null, an unknown number, or what a key of this kind cannot do. A number
//               that no parameter, type or algorithm has is unknown to every key
//   kMalformed  bytes that are no key of the type; the key stays as it was
//   kEnd        the key has no value, or a value without such a part
//   kNoObject   the service of buffers did not make one
// The order of the operations is a binary contract between modules.
//
// Bytes are read as strict DER, from the first to the last; nothing else that BER allows is
// accepted. They are a key if each number is in its range, in whichever form they come:
//   RSA      two primes; an odd modulus; an odd public exponent from 3, of up to 64 bits;
//            all others from 1 and below the modulus, the primes odd
//   EC       a curve by its name; a scalar from 1 and below the order, in no more bytes
//            than that; a point of the curve, whole or compressed, not at infinity
//   Ed25519  a point of the curve, of none of the small orders, in its one encoding
// The parameters of the algorithm are those that its standard requires: NULL for RSA, none
// for Ed25519. isConsistent() checks whether the numbers of one key belong together.
#ifndef API_T_KEY_H
#define API_T_KEY_H

#include "api/pki_alg.h"
#include "api/t_buf.h"
#include "cmn/cmn_gref.h"
#include "cmn/export.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

// The identifier of the PKIX key service, 0x3f0008.
extern Tuint32ID PKIXKeyServiceID;

class CMN_EXPORT TKey : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    enum key_type_t : unsigned int {
        kNone = 0,       // not known yet: the first PKCS#8 or SubjectPublicKeyInfo sets it
        kSymmetric = 1,  // 1 to 1024 bytes
        kRsa = 2,        // 1024 to 16384 bits
        kEcP256 = 3,
        kEcP384 = 4,
        kEcP521 = 5,
        kEd25519 = 6
    };

    // Parameters whose value is bytes. Numbers are big-endian without leading zeros;
    // points are uncompressed, whatever form they came in.
    enum aka_t : unsigned int {
        kPublicKeyInfo = 1,   // SubjectPublicKeyInfo, DER; settable: the key is public then
        kPrivateKeyInfo = 2,  // PKCS#8 PrivateKeyInfo, DER; settable
        kModulus = 3,         // RSA
        kPublicExponent = 4,  // RSA
        kPublicPoint = 5,     // EC: point; Ed25519: 32 bytes
        kCurveName = 6        // EC: "P-256", "P-384", "P-521"
    };

    // Parameters whose value is a number.
    enum bka_t : unsigned int {
        kBits = 1,        // strength as usually named: 2048, 256, ...
        kIsPrivate = 2,   // 1 when there is something to keep secret, else 0
        kOutputSize = 3,  // largest signature, or ciphertext block, in bytes; not symmetric
        kUsage = 4        // settable: bits with the owner's meaning
    };

    // A new, independent copy; null on failure.
    virtual TKey* duplicate() const = 0;
    // Not 0 when the types or the key values differ, also from null. What the owner
    // attached does not count.
    virtual int compare(TKey* other) const = 0;
    // Drops the key value, which is wiped with the last key that has it; the rest stays.
    virtual Status clear() = 0;

    virtual key_type_t getType() const = 0;
    // The algorithm that the key is meant for, by default the one of its type. It can be
    // set to that one and to PKI_ALG_NONE; for a key without type, to that of any type.
    virtual Status setAlg(pki_alg_t alg) = 0;
    virtual pki_alg_t getAlg() const = 0;

    // The key value: raw bytes of a symmetric key, PKCS#8 of a private key,
    // SubjectPublicKeyInfo of a public one. setKey() takes the same forms: PKCS#8 of
    // either version (RFC 5208, RFC 5958), in which a public key must be that of the
    // private one; attributes are not kept. getKey() always returns the same form: the
    // first version, for EC with the whole public point.
    virtual Status setKey(TBuf* value) = 0;
    virtual TBuf* getKey() const = 0;

    // Parameters by tag: bytes that the owner attaches under a number of its own.
    // Any number will do. Without one, getParam() returns null and kEnd.
    virtual TBuf* getParam(unsigned char tag) const = 0;
    virtual Status setParam(unsigned char tag, TBuf* value) = 0;
    virtual TBuf* getParam(aka_t which) const = 0;
    virtual int getParam(bka_t which) const = 0;  // -1 when the key has none
    virtual Status setParam(aka_t which, TBuf* value) = 0;
    virtual Status setParam(bka_t which, int value) = 0;

    // The raw form: bytes of a symmetric key; the scalar of an EC or the seed of
    // an Ed25519 private key, or its public point when it is public; PKCS#1 of RSA.
    // setRaw() takes the 32 bytes of Ed25519 for the seed.
    virtual TBuf* getRaw() const = 0;
    virtual Status setRaw(const unsigned char* data, unsigned int len) = 0;

    // Where the key is on a token, two numbers with the owner's meaning. While none were
    // set, kEnd and no change of the references.
    virtual Status setTokenId(unsigned int slot, unsigned int object) = 0;
    virtual Status getTokenId(unsigned int& slot, unsigned int& object) const = 0;

    virtual Status setRaw(TBuf* value) = 0;

    // The key identifier: the one set, unless that is empty, else the SHA-1 of the
    // public key bits, or, for a symmetric key, null and kEnd.
    virtual TBuf* getKeyId() const = 0;
    virtual Status setKeyId(TBuf* id) = 0;

    // The signature of `data`: RSA PKCS#1 v1.5 with SHA-256, ECDSA (DER) with the
    // SHA-2 of the curve's size, Ed25519.
    virtual TBuf* sign(TBuf* data) const = 0;
    // kOk when the signature is right, kIo when it is not.
    virtual Status verify(TBuf* data, TBuf* signature) const = 0;

    // Symmetric, of 16, 24 or 32 bytes: AES-GCM, framed as api/pkcs5_i.h says, with
    // its statuses. RSA: OAEP with SHA-256, up to 66 bytes less than a block; kIo for
    // another key or damage. Others cannot.
    virtual TBuf* encrypt(TBuf* plain) const = 0;
    virtual TBuf* decrypt(TBuf* cipher) const = 0;

    // kOk when the parts of this key belong together and, unless `other` is null, its
    // public part, or all of a symmetric key, is `other`'s; kIo when not. The parts of one
    // key are only checked, by arithmetic, when `deep` is not 0.
    virtual Status isConsistent(TKey* other, int deep) const = 0;

    virtual Status setVendor(pki_vendor vendor) = 0;
    virtual pki_vendor getVendor() const = 0;

    // The status of the calling thread's last operation on a key of this service.
    virtual Status getError() const = 0;
};

class CMN_EXPORT TPkixKeyService : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    // New keys: without type; of a type, without value; from what setKey() takes or from
    // the raw form. Null on failure, also for an unknown type and for malformed bytes.
    virtual TKey* createTKey() = 0;
    virtual TKey* createTKey(TKey::key_type_t type) = 0;
    virtual TKey* createTKey(TKey::key_type_t type, const unsigned char* data,
                             unsigned int len) = 0;
};

#endif  // API_T_KEY_H
