// SPDX-License-Identifier: Apache-2.0
// Records and lists of records: the handles that programs work with.
//
// A record has a name, a folder, typed attributes and an optional body of bytes.
// Changes stay in memory until write(); read() replaces what is in memory by what is on
// disk. A list is an ordered sequence of handles of records, with one cursor.
//
// A handle shares its record or list with its copies and keeps it alive; the last one
// that goes deletes it. Arguments are copied, never kept. A pointer that a getter
// returns belongs to the record and is valid until the record changes or goes.
//
// Any thread may use any handle, but a record is one thread's at a time, however many
// handles share it, and so are a list with its cursor and a handle that is built,
// assigned or destroyed. Records that threads do not share need no care: in one process
// reads run side by side, and write(), remove() and readFromFolder() exclude them and
// each other. Processes are not coordinated.
//
// Operations that return a Status return kOk for success; the tables list the rest.
// Unless a table says otherwise, a failure leaves everything as it was. Two statuses are
// possible nearly everywhere and not repeated:
//   kNoObject  the handle has no object. Operations without status then return the
//              value noted beside them.
//   kNoMemory  memory could not be allocated
// Only what makes a handle can throw, std::bad_alloc: constructors, copies and
// assignments, getFirst() and getNext(), and readFromFolder().
#ifndef CLIENT_FILE_STORE_EXP_H
#define CLIENT_FILE_STORE_EXP_H

#include "api/t_filestore.h"
#include "cmn/cmn_stub.h"
#include "cmn/export.h"
#include "cmn/status.h"

class CMN_EXPORT aFileStore : public CMN_ObjectStub<TFileStore> {
public:
    // A new record: empty, unnamed, in folder ".". Without object when the store service
    // cannot be reached.
    aFileStore();
    // Holds `target`, which may be null.
    explicit aFileStore(TFileStore* target);
    // Shares the record. Unlike other handles, a copy does not keep the service in use:
    // lists are made of copies, and the handle they were copied from, or the list's own,
    // does that.
    aFileStore(const aFileStore& other);
    aFileStore& operator=(const aFileStore&) = default;
    aFileStore& operator=(aFileStore&&) = default;

    // Names. The folder is a path without "/" at its end, such as "./db/keys". The name is that
    // of the descriptor file without its extension: setName("a") makes the file name
    // "a.dsc", and setFileName("a.b.dsc") the name "a.b". A null argument empties both
    // names and leaves a folder as it is. Nothing is looked up on disk.
    [[nodiscard]] Status setFolderName(const char* folder);
    [[nodiscard]] Status setName(const char* name);
    [[nodiscard]] Status setFileName(const char* fileName);
    // Never null for a record; "" when not set. Without object: null.
    const char* getFolderName() const;
    const char* getName() const;
    const char* getFileName() const;

    // Encryption and the body.

    // Turns all that read() took in encrypted form into plain form: the body, then the
    // attributes in order. Does nothing, also on a closed database, when nothing is
    // encrypted. Flags stay, so write() encrypts the same parts again.
    //   kNotOpen   the database is closed; nothing has changed
    //   kIo        a part does not decrypt (another key, or damage), or not to what its
    //              type allows; parts before it are plain now, the others still encrypted
    //   kNoMemory  as kIo, but it may decrypt when there is more memory
    [[nodiscard]] Status decrypt();

    // Replaces the body by a copy of `size` bytes; setBody(null, 0) makes an empty one.
    //   kInvalid  `data` is null and `size` is not 0
    [[nodiscard]] Status setBody(const unsigned char* data, unsigned int size);
    // 1: encrypted on disk, from the next write() on; 0: plain.
    //   kInvalid  another value
    [[nodiscard]] Status setBodyFlag(unsigned int flag);
    // The bytes, still encrypted between read() and decrypt(). Null without a body, for
    // an empty one, and without object.
    const unsigned char* getBody() const;
    // Without object: 0, as the next two. The size counts only while hasBody() is 1.
    unsigned int getBodySize() const;
    unsigned int getBodyFlag() const;
    int hasBody() const;  // 1 or 0

    // Attributes. Each has a data type, an id that the program chooses, and bytes:
    //   1  a 32-bit number in host byte order; `size` is 4
    //   2  any bytes
    //   3  a text that ends in a NUL, whatever `size` is; it has no line feed
    //   4  a text of `size` bytes; it has no line feed
    // Of `type` only the low 4 bits count. A record with an attribute of another type
    // cannot be written. On disk a text of type 4 ends at its first NUL, and a text of
    // either type loses the white space that it begins with.

    // Adds an attribute behind the others, not encrypted. There may be any number of the
    // same type and id.
    //   kInvalid    `data` is null
    //   kMalformed  `data` is not what its type allows
    [[nodiscard]] Status addAttr(unsigned int type, unsigned int id, const unsigned char* data,
                                 unsigned int size);
    // Replaces the data of the first attribute of this type and id, which keeps its place
    // and its flag; without one, adds it. Statuses as addAttr(); the old data then stays.
    [[nodiscard]] Status setAttr(unsigned int type, unsigned int id, const unsigned char* data,
                                 unsigned int size);
    // 1: encrypted on disk, from the next write() on; 0: plain. For type 2 only: of a
    // text, what follows a NUL in the encrypted bytes would be lost, and an encrypted
    // number cannot be written.
    //   kEnd      `index` is out of range
    //   kInvalid  another value
    [[nodiscard]] Status setAttrFlag(unsigned int index, unsigned int flag);
    // Removes one; those behind it move down by one.
    //   kInvalid  `index` is out of range
    [[nodiscard]] Status removeAttr(unsigned int index);
    Status removeAttrs();  // kOk

    // 0 without object, and the getters by index also when that is out of range.
    unsigned int getAttrCount() const;
    unsigned int getAttrType(unsigned int index) const;
    unsigned int getAttrID(unsigned int index) const;
    unsigned int getAttrSize(unsigned int index) const;
    unsigned int getAttrFlag(unsigned int index) const;
    // The bytes, still encrypted between read() and decrypt(); null instead of 0.
    const unsigned char* getAttr(unsigned int index) const;
    // The index of the first attribute of this type and id and, unless `data` is null,
    // with exactly these `size` bytes; 0xFFFFFFFF when there is none, and without object.
    unsigned int findAttr(unsigned int type, unsigned int id, const unsigned char* data,
                          unsigned int size) const;

    // Disk.

    // Reads descriptor and body, flags included; what is encrypted stays so until
    // decrypt(). First puts a descriptor back in place that an interrupted write() has
    // moved aside. The database need not be open.
    //   kMissing    the record has no file name; or there is no such descriptor, or not
    //               the body that it names
    //   kMalformed  the descriptor cannot be read, or a line of it is bad, or the body
    //               that it names is not a file of its own in this folder
    //   kIo         the body cannot be read whole, or has 4 GiB or more
    // After the failure of a record that has a file name its attributes are those that
    // were read so far, and its body must not be used.
    [[nodiscard]] Status read();

    // Writes the record, and returns when it is durable. Wherever the process dies or the
    // power goes, the old record or the new one is there, body and descriptor together.
    // A record without name gets one, 8 hexadecimal digits that no file of the folder
    // has. Parts that are still encrypted are decrypted first, and stay plain in memory.
    //   kIo  any failure: a file cannot be written; something has to be encrypted or
    //        decrypted while the database is closed; the body is empty and plain; an
    //        attribute's type cannot be written. The old record stays. Only when the
    //        folder could neither be synced nor changed back may it be the new one, whole.
    [[nodiscard]] Status write();

    // Deletes descriptor and body; kOk when the removal is durable. The record in memory
    // stays as it is, and write() stores it again.
    //   kMissing   the record has no file name
    //   kNoMemory  it is not removed
    //   kIo        there is no such record, or it could not be removed durably: it is back
    //              in place
    [[nodiscard]] Status remove();

    // 0 when there is no such descriptor, and for a record without file name; 1 also when
    // the system cannot tell. Changes nothing: one that an interrupted write() has moved
    // aside counts as absent until it is read or listed. Without object: 0.
    int isExist() const;

    // Identifies the object among all live records of the process; never 0, and not kept
    // on disk. Without object: 0.
    unsigned int getUniqueID() const;
};

// A handle with the setters that ordinary programs have no use for.
class CMN_EXPORT aFileStoreExt : public aFileStore {
public:
    // Shares the record of `from`; without object when `from` has none.
    explicit aFileStoreExt(aFileStore& from);

    // -1: read(), write(), remove() and isExist() take no lock, for a caller that excludes
    // all others itself. Any other value: they do, as in a new record. kOk.
    [[nodiscard]] Status setLockType(int type);
    // 0: decrypt() does not ask whether the database is open, and uses the key that the
    // cipher has. Any other value: it does, as in a new record. kOk.
    [[nodiscard]] Status setLoginCheck(int check);
};

class CMN_EXPORT aFileStoreList : public CMN_ObjectStub<TFileStoreList> {
public:
    // A new, empty list. Without object when the store service cannot be reached.
    aFileStoreList();
    // Holds `target`, which may be null.
    explicit aFileStoreList(TFileStoreList* target);

    // A walk is getFirst(), then getNext() until it returns a handle without object; both
    // move the cursor and return a handle that shares the element's record. At the end
    // getNext() stays there. Without list: a handle without object.
    aFileStore getFirst();
    aFileStore getNext();

    // Removes the element at the cursor, which moves to the next one; at the end it does
    // nothing. The record on disk stays. kOk.
    Status removeCurrent();

    // 1 or 0; 1 without list.
    unsigned int isEmpty() const;
    unsigned int isTail() const;  // whether the cursor is at the end

    // Add an element that shares the record of `item`, which may have none. The cursor
    // stays at its element.
    Status pushFront(aFileStore& item);
    Status pushBack(aFileStore& item);

    // Removes the first element that shares the record of `item`. The cursor moves on if
    // it was there. The record on disk stays.
    //   kIo   `item` has no object
    //   kEnd  there is no such element
    [[nodiscard]] Status remove(aFileStore& item);

    // Replaces the contents by the records of a folder, not of those in it, in the order
    // in which the system lists them; the cursor is at the end. Puts descriptors back in
    // place that an interrupted write() has moved aside. Records are not read: damage
    // shows when they are.
    //   kInvalid   `folder` is null
    //   kIo        the folder could not be listed to its end, or a descriptor not be put
    //              back; the list is as it was
    //   kNoObject  also when the store service cannot be reached; the list is empty
    //   kNoMemory  the list holds what came before
    [[nodiscard]] Status readFromFolder(const char* folder);
};

class CMN_EXPORT aFileStoreListExt : public aFileStoreList {
public:
    // Shares the list of `from`; without object when `from` has none.
    explicit aFileStoreListExt(aFileStoreList& from);

    // As aFileStoreExt::setLockType(), for readFromFolder().
    [[nodiscard]] Status setLockType(int type);
};

#endif  // CLIENT_FILE_STORE_EXP_H
