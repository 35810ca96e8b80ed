// Key derivation of PKCS#12: api/pkcs5_i.h says what it promises.
#ifndef MODULES_PKCS5_P12_PBKDF_H
#define MODULES_PKCS5_P12_PBKDF_H

#include "api/pkcs5_i.h"
#include "cmn/cmn_gref.h"
#include "modules/common/wiped_bytes.h"
#include "modules/pkcs5/kdf_parameters.h"

class P12Pbkdf final : public P12PBKDF {
public:
    static constexpr unsigned int kType = 0x430002;  // module 67, kind 2

    P12Pbkdf();

    Status init() override { return kOk; }
    Status fini() override { return kOk; }

    Status select(param selector) override;
    Status supply(TBuf* bytes) override;
    Status supply(unsigned int number) override;
    Status supply(pki_alg_t alg) override;
    TKey* getKey(target purpose) override;
    Status error() override;
    Status setHashMap(HashMap* map) override;

private:
    Status derive(target purpose, WipedBytes& key) const;

    KdfParameters parameters_;
    CMN_GRefPtr<HashMap> derived_;  // earlier results, or none
};

#endif  // MODULES_PKCS5_P12_PBKDF_H
