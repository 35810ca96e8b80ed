// SPDX-License-Identifier: Apache-2.0
// A handle of one key object, as the PKIX key service and password-based encryption
// make them. The types of keys, the numbers of parameters and the forms of key values
// are in api/t_key.h.
//
// Copies share the key and keep it alive; the last one that goes deletes it, and the
// value is wiped. Keys copy what they are given, and return new buffers. Any thread may
// use any handle; the const operations of one key may run in many threads at once, and
// those that change it need it to themselves. Building, assigning and destroying a handle
// is one thread's at a time.
//
// Each operation sets error(): to the status that it returns or, when it returns
// something else, to how that went. What returns a buffer returns a handle without one on
// failure. Possible everywhere, besides the statuses at each operation:
//   kNoObject  the handle has no key (numbers are then 0); or a buffer could not be made
//   kNoMemory  memory could not be allocated
//   kEnd       where the value is needed: the key has none
// A failure leaves the key as it was. Operations do not throw. Making, copying or
// assigning a handle can throw std::bad_alloc; what a key throws passes through, and
// leaves every guard as it was.
#ifndef CLIENT_PKIXAKEY_H
#define CLIENT_PKIXAKEY_H

#include "api/pki_alg.h"
#include "api/t_key.h"
#include "client/cmn_abuf.h"
#include "client/pkixhook.h"
#include "cmn/status.h"

class aKey : public PKIXKeyObject<TKey> {
public:
    // Holds `key`, which may be null.
    explicit aKey(TKey* key);

    // A new key of the type: without value, or from `len` bytes in a form that setKey() or
    // setRaw() takes. Without key, and with error() kNoObject, when none could be made:
    // also for an unknown type, and for bytes that are not such a key.
    explicit aKey(TKey::key_type_t type);
    aKey(TKey::key_type_t type, const unsigned char* data, unsigned int len);

    TKey::key_type_t getType() const;

    // The algorithm that the key is meant for, by itself the one of its type.
    //   kInvalid  neither that nor PKI_ALG_NONE; for a key without type, not one of a key
    Status setAlg(pki_alg_t alg);
    pki_alg_t getAlg() const;

    // The value: raw bytes of a symmetric key, PKCS#8 of a private key,
    // SubjectPublicKeyInfo of a public one. A key without type gets that of the value.
    //   kInvalid    `value` has no buffer
    //   kMalformed  the bytes are not a key of this type
    aBuf getKey() const;
    Status setKey(aBuf& value);

    // Bytes that the program attaches under a number of its own.
    //   kEnd      nothing is attached under `tag`
    //   kInvalid  `value` has no buffer
    aBuf getParam(unsigned char tag) const;
    Status setParam(unsigned char tag, aBuf& value);

    // Parts of the value, or the value by a part of it.
    //   kEnd        the value has no such part
    //   kInvalid    an unknown number; or one that this key does not take, or no buffer
    //   kMalformed  the bytes are not a key of this type
    aBuf getParam(TKey::aka_t which) const;
    Status setParam(TKey::aka_t which, aBuf& value);
    int getParam(TKey::bka_t which) const;  // -1 on failure
    Status setParam(TKey::bka_t which, int value);

    // The value in its raw form. Statuses as setKey().
    aBuf getRaw() const;
    Status setRaw(const unsigned char* data, unsigned int len);
    Status setRaw(aBuf& value);

    // Where the key is on a token, two numbers that the program gives a meaning.
    //   kEnd  none were set; the references keep their values, as on every failure
    Status setTokenId(unsigned int slot, unsigned int object);
    Status getTokenId(unsigned int& slot, unsigned int& object) const;

    // The identifier that was set, or else the SHA-1 of the public key bits; a symmetric
    // key has none by itself.
    //   kInvalid  `id` has no buffer
    aBuf getKeyId() const;
    Status setKeyId(aBuf& id);

    Status setVendor(pki_vendor vendor);
    pki_vendor getVendor();

    // The signature of `data`, and whether one is right.
    //   kInvalid  the key cannot do this, or an argument has no buffer
    //   kIo       the signature is wrong, or could not be made
    aBuf sign(aBuf& data) const;
    Status verify(aBuf& data, aBuf& signature) const;

    // A message encrypted or decrypted as a whole.
    //   kInvalid    the key cannot do this, the message is too long for it, or there is
    //               no buffer
    //   kMalformed  what is to be decrypted by a symmetric key is too short, or of another
    //               version
    //   kIo         another key, or damage
    aBuf encrypt(aBuf& plain) const;
    aBuf decrypt(aBuf& cipher) const;

    // Whether both are one key, by their public parts, or by all of symmetric ones; not
    // asked when `other` has no key. With `deep` not 0 also whether the parts of this key
    // belong together.
    //   kIo  they are not, or they do not
    Status isConsistent(aKey& other, int deep) const;
};

#endif  // CLIENT_PKIXAKEY_H
