// The MD5 message digest (RFC 1321) under plain C names.
//
// The module exports these functions; names, signatures and the layout of the
// context are its binary contract. Any thread may call them, for one context
// one thread at a time. Messages are digested modulo 2^64 bits, as MD5 has it.
//
// Outside the context no trace of the message stays in memory, and a context from the heap
// is wiped before it is freed. A context of the caller is not: if the message is a secret,
// the caller wipes it.
#ifndef SERVICE_MD5_H
#define SERVICE_MD5_H

#include <cstdint>

#include "cmn/export.h"

extern "C" {

struct rk5_MD5Context {
    std::uint32_t state[4];    // chaining value: A, B, C, D
    std::uint32_t count[2];    // bits of message so far, low word first
    unsigned char buffer[64];  // the incomplete block, count / 8 % 64 bytes of it
    std::uint32_t flags;       // bit 0: from the heap of rk5_MD5Init, freed by rk5_MD5Final
};

// Begins a message and returns the context: `context`, or one from the heap when
// `context` is null. Of a context of the caller only bit 0 of the flags is
// cleared, the other bits stay. Returns null when there is no memory.
CMN_EXPORT rk5_MD5Context* rk5_MD5Init(rk5_MD5Context* context) noexcept;

// Adds `length` bytes to the message.
//    1  done
//   -1  `context` is null, or `data` is null and `length` is not 0
CMN_EXPORT int rk5_MD5Update(rk5_MD5Context* context, const void* data,
                             unsigned int length) noexcept;

// Ends the message, writes its digest and frees a context from the heap. A
// context of the caller must begin anew before its next use.
//    1  done
//   -1  `context` or `digest` is null; a context from the heap stays alive
CMN_EXPORT int rk5_MD5Final(rk5_MD5Context* context, unsigned char digest[16]) noexcept;

// Digests one whole message, in `context` or, when that is null, in one from the
// heap that is freed before the call returns.
//    1  done
//   -1  `data` (whatever the length) or `digest` is null, or there is no memory
CMN_EXPORT int rk5_MD5Compute(rk5_MD5Context* context, unsigned char digest[16], const void* data,
                              unsigned int length) noexcept;

}  // extern "C"

#endif  // SERVICE_MD5_H
