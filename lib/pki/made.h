// What OpenSSL makes, and fails to make for want of memory only.
#ifndef LIB_PKI_MADE_H
#define LIB_PKI_MADE_H

#include "lib/base/error.h"

namespace fstore {

// The owner that has something. Throws MemoryFailure for an empty one.
template <class Owned>
Owned made(Owned owned) {
    if (owned == nullptr) {
        failWithStatus(kNoMemory, "out of memory for a certificate");
    }
    return owned;
}

}  // namespace fstore

#endif  // LIB_PKI_MADE_H
