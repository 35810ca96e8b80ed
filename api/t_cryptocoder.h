// The record cipher, as its handles see it.
//
// Any thread may call any operation. The order of the operations is a binary
// contract between modules.
#ifndef API_T_CRYPTOCODER_H
#define API_T_CRYPTOCODER_H

#include "cmn/cmn_gref.h"
#include "cmn/export.h"
#include "cmn/status.h"

class aBuf;

class CMN_EXPORT TCryptoCoder : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    // Derives the key from a password. A password without buffer object removes
    // the key. kIo when no key could be derived; the present key stays then.
    virtual Status setKey(aBuf& password) = 0;

    // The input encrypted, or decrypted, as a whole. A result without buffer
    // object is a failure: no key, or, when decrypting, a wrong key or damage.
    virtual aBuf encrypt(aBuf& data) = 0;
    virtual aBuf decrypt(aBuf& data) = 0;
};

#endif  // API_T_CRYPTOCODER_H
