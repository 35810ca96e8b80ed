// Whether a database is open, and the two ciphers that have its key.
//
// Nothing guards the state as a whole: the callers of open(), close() and recrypt() of one
// database serialise these. The handles of the ciphers may be taken by any thread meanwhile.
#ifndef SERVICE_OPEN_STATE_H
#define SERVICE_OPEN_STATE_H

#include <atomic>

#include "client/cmn_abuf.h"
#include "client/crypto_coder_exp.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/export.h"
#include "cmn/status.h"
#include "cmn/thread_annotations.h"

// The order of the fields is published, as that of the service object's.
class CMN_HIDDEN OpenState {
public:
    OpenState();
    OpenState(const OpenState&) = delete;
    OpenState& operator=(const OpenState&) = delete;
    ~OpenState() = default;

    int isOpen() const noexcept { return opened.load(std::memory_order_relaxed); }

    // Gives both ciphers the key of this password: the database is open then.
    Status open(aBuf& key);

    // Takes the key from both. kClosed when the database is not open.
    Status close();

    // Takes the key from both, open or not, and lets go of them.
    void drop();

    // Handles of the ciphers, which are made when they are first asked for. May throw
    // std::bad_alloc.
    aCryptoEncoder ownEncoder();
    aCryptoDecoder ownDecoder();

    // Returns a handle of the cipher that was there before.
    aCryptoEncoder setEncoder(const aCryptoEncoder& replacement);
    void setDecoder(const aCryptoDecoder& replacement);

private:
    Status setKeys(aBuf& key);

    aCryptoEncoder encoder CMN_GUARDED_BY(coders);
    aCryptoDecoder decoder CMN_GUARDED_BY(coders);
    std::atomic<int> opened{0};
    aBuf password;     // stays without object: keys live in the ciphers only
    CMN_Mutex coders;  // the two handles; taken before the locks of stubs
};

#endif  // SERVICE_OPEN_STATE_H
