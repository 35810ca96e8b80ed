// An ordered list of record handles with one cursor, and the scan of a folder.
//
// Clients use lists through aFileStoreList. A list, its cursor included, is one
// thread's at a time. A walk is getFirst(), then getNext() until it gives a handle
// without object.
#ifndef STORE_FILE_STORE_LIST_H
#define STORE_FILE_STORE_LIST_H

#include <list>
#include <string>
#include <vector>

#include "api/t_filestore.h"
#include "client/file_store_exp.h"
#include "cmn/export.h"
#include "cmn/status.h"

class CMN_EXPORT FileStoreList : public TFileStoreList {
public:
    FileStoreList();
    FileStoreList(const FileStoreList&) = delete;
    FileStoreList& operator=(const FileStoreList&) = delete;
    ~FileStoreList() override;

    Status init() override;  // kOk, and nothing else; as fini()
    Status fini() override;

    // Handles returned and stored are copies that share their record.
    aFileStore getFirst() override;
    aFileStore getNext() override;  // at the end it stays there

    // Erases the element under the cursor, which moves to the next one; without
    // such an element it does nothing. kOk.
    Status removeCurrent() override;

    unsigned int isEmpty() override;
    unsigned int isTail() override;  // 1: the cursor is at the end

    // Also a handle without object; kOk.
    Status pushFront(aFileStore& item) override;
    Status pushBack(aFileStore& item) override;

    // Erases the first element that shares the record of `item`.
    //   kIo   `item` has no object
    //   kEnd  no such element
    Status remove(aFileStore& item) override;

    // Replaces the contents by the records of a folder, in the folder's order, with
    // the cursor at the end. Descriptors that an interrupted write had moved aside
    // are put back first. Records are not read: a damaged one is told when it is.
    //   kInvalid   null folder
    //   kIo        the folder cannot be listed whole, or a descriptor not put back;
    //              the list is as it was
    //   others     as setFolderName() and setFileName(); the list holds what came before
    // Memory that could not be had is std::bad_alloc, with the lock released.
    Status readFromFolder(const char* folder) override;

    // RWLocker::kNoLock: readFromFolder() takes no lock.
    Status setLockType(int newType) override;

private:
    struct CMN_HIDDEN Element : aFileStore {
        explicit Element(const aFileStore& other) : aFileStore(other) {}
        void hold(TFileStore* record) { m_ref = record; }
    };
    using Records = std::list<Element>;

    CMN_HIDDEN void erase(Records::iterator element);
    CMN_HIDDEN Status append(const aFileStore& none, const char* folder, std::string name);

    Records records;
    Records::iterator cursor = records.end();
    int lockType = 0;
};

#endif  // STORE_FILE_STORE_LIST_H
