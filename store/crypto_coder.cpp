#include "store/crypto_coder.h"

mmPBES createCoder(const unsigned char* password, unsigned int length) {
    constexpr unsigned int kCount = 1000;
    constexpr unsigned int kBytesOfKey = 16;

    mmPBES coder(PBES::kPbkdf2);
    // A value that is refused, or meant for a selector that was, makes another key.
    const auto takes = [&](PBES::param selector, const auto& value) {
        return (coder << selector).error() == kOk && (coder << value).error() == kOk;
    };
    // The key length comes before the algorithm that it is for: the encryption
    // service takes its parameters in this order.
    const bool complete = takes(PBES::kPassword, aBuf(password, length)) &&
                          takes(PBES::kSalt, aBuf("")) && takes(PBES::kIterations, kCount) &&
                          takes(PBES::kKeyLength, kBytesOfKey) &&
                          takes(PBES::kFirstAlg, PKI_ALG_PBKDF2_HMAC_SHA256) &&
                          takes(PBES::kSecondAlg, PKI_ALG_AES_GCM);
    // Derives the key, and proves that it can be derived.
    if (!complete || coder.getKey().target() == nullptr) {
        return mmPBES(static_cast<PBES*>(nullptr));
    }
    return coder;
}

CryptoCoder::CryptoCoder() : TCryptoCoder(0), pbes(static_cast<PBES*>(nullptr)) {}

CryptoCoder::~CryptoCoder() {
    pbes = mmPBES(static_cast<PBES*>(nullptr));
    pthread_rwlock_destroy(&lock);
}

Status CryptoCoder::init() {
    return kOk;
}

Status CryptoCoder::fini() {
    return kOk;
}

Status CryptoCoder::setKey(aBuf& password) {
    mmPBES fresh(static_cast<PBES*>(nullptr));
    if (password.target() != nullptr) {
        fresh = createCoder(password.datap(), password.len());
        if (fresh.target() == nullptr) {
            return kIo;
        }
    }
    const os::WriteLock locked(&lock);
    pbes = fresh;
    return kOk;
}

aBuf CryptoCoder::encrypt(aBuf& data) {
    const os::ReadLock locked(&lock);
    return pbes.encrypt(data);
}

aBuf CryptoCoder::decrypt(aBuf& data) {
    const os::ReadLock locked(&lock);
    return pbes.decrypt(data);
}
