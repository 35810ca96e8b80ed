// Records and lists of a context's database.
//
// They are the same as others, and know their context: in any other they refuse, since a path
// means another file there. The objects of the process's folder need no such field, and have
// the published layout.
#ifndef STORE_CONTEXT_OBJECTS_H
#define STORE_CONTEXT_OBJECTS_H

#include "store/context.h"
#include "store/file_store.h"
#include "store/file_store_list.h"

class CMN_HIDDEN ContextRecord final : public FileStore {
public:
    const unsigned int context = Context::enteredId();
};

class CMN_HIDDEN ContextList final : public FileStoreList {
public:
    const unsigned int context = Context::enteredId();
};

// New ones, without a reference yet, of the database that this thread works on.
FileStore* newRecord();
FileStoreList* newList();

// Whether it belongs to another database than that.
bool isElsewhere(const FileStore& record) noexcept;
bool isElsewhere(const FileStoreList& list) noexcept;

#endif  // STORE_CONTEXT_OBJECTS_H
