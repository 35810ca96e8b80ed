// SPDX-License-Identifier: Apache-2.0
// Records and lists of records, as their handles see them. Programs use the handles, and
// client/file_store_exp.h says what each operation does: the handle's operation of the
// same name.
//
// The order of the operations is a binary contract between modules.
#ifndef API_T_FILESTORE_H
#define API_T_FILESTORE_H

#include "cmn/cmn_gref.h"
#include "cmn/export.h"
#include "cmn/status.h"

class aFileStore;

class CMN_EXPORT TFileStore : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    virtual const char* getFolderName() = 0;
    virtual Status setFolderName(const char* folder) = 0;
    virtual const char* getName() = 0;
    virtual Status setName(const char* name) = 0;
    virtual const char* getFileName() = 0;
    virtual Status setFileName(const char* fileName) = 0;
    virtual Status decrypt() = 0;
    virtual Status setBody(const unsigned char* data, unsigned int size) = 0;
    virtual unsigned int getBodySize() = 0;
    virtual const unsigned char* getBody() = 0;
    virtual Status setBodyFlag(unsigned int flag) = 0;
    virtual unsigned int getBodyFlag() = 0;
    virtual Status addAttr(unsigned int type, unsigned int id, const unsigned char* data,
                           unsigned int size) = 0;
    virtual Status setAttr(unsigned int type, unsigned int id, const unsigned char* data,
                           unsigned int size) = 0;
    virtual unsigned int getAttrCount() = 0;
    virtual unsigned int getAttrType(unsigned int index) = 0;
    virtual unsigned int getAttrID(unsigned int index) = 0;
    virtual unsigned int getAttrSize(unsigned int index) = 0;
    virtual const unsigned char* getAttr(unsigned int index) = 0;
    virtual Status setAttrFlag(unsigned int index, unsigned int flag) = 0;
    virtual unsigned int getAttrFlag(unsigned int index) = 0;
    virtual unsigned int findAttr(unsigned int type, unsigned int id, const unsigned char* data,
                                  unsigned int size) = 0;
    virtual Status removeAttr(unsigned int index) = 0;
    virtual Status removeAttrs() = 0;
    virtual Status read() = 0;
    virtual Status write() = 0;
    virtual int isExist() = 0;
    virtual Status remove() = 0;
    virtual unsigned int getUniqueID() = 0;
    virtual Status setLockType(int type) = 0;
    virtual Status setLoginCheck(int check) = 0;
    virtual int hasBody() = 0;
};

class CMN_EXPORT TFileStoreList : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    virtual aFileStore getFirst() = 0;
    virtual aFileStore getNext() = 0;
    virtual Status removeCurrent() = 0;
    virtual unsigned int isEmpty() = 0;
    virtual unsigned int isTail() = 0;
    virtual Status pushFront(aFileStore& item) = 0;
    virtual Status pushBack(aFileStore& item) = 0;
    virtual Status remove(aFileStore& item) = 0;
    virtual Status readFromFolder(const char* folder) = 0;
    virtual Status setLockType(int type) = 0;
};

#endif  // API_T_FILESTORE_H
