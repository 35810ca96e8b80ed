// Doubles of the X.509 common service and its buffers: real contents, in memory,
// watched and made to fail by a CallWatch.
#ifndef TESTS_SUPPORT_DOUBLES_DOUBLE_X509CMN_H
#define TESTS_SUPPORT_DOUBLES_DOUBLE_X509CMN_H

#include <string>

#include "api/t_buf.h"
#include "tests/support/doubles/call_watch.h"

std::string tell(TBuf* buf);  // "buffer abc", or "no buffer"

// The contents of any buffer; none for null.
std::string bytesOf(TBuf* buf);

class DoubleBuf final : public TBuf, private Watched {
public:
    static constexpr unsigned int kType = 0x6F0001;

    explicit DoubleBuf(Watch watch, std::string bytes = {});

    // What it holds, without a call being recorded.
    const std::string& bytes() const { return bytes_; }

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
    Status shift(unsigned int n) override;
    Status retreat(unsigned int n) override;

private:
    std::string bytes_;
};

// Its operations are all recorded, and made to fail, under the name "createTBuf".
class DoubleX509Cmn : public X509CmnSrv_I, private Watched {
public:
    static constexpr unsigned int kType = 0x6F0000;

    explicit DoubleX509Cmn(unsigned int objectType = kType);

    CallWatch& watch() { return *watch_; }

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    TBuf* createTBuf() override;
    TBuf* createTBuf(const char* s) override;
    TBuf* createTBuf(const unsigned char* data, unsigned int len) override;
    TBuf* createTBuf(TBuf* src) override;

private:
    template <class Bytes>
    TBuf* make(Bytes bytes);
};

#endif  // TESTS_SUPPORT_DOUBLES_DOUBLE_X509CMN_H
