// A handle of one key object, as the PKIX key service and password-based
// encryption make them.
//
// Using a key (the const operations) may go on in many threads at once; changing it
// is one thread's. Nothing here throws; an exception out of the key passes
// through, and leaves every guard as it was.
#ifndef CLIENT_PKIXAKEY_H
#define CLIENT_PKIXAKEY_H

#include "api/pki_alg.h"
#include "api/t_key.h"
#include "client/cmn_abuf.h"
#include "client/pkixhook.h"
#include "cmn/status.h"

// What each operation does is told in api/t_key.h, where the one of the same name
// stands. Every one sets error(): the status it gives, or, when it gives something
// else, the key's own answer to how it went. Without a key all are kNoObject, 0, or
// a handle without a buffer, which is also what a failure to give bytes looks like.
// Copies share the key.
class aKey : public PKIXKeyObject<TKey> {
public:
    // A handle of this key, which may be null.
    explicit aKey(TKey* key);

    // A new key of the type: without value, or from `len` bytes. Without a key, and
    // with error() kNoObject, when none could be made.
    explicit aKey(TKey::key_type_t type);
    aKey(TKey::key_type_t type, const unsigned char* data, unsigned int len);

    TKey::key_type_t getType() const;
    Status setAlg(pki_alg_t alg);
    pki_alg_t getAlg() const;

    aBuf getKey() const;
    Status setKey(aBuf& value);

    aBuf getParam(unsigned char tag) const;
    aBuf getParam(TKey::aka_t which) const;
    int getParam(TKey::bka_t which) const;
    Status setParam(TKey::bka_t which, int value);
    Status setParam(TKey::aka_t which, aBuf& value);
    Status setParam(unsigned char tag, aBuf& value);

    aBuf getRaw() const;
    Status setRaw(const unsigned char* data, unsigned int len);
    Status setRaw(aBuf& value);

    Status setTokenId(unsigned int slot, unsigned int object);
    // Both numbers stay as they are on failure.
    Status getTokenId(unsigned int& slot, unsigned int& object) const;

    aBuf getKeyId() const;
    Status setKeyId(aBuf& id);

    Status setVendor(pki_vendor vendor);
    pki_vendor getVendor();

    aBuf sign(aBuf& data) const;
    Status verify(aBuf& data, aBuf& signature) const;
    aBuf encrypt(aBuf& plain) const;
    aBuf decrypt(aBuf& cipher) const;

    Status isConsistent(aKey& other, int deep) const;
};

#endif  // CLIENT_PKIXAKEY_H
