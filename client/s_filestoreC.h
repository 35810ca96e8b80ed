// The client's stub of the store service (module 107).
//
// Any thread may call any operation; open, close and recrypt are serialised by
// their callers. The service is found through the host on first use. While it
// cannot be had, operations answer kNoObject (isOpen 0, create null) and ask
// again on the next call. Every other result is the service's own; see
// service/s_filestore_mm.h for what each operation promises.
#ifndef CLIENT_S_FILESTOREC_H
#define CLIENT_S_FILESTOREC_H

#include "api/t_filestore_srv.h"
#include "client/cmn_abuf.h"
#include "client/crypto_coder_exp.h"
#include "cmn/cmn_stub.h"
#include "cmn/export.h"
#include "cmn/status.h"

class CMN_EXPORT aFileStoreSrv : public CMN_ServiceStub<TFileStoreSrv> {
public:
    // Asks the host for the service at once.
    aFileStoreSrv();
    // Bound to `srv`, or unbound when that is null; does not ask the host.
    explicit aFileStoreSrv(TFileStoreSrv* srv);
    aFileStoreSrv(const aFileStoreSrv&) = delete;
    aFileStoreSrv& operator=(const aFileStoreSrv&) = default;

    // A new object of the type code (TFileStoreSrv::kRecord, ...), without a
    // reference yet: the caller attaches the first holder. Null for other codes.
    virtual CMN_GuardedRef* create(unsigned int type);

    [[nodiscard]] Status open(const char* password);
    Status close();
    int isOpen();
    [[nodiscard]] Status checkPwd(const char* password);
    [[nodiscard]] Status recrypt(const char* oldPassword, const char* newPassword);
    [[nodiscard]] Status encode(aBuf key, aBuf data, aBuf& out);
    [[nodiscard]] Status decode(aBuf key, aBuf data, aBuf& out);
    [[nodiscard]] Status prepareDBFolders();
};

class CMN_EXPORT aFileStoreSrvExt : public aFileStoreSrv {
public:
    using aFileStoreSrv::aFileStoreSrv;
    using aFileStoreSrv::operator=;

    // Handles on the ciphers of the service; without object while it cannot be had.
    aCryptoEncoder getEncoder();
    aCryptoDecoder getDecoder();
};

// Makes the objects that the proxies of records, lists and ciphers hold.
extern aFileStoreSrv FileStoreSrvC;

// The store's own way to its service, bound as the module starts.
extern aFileStoreSrvExt CMN_FILESTORE_S;

#endif  // CLIENT_S_FILESTOREC_H
