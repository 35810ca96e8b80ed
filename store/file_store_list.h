// An ordered list of record handles with one cursor, and the scan of a folder.
//
// Programs use lists through aFileStoreList (client/file_store_exp.h), which says what
// each operation does. Memory that could not be allocated is std::bad_alloc, with the
// lock released.
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

    aFileStore getFirst() override;
    aFileStore getNext() override;
    Status removeCurrent() override;
    unsigned int isEmpty() override;
    unsigned int isTail() override;
    Status pushFront(aFileStore& item) override;
    Status pushBack(aFileStore& item) override;
    Status remove(aFileStore& item) override;
    Status readFromFolder(const char* folder) override;
    Status setLockType(int newType) override;  // RWLocker::kNoLock, or any other

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
