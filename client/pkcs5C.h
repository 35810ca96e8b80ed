// Clients of the PKCS#5 service (module 67): password-based encryption, key
// derivation of PKCS#12 and the byte-string map. What each operation does, and what
// may run in many threads at once, is told in api/pkcs5_i.h.
//
// A proxy that could not be given an object answers kNoObject, or with a handle
// without an object. Copies share the object. Nothing here throws; an exception out
// of the service passes through, and leaves every guard as it was.
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
    // holder; null when the service cannot be had or makes no such object.
    CMN_GuardedRef* createObject(PKCS5_Interface::objectName_t name);
};

extern PKCS5 pkcs5srv;  // this module's one stub of the service

// A password-based encryption scheme. Parameters go in as a selector followed by
// its value, in a chain; how the last one went is told by error().
class mmPBES : public CMN_ObjectStub<PBES> {
public:
    explicit mmPBES(PBES::pbes_type t);  // a new object; none for another type
    explicit mmPBES(PBES* object);       // a handle of this object, which may be null

    mmPBES& operator<<(PBES::param selector);
    mmPBES& operator<<(const aBuf& bytes);
    mmPBES& operator<<(pki_alg_t alg);
    mmPBES& operator<<(unsigned int number);

    Status setKey(const aKey& k);
    aKey getKey() const;

    // A new buffer; a handle without one is a failure, which error() tells.
    aBuf encrypt(const aBuf& in) const;
    aBuf decrypt(const aBuf& in) const;

    Status error() const;
};

// A map from byte strings to byte strings. This handle of it can only be passed on.
class aHashMap : public CMN_ObjectStub<HashMap> {
public:
    aHashMap();                          // a new map
    explicit aHashMap(HashMap* object);  // a handle of this map, which may be null
};

// A handle that can also use the map.
class aHashMapFull : public aHashMap {
public:
    aHashMapFull() = default;
    explicit aHashMapFull(HashMap* object);
    explicit aHashMapFull(const aHashMap& other);  // shares the other's map

    Status add(const aBuf& key, const aBuf& value);

    // A new buffer with the value; a handle without one when nothing is found.
    aBuf find(const aBuf& key) const;
};

// Key derivation of PKCS#12. Parameters as for mmPBES.
class mmP12PBKDF : public CMN_ObjectStub<P12PBKDF> {
public:
    mmP12PBKDF();                           // a new object
    explicit mmP12PBKDF(P12PBKDF* object);  // a handle of this object, which may be null

    mmP12PBKDF& operator<<(P12PBKDF::param selector);
    mmP12PBKDF& operator<<(const aBuf& bytes);
    mmP12PBKDF& operator<<(pki_alg_t alg);
    mmP12PBKDF& operator<<(unsigned int number);

    aKey getKey(P12PBKDF::target purpose) const;
    Status error() const;
    Status setHashMap(const aHashMap& map);
};

#endif  // CLIENT_PKCS5C_H
