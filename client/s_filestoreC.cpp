#include "client/s_filestoreC.h"

#include <utility>

constinit Tuint32ID FILESTORE_ID(107);

aFileStoreSrv FileStoreSrvC(nullptr);
aFileStoreSrvExt CMN_FILESTORE_S(nullptr);

aFileStoreSrv::aFileStoreSrv() : CMN_ServiceStub(FILESTORE_ID) {
    acquire();
}

aFileStoreSrv::aFileStoreSrv(TFileStoreSrv* srv) : CMN_ServiceStub(FILESTORE_ID, srv) {}

CMN_GuardedRef* aFileStoreSrv::create(unsigned int type) {
    return forward(&TFileStoreSrv::create, nullptr, type);
}

Status aFileStoreSrv::open(const char* password) {
    return forward(&TFileStoreSrv::open, kNoObject, password);
}

Status aFileStoreSrv::close() {
    return forward(&TFileStoreSrv::close, kNoObject);
}

int aFileStoreSrv::isOpen() {
    return forward(&TFileStoreSrv::isOpen, 0);
}

Status aFileStoreSrv::checkPwd(const char* password) {
    return forward(&TFileStoreSrv::checkPwd, kNoObject, password);
}

Status aFileStoreSrv::recrypt(const char* oldPassword, const char* newPassword) {
    return forward(&TFileStoreSrv::recrypt, kNoObject, oldPassword, newPassword);
}

Status aFileStoreSrv::encode(aBuf key, aBuf data, aBuf& out) {
    return forward(&TFileStoreSrv::encode, kNoObject, key, data, out);
}

Status aFileStoreSrv::decode(aBuf key, aBuf data, aBuf& out) {
    return forward(&TFileStoreSrv::decode, kNoObject, key, data, out);
}

Status aFileStoreSrv::prepareDBFolders() {
    return forward(&TFileStoreSrv::prepareDBFolders, kNoObject);
}

aCryptoEncoder aFileStoreSrvExt::getEncoder() {
    const auto none = [] { return aCryptoEncoder(nullptr); };
    if (!acquire()) {
        return none();
    }
    return forwardTo(m_ref, none, [](TFileStoreSrv& srv) { return srv.getEncoder(); });
}

aCryptoDecoder aFileStoreSrvExt::getDecoder() {
    const auto none = [] { return aCryptoDecoder(nullptr); };
    if (!acquire()) {
        return none();
    }
    return forwardTo(m_ref, none, [](TFileStoreSrv& srv) { return srv.getDecoder(); });
}
