// Byte buffers, and the client of the X.509 common service (module 111) that makes
// them. Passwords, keys, attributes and bodies travel in an aBuf.
//
// A buffer is one thread's at a time; the service stub is every thread's, but for
// x509cmn_init() and x509cmn_fini().
//
// Nothing here throws; an exception out of the service passes through, and leaves
// every guard as it was.
#ifndef CLIENT_CMN_ABUF_H
#define CLIENT_CMN_ABUF_H

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
// empty, or with a copy of a text, of `len` bytes, of another buffer. The service
// is acquired when that is not done yet. Null when it cannot be had or fails.
TBuf* createTBuf();
TBuf* createTBuf(const char* s);
TBuf* createTBuf(const unsigned char* data, unsigned int len);
TBuf* createTBuf(TBuf* src);

// Asks the host for the service anew, and changes theX509Cmn over when the host has
// another one than it holds. x509cmn_fini() gives the service back. No other thread
// may use the stub meanwhile.
void x509cmn_init();
void x509cmn_fini();

// A handle of one buffer. Copies share the buffer. Every operation sets error():
// kNoObject without a buffer, else what the buffer answered.
class aBuf : public PKIXAnyObject<TBuf> {
public:
    // A new buffer: empty, with a copy of a text without its NUL, or of `len` bytes.
    // Without a buffer, and with error() kNoObject, when none could be made.
    aBuf();
    explicit aBuf(const char* s);
    aBuf(const unsigned char* data, unsigned int len);

    // A handle of this buffer, which may be null.
    explicit aBuf(TBuf* t);

    // Replace the contents by a copy; kInvalid for null.
    Status set(const char* s);
    Status set(const unsigned char* data, unsigned int len);

    unsigned int len() const;  // in bytes; 0 without a buffer

    // The first byte, valid until the contents change; null without a buffer.
    unsigned char* datap();
    const unsigned char* datap() const;

    // Makes this buffer's contents a copy of the other's. kNoObject when either has
    // no buffer.
    Status dup(const aBuf& other);

    // True when the contents differ. A handle without a buffer differs from every
    // handle, itself included.
    bool operator!=(const aBuf& other) const;

    // Replace the contents by those of a file, or the file by the contents.
    Status load(const char* path);
    Status save(const char* path);

    // Drop `n` bytes at the front, or at the end.
    Status shift(unsigned int n);
    Status retreat(unsigned int n);
};

#endif  // CLIENT_CMN_ABUF_H
