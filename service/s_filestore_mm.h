// The store service: the module's one service object, with its factory and the
// state of the open database; of several, where threads have entered contexts
// (api/filestore_context.h).
//
// Programs use it through aFileStoreSrv (client/s_filestoreC.h), which says what each
// operation does that the stub has too. Nothing guards the open state as a whole: the
// callers of open(), close() and recrypt() serialise these. No operation throws but
// create(), getEncoder() and getDecoder().
#ifndef SERVICE_S_FILESTORE_MM_H
#define SERVICE_S_FILESTORE_MM_H

#include "api/t_filestore_srv.h"
#include "client/file_store_exp.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/export.h"
#include "cmn/objmgrfunc.h"
#include "cmn/status.h"
#include "service/md5.h"
#include "service/open_state.h"

extern "C" {

// What getVersion() and getBuild() return.
extern CMN_EXPORT const unsigned int FileStore_Module_Version;
extern CMN_EXPORT const unsigned int FileStore_Module_Build;
}

class CMN_EXPORT FileStoreSrv : public TFileStoreSrv {
public:
    FileStoreSrv();
    FileStoreSrv(const FileStoreSrv&) = delete;
    FileStoreSrv& operator=(const FileStoreSrv&) = delete;
    ~FileStoreSrv() override;  // closes the database

    unsigned int getModuleID() override;  // 107
    unsigned int getVersion() override;
    unsigned int getBuild() override;
    int isReplaceable() override;                                             // 1
    CMN_GuardedRef* createObject(unsigned int type) override;                 // null
    Status addModule(unsigned int id, BaseModuleInterface* module) override;  // kIo
    CMN_GuardedRef* getService(const TypifiedID& id) override;
    Status init() override;  // kOk, and nothing else; as fini()
    Status fini() override;

    CMN_ObjectManager* GetObjMgr() noexcept { return &ObjectManager; }

    Status open(const char* candidate) override;
    Status close() override;
    int isOpen() override;
    Status checkPwd(const char* candidate) override;
    Status recrypt(const char* oldPassword, const char* newPassword) override;
    CMN_GuardedRef* create(unsigned int kind) override;
    aCryptoEncoder getEncoder() override;
    aCryptoDecoder getDecoder() override;
    Status encode(aBuf key, aBuf data, aBuf& out) override;
    Status decode(aBuf key, aBuf data, aBuf& out) override;
    Status prepareDBFolders() override;

private:
    class Recryption;

    // Of the database that this thread works on.
    CMN_HIDDEN OpenState& state() noexcept;

    OpenState own;  // of the process's folder
};

// Appends every record of `folder` and, depth first, of the folders in it.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is published
[[nodiscard]] Status _getFullStoreList(const char* folder, aFileStoreList& list);

#endif  // SERVICE_S_FILESTORE_MM_H
