// SPDX-License-Identifier: Apache-2.0
// Byte buffers, and the client of the X.509 common service (module 111) that makes
// them. Passwords, keys, attributes and bodies travel in an aBuf.
//
// Any thread may use any handle, but a buffer is one thread's at a time, however many
// handles share it. Any thread may use the service stub, except that x509cmn_init() and
// x509cmn_fini() have it to themselves.
//
// Operations do not throw. Making, copying or assigning a handle can throw std::bad_alloc;
// what a service throws passes through, and leaves every guard as it was.
#ifndef CLIENT_CMN_ABUF_H
#define CLIENT_CMN_ABUF_H

#include <span>

#include "api/t_buf.h"
#include "client/pkixhook.h"
#include "cmn/cmn_stub.h"
#include "cmn/status.h"

class X509CmnSrv : public CMN_ServiceStub<X509CmnSrv_I> {
public:
    // Bound to `target` at once, or with null on first use.
    explicit X509CmnSrv(X509CmnSrv_I* target = nullptr)
        : CMN_ServiceStub<X509CmnSrv_I>(X509CmnSrvID, target) {}

    // As the free functions below.
    TBuf* createTBuf();
    TBuf* createTBuf(const char* s);
    TBuf* createTBuf(const unsigned char* data, unsigned int len);
    TBuf* createTBuf(TBuf* src);
};

extern X509CmnSrv theX509Cmn;  // this module's one stub of the service

// New buffers without a reference, to which the caller attaches the first holder:
// empty, or with a copy of a text without its NUL, of `len` bytes, of another buffer.
// Null when the service cannot be reached, and on failure.
TBuf* createTBuf();
TBuf* createTBuf(const char* s);
TBuf* createTBuf(const unsigned char* data, unsigned int len);
TBuf* createTBuf(TBuf* src);

// Asks the host for the service again and, when that is another one than theX509Cmn
// holds, changes over to it. Buffers stay with the service that made them.
void x509cmn_init();
// Gives the service back.
void x509cmn_fini();

// A handle of one buffer. Copies share the buffer, and the last one that goes deletes it;
// its contents are wiped. Every operation sets error(): kOk, kNoObject without a buffer,
// or the status that it returns. A failure leaves the contents as they were. kNoMemory is
// possible wherever contents are replaced.
class aBuf : public PKIXAnyObject<TBuf> {
public:
    // A new buffer: empty, with a copy of a text without its NUL, or of `len` bytes
    // (`data` may be null when that is 0). Without buffer, and with error() kNoObject,
    // when none could be made.
    aBuf();
    explicit aBuf(const char* s);
    aBuf(const unsigned char* data, unsigned int len);

    // A handle of this buffer, which may be null.
    explicit aBuf(TBuf* t);

    // A handle without a buffer, of which error() says why until the next call.
    static aBuf none(Status reason);

    // Replace the contents by a copy, as the constructors.
    //   kInvalid  the argument is null
    Status set(const char* s);
    Status set(const unsigned char* data, unsigned int len);

    unsigned int len() const;  // in bytes; 0 without a buffer

    // The first byte, valid until the contents change; null without a buffer.
    unsigned char* datap();
    const unsigned char* datap() const;

    // The bytes, valid until the contents change; none without a buffer. One call where
    // datap() and len() are two.
    std::span<const unsigned char> view() const;

    // Replaces the contents by a copy of the other's.
    //   kNoObject  either has no buffer
    Status dup(const aBuf& other);

    // True when the contents differ; takes as long wherever the first difference is. A
    // handle without buffer differs from every handle, itself included.
    bool operator!=(const aBuf& other) const;

    // Replaces the contents by those of a file.
    //   kInvalid  `path` is null
    //   kMissing  there is no regular file that can be opened
    //   kIo       it cannot be read whole
    Status load(const char* path);
    // Replaces the file by the contents: whole or not at all, durably, readable by its
    // owner only.
    //   kInvalid  `path` is null
    //   kIo       it is as it was; or the new file is there, but may not outlive a loss
    //             of power
    Status save(const char* path);

    // Drop `n` bytes at the front, or at the end.
    //   kInvalid  there are fewer
    Status shift(unsigned int n);
    Status retreat(unsigned int n);
};

#endif  // CLIENT_CMN_ABUF_H
