#include "client/crypto_coder_exp.h"

#include "client/s_filestoreC.h"

CryptoCoderHandle::CryptoCoderHandle() : CryptoCoderHandle(nullptr) {
    m_ref = static_cast<TCryptoCoder*>(FileStoreSrvC.create(TFileStoreSrv::kCipher));
}

CryptoCoderHandle::CryptoCoderHandle(TCryptoCoder* coder) : CMN_ObjectStub(coder, &FileStoreSrvC) {}

Status CryptoCoderHandle::setKey(aBuf& password) {
    return forward(&TCryptoCoder::setKey, kNoObject, password);
}

namespace {

aBuf noBuffer() {
    return aBuf(static_cast<TBuf*>(nullptr));
}

}  // namespace

aBuf aCryptoEncoder::encrypt(aBuf& data) {
    return forwardTo(m_ref, noBuffer, [&](TCryptoCoder& coder) { return coder.encrypt(data); });
}

aBuf aCryptoDecoder::decrypt(aBuf& data) {
    return forwardTo(m_ref, noBuffer, [&](TCryptoCoder& coder) { return coder.decrypt(data); });
}
