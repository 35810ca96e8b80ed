#include "store/crypto_coder.h"

mmPBES createCoder(const unsigned char* password, unsigned int length) {
    constexpr unsigned int kCount = 1000;
    constexpr unsigned int kBytesOfKey = 16;

    mmPBES coder(PBES::kPbkdf2);
    // The key length comes before the algorithm that it is for: the encryption
    // service takes its parameters in this order.
    coder << PBES::kPassword << aBuf(password, length) << PBES::kSalt << aBuf("")
          << PBES::kIterations << kCount << PBES::kKeyLength << kBytesOfKey << PBES::kFirstAlg
          << PKI_ALG_PBKDF2_HMAC_SHA256 << PBES::kSecondAlg << PKI_ALG_AES_GCM;
    // Derives the key, and proves that it can be derived. A service refuses it for a
    // parameter that it did not take; what error() says in between is its own affair.
    if (coder.getKey().target() == nullptr) {
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
    aBuf plain = pbes.decrypt(data);
    if (plain.target() == nullptr && pbes.error() == kNoMemory) {
        plain = aBuf::none(kNoMemory);  // which says nothing of the key
    }
    return plain;
}
