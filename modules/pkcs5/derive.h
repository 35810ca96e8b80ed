// Key derivation from passwords. Any thread may call these.
#ifndef MODULES_PKCS5_DERIVE_H
#define MODULES_PKCS5_DERIVE_H

#include "api/pkcs5_i.h"
#include "cmn/status.h"
#include "modules/common/wiped_bytes.h"
#include "modules/pkcs5/kdf_parameters.h"

// Both put a key of the length set into `key`: kInvalid when parameters are
// missing, kNoMemory, kIo when a step of the derivation failed.

// PBKDF2 of RFC 8018 with HMAC-SHA-256.
[[nodiscard]] Status derivePbkdf2(const KdfParameters& parameters, WipedBytes& key);

// RFC 7292, appendix B. The password, in UTF-8, is taken as a BMPString with its
// terminating zero, as files of PKCS#12 do; one that is no UTF-8, byte by byte.
[[nodiscard]] Status derivePkcs12(const KdfParameters& parameters, P12PBKDF::target purpose,
                                  WipedBytes& key);

#endif  // MODULES_PKCS5_DERIVE_H
