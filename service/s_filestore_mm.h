// The store service: the module's one service object, with its factory and the
// state of the open database.
//
// Clients use it through aFileStoreSrv. The database lives in "./db" below the
// current directory, which nothing here changes. Any thread may call any
// operation, but open(), close() and recrypt() are serialised by their callers:
// nothing guards the open state as a whole. No operation throws, but for
// create(). Passwords are NUL-terminated bytes.
#ifndef SERVICE_S_FILESTORE_MM_H
#define SERVICE_S_FILESTORE_MM_H

#include <atomic>

#include "api/t_filestore_srv.h"
#include "client/cmn_abuf.h"
#include "client/crypto_coder_exp.h"
#include "client/file_store_exp.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/export.h"
#include "cmn/objmgrfunc.h"
#include "cmn/status.h"
#include "cmn/thread_annotations.h"
#include "service/md5.h"

extern "C" {

// What getVersion() and getBuild() tell.
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

    // Opens the database under its password. A failure leaves it closed.
    //   kAlreadyOpen  it is open
    //   kIo           a key could not be made or derived
    //   others        as checkPwd()
    Status open(const char* candidate) override;

    // Drops the key; kClosed when the database is not open. Handles taken before
    // stay, without a key.
    Status close() override;

    int isOpen() override;

    // Compares a password with the digest kept in the record "key" of "./db";
    // without such a record the empty password is the right one. The database need
    // not be open.
    //   kInvalid        null password
    //   kWrongPassword  it is another one
    //   kNotOpen        the record could not be read
    //   kNoDigest       the record holds no digest
    //   kIo             the digest could not be computed
    Status checkPwd(const char* candidate) override;

    // Gives the database a new password: copies "./db" to "./new_db", re-encrypts
    // the copy, makes it durable, and swaps the folders, which leaves the old
    // database in "./old_db". Works on an open and on a closed database and keeps
    // it so; no record is read or written by others meanwhile. A record that does
    // not decrypt is copied as it is.
    //   kInvalid  null new password
    //   kIo       a folder or a key failed; for a failure after the copy is complete
    //             the folders tell which password holds, and the service should be
    //             closed and opened again
    //   others    as checkPwd(), or of a record that could not be read or listed
    Status recrypt(const char* oldPassword, const char* newPassword) override;

    // A new record, list or cipher, without a reference; null for another type.
    // Memory that could not be had is std::bad_alloc.
    CMN_GuardedRef* create(unsigned int kind) override;

    // Handles on the service's own ciphers, which carry the database's key while it
    // is open.
    aCryptoEncoder getEncoder() override;
    aCryptoDecoder getDecoder() override;

    // Encrypt and decrypt with a key of their own or, when `key` has no buffer
    // object, with the open database's. kIo when there is no result.
    Status encode(aBuf key, aBuf data, aBuf& out) override;
    Status decode(aBuf key, aBuf data, aBuf& out) override;

    // Makes the folders of the database that are missing, and puts "./old_db" back
    // in place when a change of password was interrupted between its renames; kIo
    // when a folder is missing afterwards, or not durably there.
    Status prepareDBFolders() override;

private:
    class Recryption;

    CMN_HIDDEN Status setKeys(aBuf& key);
    CMN_HIDDEN Status dropKeys();
    CMN_HIDDEN aCryptoEncoder ownEncoder();
    CMN_HIDDEN aCryptoDecoder ownDecoder();
    CMN_HIDDEN aCryptoEncoder setEncoder(const aCryptoEncoder& replacement);
    CMN_HIDDEN void setDecoder(const aCryptoDecoder& replacement);

    aCryptoEncoder encoder CMN_GUARDED_BY(coders);
    aCryptoDecoder decoder CMN_GUARDED_BY(coders);
    std::atomic<int> opened{0};
    aBuf password;     // stays without object: keys live in the ciphers only
    CMN_Mutex coders;  // the two handles; taken before the locks of stubs
};

// Appends every record of `folder` and, depth first, of the folders in it.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is published
[[nodiscard]] Status _getFullStoreList(const char* folder, aFileStoreList& list);

#endif  // SERVICE_S_FILESTORE_MM_H
