// SPDX-License-Identifier: Apache-2.0
// The store service, as its stub sees it. Programs use the stub, and client/s_filestoreC.h
// says what each operation does: the stub's operation of the same name.
//
// The order of the operations is a binary contract between modules.
#ifndef API_T_FILESTORE_SRV_H
#define API_T_FILESTORE_SRV_H

#include "api/base_module.h"
#include "cmn/cmn_gref.h"
#include "cmn/export.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

class aBuf;
class aCryptoDecoder;
class aCryptoEncoder;

// The identifier of the store service, 107.
extern Tuint32ID FILESTORE_ID;

class CMN_EXPORT TFileStoreSrv : public BaseModuleInterface, public CMN_GuardedRef {
public:
    // What create() makes: the module's number above, the kind below.
    static constexpr unsigned int kRecord = 0x6B0001;
    static constexpr unsigned int kRecordList = 0x6B0002;
    static constexpr unsigned int kCipher = 0x6B0003;

    using CMN_GuardedRef::CMN_GuardedRef;

    virtual Status open(const char* password) = 0;
    virtual Status close() = 0;
    virtual int isOpen() = 0;
    virtual Status checkPwd(const char* password) = 0;
    virtual Status recrypt(const char* oldPassword, const char* newPassword) = 0;
    virtual CMN_GuardedRef* create(unsigned int type) = 0;
    virtual aCryptoEncoder getEncoder() = 0;
    virtual aCryptoDecoder getDecoder() = 0;
    virtual Status encode(aBuf key, aBuf data, aBuf& out) = 0;
    virtual Status decode(aBuf key, aBuf data, aBuf& out) = 0;
    virtual Status prepareDBFolders() = 0;
    // In this table too, besides that of the guarded reference.
    Status init() override = 0;
    Status fini() override = 0;
};

#endif  // API_T_FILESTORE_SRV_H
