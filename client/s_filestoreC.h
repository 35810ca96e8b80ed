// SPDX-License-Identifier: Apache-2.0
// The store service (module 107): the database as a whole.
//
// The database is the folder "./db" below the current directory, which the service never
// changes. Passwords are NUL-terminated bytes.
//
// Any thread may call any operation, but open(), close() and recrypt() one at a time: the
// callers see to that. The service is found through the host on first use. Operations
// return kOk for success, and besides what their tables list
//   kNoObject  the service cannot be reached; the next call asks the host again
//   kNoMemory  memory could not be allocated; nothing has changed
// Only what makes an object or a handle can throw, std::bad_alloc: create(), getEncoder(),
// getDecoder(), and copies of the buffers passed by value.
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

    // A new object of the type code (TFileStoreSrv::kRecord, ...), without a reference
    // yet: the caller attaches the first holder at once. Null for another code, and when
    // the service cannot be reached. Handles call this; programs make handles.
    virtual CMN_GuardedRef* create(unsigned int type);

    // Makes the folders of the database that are missing, durably, and first moves
    // "./old_db" back in place when a change of password was interrupted between its
    // renames. For open and closed databases; to be called before the first open().
    //   kIo  a folder is missing afterwards, or cannot be examined or made durable
    [[nodiscard]] Status prepareDBFolders();

    // Compares a password with the one of the database: with the digest in its record
    // "key", or, without that record, with the empty password. Puts that record back in
    // place first if an interrupted write has moved it aside. The database need not be
    // open.
    //   kWrongPassword  it is another one
    //   kInvalid        `password` is null
    //   kNotOpen        the record "key" cannot be read
    //   kNoDigest       the record "key" has no digest
    //   kIo             the digest could not be computed
    [[nodiscard]] Status checkPwd(const char* password);

    // Opens the database: from now on records can be decrypted, and written encrypted.
    // Statuses as checkPwd(), and
    //   kAlreadyOpen  the database is open
    //   kIo           the key could not be derived
    // After any failure but kAlreadyOpen the database is closed.
    [[nodiscard]] Status open(const char* password);

    // Drops the key. Records and ciphers that programs hold stay, and can neither encrypt
    // nor decrypt until the next open().
    //   kClosed  the database is not open
    Status close();

    // 1 or 0; 0 when the service cannot be reached.
    int isOpen();

    // Changes the password: copies "./db" to "./new_db", encrypts the copy anew, makes it
    // durable and swaps the folders. The old database stays in "./old_db", until the next
    // change. Works on an open and on a closed database and leaves it so, but the
    // service's ciphers have the new key afterwards either way. Nothing else reads or
    // writes records meanwhile. A record that another key has encrypted, or that is damaged,
    // is copied as it is; afterwards such a record answers kIo to decrypt(), and others do
    // not. What the old key has encrypted is never left so: where memory is too short for
    // it, the change fails.
    //   kInvalid   a password is null
    //   kNoMemory  memory was too short for a record, or for the list of them
    //   kIo        a folder, a file or a key failed, or a record could not be encrypted
    //   others     as checkPwd() of the old password, or as reading, writing and listing
    //              records
    // Wherever the process dies, exactly one of the passwords opens the database once
    // prepareDBFolders() has been called. After a failure the old one does, and the
    // service goes on as before, unless it was one of the last steps: then the ciphers and
    // "./db" may differ, so after kIo close(), prepareDBFolders() and open() before
    // anything is written.
    [[nodiscard]] Status recrypt(const char* oldPassword, const char* newPassword);

    // Encrypt and decrypt `data` with the key that follows from the password `key` or,
    // when `key` has no buffer, with that of the open database, whose ciphers stay as they
    // are. `out` then holds a new buffer.
    //   kIo  no key could be derived, or there is none, or, in decode(), it is another one
    //        or the data is damaged; do not use `out`
    [[nodiscard]] Status encode(aBuf key, aBuf data, aBuf& out);
    [[nodiscard]] Status decode(aBuf key, aBuf data, aBuf& out);
};

class CMN_EXPORT aFileStoreSrvExt : public aFileStoreSrv {
public:
    using aFileStoreSrv::aFileStoreSrv;
    using aFileStoreSrv::operator=;

    // Handles of the service's own ciphers, which have the database's key while it is
    // open. Without object when the service cannot be reached. After a change of password
    // an encoder has the new key and a decoder keeps the old one: take it again.
    aCryptoEncoder getEncoder();
    aCryptoDecoder getDecoder();
};

// Makes the objects that the handles of records, lists and ciphers hold.
extern aFileStoreSrv FileStoreSrvC;

// The store's own way to its service, bound as the module starts.
extern aFileStoreSrvExt CMN_FILESTORE_S;

#endif  // CLIENT_S_FILESTOREC_H
