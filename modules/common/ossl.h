// Owners of the OpenSSL objects that the services use.
#ifndef MODULES_COMMON_OSSL_H
#define MODULES_COMMON_OSSL_H

#include <openssl/bn.h>
#include <openssl/decoder.h>
#include <openssl/ec.h>
#include <openssl/encoder.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

#include "ossl/owner.h"

namespace ossl {

using Cipher = Owner<EVP_CIPHER, EVP_CIPHER_free>;
using CipherCtx = Owner<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using Kdf = Owner<EVP_KDF, EVP_KDF_free>;
using KdfCtx = Owner<EVP_KDF_CTX, EVP_KDF_CTX_free>;
using MdCtx = Owner<EVP_MD_CTX, EVP_MD_CTX_free>;
using Pkey = Owner<EVP_PKEY, EVP_PKEY_free>;
using PkeyCtx = Owner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using Pkcs8 = Owner<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;
using PublicKeyInfo = Owner<X509_PUBKEY, X509_PUBKEY_free>;
using Decoder = Owner<OSSL_DECODER_CTX, OSSL_DECODER_CTX_free>;
using Encoder = Owner<OSSL_ENCODER_CTX, OSSL_ENCODER_CTX_free>;
using ParamBuilder = Owner<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using Params = Owner<OSSL_PARAM, OSSL_PARAM_free>;
using Group = Owner<EC_GROUP, EC_GROUP_free>;
using Point = Owner<EC_POINT, EC_POINT_free>;
using Number = Owner<BIGNUM, BN_clear_free>;

}  // namespace ossl

#endif  // MODULES_COMMON_OSSL_H
