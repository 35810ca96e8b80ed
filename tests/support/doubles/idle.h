// Doubles that do nothing: bases of those that a test needs for an operation or two.
#ifndef TESTS_SUPPORT_DOUBLES_IDLE_H
#define TESTS_SUPPORT_DOUBLES_IDLE_H

#include "api/pkcs5_i.h"
#include "api/t_buf.h"
#include "cmn/status.h"

// A buffer whose bytes nobody changes.
class IdleBuf : public TBuf {
public:
    IdleBuf() : TBuf(0) {}

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    unsigned int capacity() const override { return length(); }
    Status clear() override { return kIo; }
    Status set(const char* /*s*/) override { return kIo; }
    Status set(const unsigned char* /*data*/, unsigned int /*len*/) override { return kIo; }
    Status append(const unsigned char* /*data*/, unsigned int /*len*/) override { return kIo; }
    Status append(TBuf* /*other*/) override { return kIo; }
    Status duplicate(TBuf* /*other*/) override { return kIo; }
    int compare(TBuf* /*other*/) override { return 1; }
    Status load(const char* /*path*/) override { return kIo; }
    Status save(const char* /*path*/) override { return kIo; }
    Status shift(unsigned int /*count*/) override { return kIo; }
    Status retreat(unsigned int /*count*/) override { return kIo; }
};

// An encryption object that takes any parameters.
class IdlePbes : public PBES {
public:
    IdlePbes() : PBES(0) {}

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    Status select(param /*selector*/) override { return kOk; }
    Status supply(TBuf* /*bytes*/) override { return kOk; }
    Status supply(unsigned int /*number*/) override { return kOk; }
    Status supply(pki_alg_t /*alg*/) override { return kOk; }
    Status setKey(TKey* /*key*/) override { return kOk; }
    Status error() override { return kOk; }
};

#endif  // TESTS_SUPPORT_DOUBLES_IDLE_H
