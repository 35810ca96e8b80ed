// A reference: a small file that stands for a record where a program wants a key or certificate. It
// holds a URI and no secret. The OpenSSL provider reads it.
//
//     -----BEGIN FSTORE URI-----
//     base64 of the URI
//     -----END FSTORE URI-----
#ifndef LIB_WORK_REFERENCE_H
#define LIB_WORK_REFERENCE_H

#include <string>

#include "lib/work/uri.h"

namespace fstore {

// The text of the file. Any thread may call it.
std::string referenceOf(const RecordUri& uri);

}  // namespace fstore

#endif  // LIB_WORK_REFERENCE_H
