// Key derivation of PKCS#12: api/pkcs5_i.h says what it promises.
#ifndef MODULES_PKCS5_P12_PBKDF_H
#define MODULES_PKCS5_P12_PBKDF_H

#include "api/pkcs5_i.h"
#include "cmn/cmn_gref.h"
#include "modules/common/wiped_bytes.h"
#include "modules/pkcs5/with_parameters.h"

class P12Pbkdf final : public WithParameters<P12PBKDF> {
public:
    static constexpr unsigned int kType = 0x430002;  // module 67, kind 2

    P12Pbkdf();

    TKey* getKey(target purpose) override;
    Status error() override;
    Status setHashMap(HashMap* map) override;

private:
    Status derive(target purpose, WipedBytes& key) const;

    CMN_GRefPtr<HashMap> derived_;  // earlier results, or none
};

#endif  // MODULES_PKCS5_P12_PBKDF_H
