// SPDX-License-Identifier: Apache-2.0
// The client of the PKIX key service (module 0x3f0008), which makes key objects.
// Programs use keys through client/pkixakey.h.
#ifndef CLIENT_PKIXKEYCLNT_H
#define CLIENT_PKIXKEYCLNT_H

#include "api/t_key.h"
#include "cmn/cmn_stub.h"

// Any thread may call any operation. Each acquires the service if need be, and returns
// a new key without a reference, to which the caller attaches the first holder; null
// when the service cannot be reached or makes no such key.
class aPkixKeyClnt : public CMN_ServiceStub<TPkixKeyService> {
public:
    // Bound to `target` at once, or with null on first use.
    explicit aPkixKeyClnt(TPkixKeyService* target = nullptr)
        : CMN_ServiceStub<TPkixKeyService>(PKIXKeyServiceID, target) {}

    TKey* createTKey();
    TKey* createTKey(TKey::key_type_t type);
    TKey* createTKey(TKey::key_type_t type, const unsigned char* data, unsigned int len);
};

extern aPkixKeyClnt pkixKeyClnt;  // this module's one stub of the service

#endif  // CLIENT_PKIXKEYCLNT_H
