// SPDX-License-Identifier: Apache-2.0
// Byte buffers, and the X.509 common service (module 111) that makes them.
//
// Objects come without a reference: the caller attaches the first holder. A
// buffer is one thread's at a time; any thread may use the service. The order of
// the operations is a binary contract between modules.
#ifndef API_T_BUF_H
#define API_T_BUF_H

#include "cmn/cmn_gref.h"
#include "cmn/export.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

// The identifier of the X.509 common service, 111.
extern Tuint32ID X509CmnSrvID;

// Bytes of any value and number. A failed operation leaves the contents as they
// were. Null arguments give kInvalid unless said otherwise.
class CMN_EXPORT TBuf : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    // The most bytes that the buffer can take without moving them.
    virtual unsigned int capacity() const = 0;
    // Wipes the contents; the buffer is empty then.
    virtual Status clear() = 0;

    // Replace the contents by a copy: of a text without its terminating NUL, or of
    // `len` bytes (`data` may be null when `len` is 0).
    virtual Status set(const char* s) = 0;
    virtual Status set(const unsigned char* data, unsigned int len) = 0;

    // Appends a copy of `len` bytes.
    virtual Status append(const unsigned char* data, unsigned int len) = 0;

    // The first byte, writable, valid until the contents change; never null.
    virtual unsigned char* data() = 0;
    virtual unsigned int length() const = 0;

    // Makes this a copy of another buffer.
    virtual Status duplicate(TBuf* other) = 0;
    // Appends another buffer's contents; a buffer may be appended to itself.
    virtual Status append(TBuf* other) = 0;

    // Not 0 when the contents differ, also from null. Takes as long wherever the first
    // difference is.
    virtual int compare(TBuf* other) = 0;

    // Replaces the contents by those of a file: kMissing when there is no regular
    // file that can be opened, kIo when it cannot be read whole, kNoMemory also
    // when it is larger than a buffer can be.
    virtual Status load(const char* path) = 0;
    // Replaces the file by the contents, durably and whole or not at all, readable
    // by its owner only. Writes into a device, into a FIFO, for whose reader it waits,
    // and into /dev/stdout, /dev/stderr or /dev/fd/N; part of that stays if it fails.
    //   kInvalid  the path ends at a symbolic link, which is neither followed nor replaced
    //   kIo       it failed, or the new file is there but the system did not confirm
    //             that its name will last
    // A killed save may leave ".NAME.new-5d0c9e7b-" and a digit beside the file; the next save
    // of that name removes it.
    virtual Status save(const char* path) = 0;

    // Drop `count` bytes at the front, or at the end; kInvalid when there are fewer.
    virtual Status shift(unsigned int count) = 0;
    virtual Status retreat(unsigned int count) = 0;
};

// Base of the service's decoded objects.
class CMN_EXPORT XBase : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;
};

class CMN_EXPORT X509CmnSrv_I : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    // New buffers: empty, or with a copy of a text, of bytes, of another buffer.
    // Null on failure.
    virtual TBuf* createTBuf() = 0;
    virtual TBuf* createTBuf(const char* s) = 0;
    virtual TBuf* createTBuf(const unsigned char* data, unsigned int len) = 0;
    virtual TBuf* createTBuf(TBuf* src) = 0;
};

#endif  // API_T_BUF_H
