// SPDX-License-Identifier: Apache-2.0
// Clients of the PKCS#5 service (module 67): password-based encryption, key
// derivation of PKCS#12, and a map of byte strings. The selectors of parameters and
// their limits are in api/pkcs5_i.h.
//
// Copies of a handle share its object and keep it alive; the last one that goes deletes
// it, and what it has of passwords and keys is wiped. Objects copy what they are given,
// and return new objects. Any thread may use any handle; of one object, getKey(),
// encrypt(), decrypt(), error() and the operations of a map may run in many threads at
// once, while what sets parameters, keys or maps needs the object to itself. Building,
// assigning and destroying a handle is one thread's at a time.
//
// Statuses other than kOk that are possible everywhere:
//   kNoObject  the handle has no object; or a buffer or key could not be made
//   kNoMemory  memory could not be allocated
// A failure leaves the object as it was. Operations do not throw. Making, copying or
// assigning a handle can throw std::bad_alloc; what a service throws passes through, and
// leaves every guard as it was.
#ifndef CLIENT_PKCS5C_H
#define CLIENT_PKCS5C_H

#include "api/pkcs5_i.h"
#include "api/pki_alg.h"
#include "client/cmn_abuf.h"
#include "client/pkixakey.h"
#include "cmn/cmn_gref.h"
#include "cmn/cmn_stub.h"
#include "cmn/status.h"

class PKCS5 : public CMN_ServiceStub<PKCS5_Interface> {
public:
    // Bound to `target` at once, or with null on first use.
    explicit PKCS5(PKCS5_Interface* target = nullptr)
        : CMN_ServiceStub<PKCS5_Interface>(pkcs5ID, target) {}

    // A new object without a reference, to which the caller attaches the first
    // holder; null when the service cannot be reached or makes no such object.
    CMN_GuardedRef* createObject(PKCS5_Interface::objectName_t name);
};

extern PKCS5 pkcs5srv;  // this module's one stub of the service

// A password-based encryption scheme: all its parameters, or a key, and then any number
// of messages.
class mmPBES : public CMN_ObjectStub<PBES> {
public:
    explicit mmPBES(PBES::pbes_type t);  // a new object; none for another type
    explicit mmPBES(PBES* object);       // holds `object`, which may be null

    // Set a parameter: its selector, then its value. How each went is in error(); a
    // parameter that was refused counts as missing.
    //   kInvalid  an unknown selector, or a value that does not suit it
    // Every value drops the key, also one that was set.
    mmPBES& operator<<(PBES::param selector);
    mmPBES& operator<<(const aBuf& bytes);
    mmPBES& operator<<(pki_alg_t alg);
    mmPBES& operator<<(unsigned int number);

    // Uses a copy of this key instead of one derived from the parameters.
    //   kInvalid  it is not a symmetric key of 16, 24 or 32 bytes
    //   kEnd      it has no value
    Status setKey(const aKey& k);

    // A new key object with the key, which is derived if there is none yet. Without key
    // on failure; error() then is
    //   kInvalid  a parameter is missing
    //   kIo       the derivation failed
    aKey getKey() const;

    // A new buffer with the whole of `in` encrypted or decrypted; derives the key if there
    // is none yet. Without buffer on failure; error() then is as for getKey(), and
    //   kInvalid    `in` has no buffer
    //   kMalformed  decrypting: `in` is too short, or of another version
    //   kIo         decrypting: another key, or damage
    aBuf encrypt(const aBuf& in) const;
    aBuf decrypt(const aBuf& in) const;

    // The status of the calling thread's last operation on an object of the service,
    // whichever that was; kNoObject for a handle without object.
    Status error() const;
};

// A map from byte strings to byte strings. This handle of it is only passed on.
class aHashMap : public CMN_ObjectStub<HashMap> {
public:
    aHashMap();                          // a new map
    explicit aHashMap(HashMap* object);  // holds `object`, which may be null
};

// A handle that can also use the map.
class aHashMapFull : public aHashMap {
public:
    aHashMapFull() = default;
    explicit aHashMapFull(HashMap* object);
    explicit aHashMapFull(const aHashMap& other);  // shares the other's map

    // Adds copies of both, or replaces the value that is under the key.
    //   kInvalid  `key` or `value` has no buffer
    Status add(const aBuf& key, const aBuf& value);

    // A new buffer with a copy of the value. Without buffer when there is none under the
    // key, and on failure.
    aBuf find(const aBuf& key) const;
};

// Key derivation of PKCS#12.
class mmP12PBKDF : public CMN_ObjectStub<P12PBKDF> {
public:
    mmP12PBKDF();                           // a new object
    explicit mmP12PBKDF(P12PBKDF* object);  // holds `object`, which may be null

    // As those of mmPBES.
    mmP12PBKDF& operator<<(P12PBKDF::param selector);
    mmP12PBKDF& operator<<(const aBuf& bytes);
    mmP12PBKDF& operator<<(pki_alg_t alg);
    mmP12PBKDF& operator<<(unsigned int number);

    // A new symmetric key of the length that was set. Without key on failure; error()
    // then is as for mmPBES::getKey().
    aKey getKey(P12PBKDF::target purpose) const;
    // As mmPBES::error().
    Status error() const;

    // Looks derived keys up in `map`, which is shared and not copied, and adds those that
    // are not in it: many files with the same parameters then cost one derivation. The
    // map holds keys under digests of what they were derived from. A handle without map
    // ends this.
    Status setHashMap(const aHashMap& map);
};

#endif  // CLIENT_PKCS5C_H
