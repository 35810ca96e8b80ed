// The byte buffer that the X.509 common service makes: api/t_buf.h says what its
// operations promise. Its memory never keeps a trace of former contents.
#ifndef MODULES_X509CMN_BUF_H
#define MODULES_X509CMN_BUF_H

#include <span>

#include "api/t_buf.h"
#include "cmn/status.h"
#include "modules/common/wiped_bytes.h"

class Buf final : public TBuf {
public:
    static constexpr unsigned int kType = 0x6F0001;  // module 111, kind 1

    Buf() : TBuf(kType) {}

    Status init() override { return kOk; }
    Status fini() override { return kOk; }

    unsigned int capacity() const override;
    Status clear() override;
    Status set(const char* s) override;
    Status set(const unsigned char* data, unsigned int len) override;
    Status append(const unsigned char* data, unsigned int len) override;
    unsigned char* data() override;
    unsigned int length() const override;
    Status duplicate(TBuf* other) override;
    Status append(TBuf* other) override;
    int compare(TBuf* other) override;
    Status load(const char* path) override;
    Status save(const char* path) override;
    Status shift(unsigned int bytes) override;
    Status retreat(unsigned int bytes) override;

private:
    Status assign(std::span<const unsigned char> bytes) noexcept;

    WipedBytes bytes_;  // never more than fits an unsigned int
};

#endif  // MODULES_X509CMN_BUF_H
