// Public keys of Ed25519 among all strings of 32 bytes. Any thread may call this.
#ifndef MODULES_PKIXKEY_ED25519_POINT_H
#define MODULES_PKIXKEY_ED25519_POINT_H

#include "cmn/status.h"
#include "modules/common/bytes.h"

// kOk for a point of the curve in its one encoding (RFC 8032, 5.1.3). kMalformed for
// other bytes, and for the eight points of small order: their secret is no secret, and
// signatures that anybody can make are right under them. kIo: it could not be told.
[[nodiscard]] Status checkEd25519Point(Bytes encoded);

#endif  // MODULES_PKIXKEY_ED25519_POINT_H
