// Handles of records and of lists of records: what clients work with.
//
// A handle shares its record or list with its copies and keeps it alive. Any
// thread may call through a handle, but callers that share one record, or one
// list and its cursor, take turns by themselves. Every operation of a handle
// without object answers kNoObject, or what stands beside it here; every other
// result is the object's own. store/file_store.h and store/file_store_list.h tell
// what each operation promises.
#ifndef CLIENT_FILE_STORE_EXP_H
#define CLIENT_FILE_STORE_EXP_H

#include "api/t_filestore.h"
#include "cmn/cmn_stub.h"
#include "cmn/export.h"
#include "cmn/status.h"

class CMN_EXPORT aFileStore : public CMN_ObjectStub<TFileStore> {
public:
    // A new, empty record of the store service; without object when it cannot be had.
    aFileStore();
    // Holds `target`, which may be null.
    explicit aFileStore(TFileStore* target);
    // Shares the record. Unlike other handles a copy takes no use of the service:
    // lists are made of copies, and the handle that they were copied from, or the
    // list's own, keeps the service in use.
    aFileStore(const aFileStore& other);
    aFileStore& operator=(const aFileStore&) = default;
    aFileStore& operator=(aFileStore&&) = default;

    [[nodiscard]] Status setFolderName(const char* folder);
    [[nodiscard]] Status setName(const char* name);
    [[nodiscard]] Status setFileName(const char* fileName);
    const char* getFolderName() const;  // null, as the next two
    const char* getName() const;
    const char* getFileName() const;

    [[nodiscard]] Status decrypt();
    [[nodiscard]] Status setBody(const unsigned char* data, unsigned int size);
    [[nodiscard]] Status setBodyFlag(unsigned int flag);
    const unsigned char* getBody() const;  // null
    unsigned int getBodySize() const;      // 0, as the next two
    unsigned int getBodyFlag() const;
    int hasBody() const;

    [[nodiscard]] Status addAttr(unsigned int type, unsigned int id, const unsigned char* data,
                                 unsigned int size);
    [[nodiscard]] Status setAttr(unsigned int type, unsigned int id, const unsigned char* data,
                                 unsigned int size);
    [[nodiscard]] Status setAttrFlag(unsigned int index, unsigned int flag);
    [[nodiscard]] Status removeAttr(unsigned int index);
    Status removeAttrs();
    unsigned int getAttrCount() const;  // 0, as the next four
    unsigned int getAttrType(unsigned int index) const;
    unsigned int getAttrID(unsigned int index) const;
    unsigned int getAttrSize(unsigned int index) const;
    unsigned int getAttrFlag(unsigned int index) const;
    const unsigned char* getAttr(unsigned int index) const;  // null
    // 0xFFFFFFFF
    unsigned int findAttr(unsigned int type, unsigned int id, const unsigned char* data,
                          unsigned int size) const;

    [[nodiscard]] Status read();
    [[nodiscard]] Status write();
    [[nodiscard]] Status remove();
    int isExist() const;               // 0
    unsigned int getUniqueID() const;  // 0
};

// A handle with the setters that ordinary clients have no use for.
class CMN_EXPORT aFileStoreExt : public aFileStore {
public:
    // Shares the record of `from`; without object when `from` has none.
    explicit aFileStoreExt(aFileStore& from);

    [[nodiscard]] Status setLockType(int type);
    [[nodiscard]] Status setLoginCheck(int check);
};

class CMN_EXPORT aFileStoreList : public CMN_ObjectStub<TFileStoreList> {
public:
    // A new, empty list of the store service; without object when it cannot be had.
    aFileStoreList();
    // Holds `target`, which may be null.
    explicit aFileStoreList(TFileStoreList* target);

    aFileStore getFirst();  // a handle without object, as the next
    aFileStore getNext();
    Status removeCurrent();
    unsigned int isEmpty() const;  // 1, as the next
    unsigned int isTail() const;
    Status pushFront(aFileStore& item);
    Status pushBack(aFileStore& item);
    [[nodiscard]] Status remove(aFileStore& item);
    [[nodiscard]] Status readFromFolder(const char* folder);
};

class CMN_EXPORT aFileStoreListExt : public aFileStoreList {
public:
    // Shares the list of `from`; without object when `from` has none.
    explicit aFileStoreListExt(aFileStoreList& from);

    [[nodiscard]] Status setLockType(int type);
};

#endif  // CLIENT_FILE_STORE_EXP_H
