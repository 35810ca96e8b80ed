#include "lib/pki/old_ciphers.h"

#include <openssl/evp.h>
#include <openssl/objects.h>

namespace fstore {

OldCiphers::OldCiphers() {
    constexpr int kBesideTheUsual = 1;
    constexpr const char* kUsual = "default";
    if (OSSL_PROVIDER_available(nullptr, kUsual) == 1) {  // not where others were chosen
        usual_.reset(OSSL_PROVIDER_try_load(nullptr, kUsual, kBesideTheUsual));
    }
    old_.reset(OSSL_PROVIDER_try_load(nullptr, "legacy", kBesideTheUsual));
}

std::string missingCipherOf(const X509_ALGOR& algorithm) {
    using Cipher = ossl::Owner<EVP_CIPHER, EVP_CIPHER_free>;
    int cipher = NID_undef;
    int digest = NID_undef;
    if (EVP_PBE_find(EVP_PBE_TYPE_OUTER, OBJ_obj2nid(algorithm.algorithm), &cipher, &digest,
                     nullptr) != 1 ||
        cipher <= NID_undef) {
        return {};
    }
    const char* const name = OBJ_nid2sn(cipher);
    const Cipher known(EVP_CIPHER_fetch(nullptr, name, nullptr));
    return known != nullptr ? std::string() : name;
}

}  // namespace fstore
