#include "client/cmn_abuf.h"

constinit Tuint32ID X509CmnSrvID{111};
X509CmnSrv theX509Cmn;

TBuf* X509CmnSrv::createTBuf() {
    return call<TBuf*>(nullptr, [](X509CmnSrv_I& srv) { return srv.createTBuf(); });
}

TBuf* X509CmnSrv::createTBuf(const char* s) {
    return call<TBuf*>(nullptr, [=](X509CmnSrv_I& srv) { return srv.createTBuf(s); });
}

TBuf* X509CmnSrv::createTBuf(const unsigned char* data, unsigned int len) {
    return call<TBuf*>(nullptr, [=](X509CmnSrv_I& srv) { return srv.createTBuf(data, len); });
}

TBuf* X509CmnSrv::createTBuf(TBuf* src) {
    return call<TBuf*>(nullptr, [=](X509CmnSrv_I& srv) { return srv.createTBuf(src); });
}

TBuf* createTBuf() {
    return theX509Cmn.createTBuf();
}

TBuf* createTBuf(const char* s) {
    return theX509Cmn.createTBuf(s);
}

TBuf* createTBuf(const unsigned char* data, unsigned int len) {
    return theX509Cmn.createTBuf(data, len);
}

TBuf* createTBuf(TBuf* src) {
    return theX509Cmn.createTBuf(src);
}

// The use that `fresh` acquired ends with it: an assignment passes the object on
// and not the use. The host ignores the release that theX509Cmn owes in excess.
void x509cmn_init() {
    X509CmnSrv fresh;
    if (fresh.acquire() && fresh.service() != theX509Cmn.service()) {
        theX509Cmn = fresh;
    }
}

void x509cmn_fini() {
    theX509Cmn = X509CmnSrv();
}

aBuf::aBuf(TBuf* t) : PKIXAnyObject<TBuf>(t, &theX509Cmn) {}

aBuf aBuf::none(Status reason) {
    aBuf handle(static_cast<TBuf*>(nullptr));
    (void)handle.record(reason);
    return handle;
}

// A new buffer is made in a handle that has its use of the service already, so that
// no other thread's last handle gives the service back under it.
aBuf::aBuf() : aBuf(static_cast<TBuf*>(nullptr)) {
    hold(createTBuf());
}

aBuf::aBuf(const char* s) : aBuf(static_cast<TBuf*>(nullptr)) {
    hold(createTBuf(s));
}

aBuf::aBuf(const unsigned char* data, unsigned int len) : aBuf(static_cast<TBuf*>(nullptr)) {
    hold(createTBuf(data, len));
}

Status aBuf::set(const char* s) {
    return callForStatus([=](TBuf& buf) { return buf.set(s); });
}

Status aBuf::set(const unsigned char* data, unsigned int len) {
    return callForStatus([=](TBuf& buf) { return buf.set(data, len); });
}

unsigned int aBuf::len() const {
    return callForValue(0U, [](const TBuf& buf) { return buf.length(); });
}

unsigned char* aBuf::datap() {
    return callForValue<unsigned char*>(nullptr, [](TBuf& buf) { return buf.data(); });
}

const unsigned char* aBuf::datap() const {
    return callForValue<unsigned char*>(nullptr, [](TBuf& buf) { return buf.data(); });
}

std::span<const unsigned char> aBuf::view() const {
    return callForValue(std::span<const unsigned char>(), [](TBuf& buf) {
        return std::span<const unsigned char>(buf.data(), buf.length());
    });
}

Status aBuf::dup(const aBuf& other) {
    TBuf* const theirs = other.target();
    if (theirs == nullptr) {
        return record(kNoObject);
    }
    return callForStatus([=](TBuf& buf) { return buf.duplicate(theirs); });
}

bool aBuf::operator!=(const aBuf& other) const {
    TBuf* const theirs = other.target();
    if (theirs == nullptr) {
        record(kNoObject);
        return true;
    }
    return callForValue(true, [=](TBuf& buf) { return buf.compare(theirs) != 0; });
}

Status aBuf::load(const char* path) {
    return callForStatus([=](TBuf& buf) { return buf.load(path); });
}

Status aBuf::save(const char* path) {
    return callForStatus([=](TBuf& buf) { return buf.save(path); });
}

Status aBuf::shift(unsigned int n) {
    return callForStatus([=](TBuf& buf) { return buf.shift(n); });
}

Status aBuf::retreat(unsigned int n) {
    return callForStatus([=](TBuf& buf) { return buf.retreat(n); });
}
