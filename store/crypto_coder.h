// The cipher of record contents: one key, derived from the database password.
//
// Programs use it through the handles of client/crypto_coder_exp.h. Encrypting and
// decrypting run side by side; setKey() waits for them only to put its new key in place,
// after the slow derivation.
#ifndef STORE_CRYPTO_CODER_H
#define STORE_CRYPTO_CODER_H

#include "api/t_cryptocoder.h"
#include "client/cmn_abuf.h"
#include "client/pkcs5C.h"
#include "cmn/export.h"
#include "cmn/status.h"
#include "os/handles.h"

class CMN_EXPORT CryptoCoder : public TCryptoCoder {
public:
    CryptoCoder();
    CryptoCoder(const CryptoCoder&) = delete;
    CryptoCoder& operator=(const CryptoCoder&) = delete;
    ~CryptoCoder() override;

    Status init() override;  // kOk, and nothing else; as fini()
    Status fini() override;

    Status setKey(aBuf& password) override;
    aBuf encrypt(aBuf& data) override;
    aBuf decrypt(aBuf& data) override;

private:
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;  // guards pbes
    mmPBES pbes;                                         // without object: no key
};

// An encryption object keyed from the password; without object when no key could
// be derived. The salt is empty and the count fixed, so the same password gives
// the same key in every process: a database is readable wherever it is carried.
mmPBES createCoder(const unsigned char* password, unsigned int length);

#endif  // STORE_CRYPTO_CODER_H
