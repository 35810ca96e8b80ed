// SPDX-License-Identifier: Apache-2.0
// The record cipher, as its handles see it. Programs use the handles, and
// client/crypto_coder_exp.h says what each operation does: the handle's operation of the
// same name.
//
// The order of the operations is a binary contract between modules.
#ifndef API_T_CRYPTOCODER_H
#define API_T_CRYPTOCODER_H

#include "cmn/cmn_gref.h"
#include "cmn/export.h"
#include "cmn/status.h"

class aBuf;

class CMN_EXPORT TCryptoCoder : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    virtual Status setKey(aBuf& password) = 0;
    virtual aBuf encrypt(aBuf& data) = 0;
    virtual aBuf decrypt(aBuf& data) = 0;
};

#endif  // API_T_CRYPTOCODER_H
