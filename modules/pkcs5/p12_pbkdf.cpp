#include "modules/pkcs5/p12_pbkdf.h"

#include <cstring>
#include <memory>

#include <openssl/evp.h>

#include "client/cmn_abuf.h"
#include "client/pkixkeyclnt.h"
#include "cmn/cmn_stub.h"
#include "modules/common/last_status.h"
#include "modules/common/ossl.h"
#include "modules/pkcs5/derive.h"

namespace {

constexpr pki_alg_t kDigests[] = {PKI_ALG_SHA1, PKI_ALG_SHA256};
constexpr unsigned int kMostKeyLength = 64;  // the longest key, vector or MAC key in use

bool appendNumber(WipedBytes& to, unsigned int number) {
    unsigned char bytes[sizeof number];
    std::memcpy(bytes, &number, sizeof number);
    return to.append(bytes);
}

// What stands for a derivation in a map: a digest of all that it depends on, so
// that the map tells no password. Lengths come first, so no two inputs read alike.
Status nameOf(const KdfParameters& parameters, P12PBKDF::target purpose, aBuf& name) {
    WipedBytes text;
    for (const unsigned int number :
         {static_cast<unsigned int>(parameters.firstAlg()), static_cast<unsigned int>(purpose),
          parameters.iterations(), parameters.keyLength(),
          static_cast<unsigned int>(parameters.password().size())}) {
        if (!appendNumber(text, number)) {
            return kNoMemory;
        }
    }
    if (!text.append(parameters.password()) || !text.append(parameters.salt())) {
        return kNoMemory;
    }
    unsigned char digest[32];
    std::size_t size = 0;
    if (EVP_Q_digest(nullptr, "SHA256", nullptr, text.data(), text.size(), digest, &size) != 1) {
        return kIo;
    }
    return name.set(digest, static_cast<unsigned int>(size));
}

}  // namespace

P12Pbkdf::P12Pbkdf() : WithParameters(kType, {kDigests, {}, 1, kMostKeyLength, 1}) {}

// A map that fails costs a derivation and nothing else.
Status P12Pbkdf::derive(target purpose, WipedBytes& key) const {
    if (derived_.get() == nullptr || !parameters().complete()) {
        return derivePkcs12(parameters(), purpose, key);
    }
    const ossl::QuietErrors quiet;
    aBuf name;  // held, as all that is passed on to others
    if (const Status status = nameOf(parameters(), purpose, name); status != kOk) {
        return status;
    }
    const GuardLock inUse(derived_.heldGuard());
    const aBuf known(derived_.get()->find(name.target()));
    if (known.target() != nullptr && known.len() == parameters().keyLength()) {
        return key.assign({known.datap(), known.len()}) ? kOk : kNoMemory;
    }
    if (const Status status = derivePkcs12(parameters(), purpose, key); status != kOk) {
        return status;
    }
    const aBuf value(key.data(), static_cast<unsigned int>(key.size()));
    if (value.target() != nullptr) {
        (void)derived_.get()->add(name.target(), value.target());  // it is derived again then
    }
    return kOk;
}

TKey* P12Pbkdf::getKey(target purpose) {
    return recordedObject<TKey>([&](std::unique_ptr<TKey>& made) {
        WipedBytes key;
        if (const Status status = derive(purpose, key); status != kOk) {
            return status;
        }
        made.reset(pkixKeyClnt.createTKey(TKey::kSymmetric, key.data(),
                                          static_cast<unsigned int>(key.size())));
        return made != nullptr ? kOk : kNoObject;
    });
}

Status P12Pbkdf::error() {
    return lastStatus;
}

Status P12Pbkdf::setHashMap(HashMap* map) {
    return recorded([&] {
        derived_ = map;
        return kOk;
    });
}
