#include "client/pkixakey.h"

aKey::aKey(TKey* key) : PKIXKeyObject<TKey>(key) {}

// A new key is made in a handle that has its use of the service already, so that no
// other thread's last handle gives the service back under it.
aKey::aKey(TKey::key_type_t type) : aKey(nullptr) {
    hold(pkixKeyClnt.createTKey(type));
}

aKey::aKey(TKey::key_type_t type, const unsigned char* data, unsigned int len) : aKey(nullptr) {
    hold(pkixKeyClnt.createTKey(type, data, len));
}

TKey::key_type_t aKey::getType() const {
    return callAndAsk(TKey::kNone, [](const TKey& key) { return key.getType(); });
}

Status aKey::setAlg(pki_alg_t alg) {
    return callForStatus([=](TKey& key) { return key.setAlg(alg); });
}

pki_alg_t aKey::getAlg() const {
    return callAndAsk(PKI_ALG_NONE, [](const TKey& key) { return key.getAlg(); });
}

aBuf aKey::getKey() const {
    return aBuf(callAndAsk<TBuf*>(nullptr, [](const TKey& key) { return key.getKey(); }));
}

Status aKey::setKey(aBuf& value) {
    return callForStatus([&](TKey& key) { return key.setKey(value.target()); });
}

aBuf aKey::getParam(unsigned char tag) const {
    return aBuf(callAndAsk<TBuf*>(nullptr, [=](const TKey& key) { return key.getParam(tag); }));
}

aBuf aKey::getParam(TKey::aka_t which) const {
    return aBuf(callAndAsk<TBuf*>(nullptr, [=](const TKey& key) { return key.getParam(which); }));
}

int aKey::getParam(TKey::bka_t which) const {
    return callAndAsk(0, [=](const TKey& key) { return key.getParam(which); });
}

Status aKey::setParam(TKey::bka_t which, int value) {
    return callForStatus([=](TKey& key) { return key.setParam(which, value); });
}

Status aKey::setParam(TKey::aka_t which, aBuf& value) {
    return callForStatus([&](TKey& key) { return key.setParam(which, value.target()); });
}

Status aKey::setParam(unsigned char tag, aBuf& value) {
    return callForStatus([&](TKey& key) { return key.setParam(tag, value.target()); });
}

aBuf aKey::getRaw() const {
    return aBuf(callAndAsk<TBuf*>(nullptr, [](const TKey& key) { return key.getRaw(); }));
}

Status aKey::setRaw(const unsigned char* data, unsigned int len) {
    return callForStatus([=](TKey& key) { return key.setRaw(data, len); });
}

Status aKey::setRaw(aBuf& value) {
    return callForStatus([&](TKey& key) { return key.setRaw(value.target()); });
}

Status aKey::setTokenId(unsigned int slot, unsigned int object) {
    return callForStatus([=](TKey& key) { return key.setTokenId(slot, object); });
}

Status aKey::getTokenId(unsigned int& slot, unsigned int& object) const {
    return callAndAsk(kNoObject, [&](const TKey& key) { return key.getTokenId(slot, object); });
}

aBuf aKey::getKeyId() const {
    return aBuf(callAndAsk<TBuf*>(nullptr, [](const TKey& key) { return key.getKeyId(); }));
}

Status aKey::setKeyId(aBuf& id) {
    return callForStatus([&](TKey& key) { return key.setKeyId(id.target()); });
}

Status aKey::setVendor(pki_vendor vendor) {
    return callForStatus([=](TKey& key) { return key.setVendor(vendor); });
}

pki_vendor aKey::getVendor() {
    return callAndAsk(pki_vendor{0}, [](const TKey& key) { return key.getVendor(); });
}

aBuf aKey::sign(aBuf& data) const {
    return aBuf(
        callAndAsk<TBuf*>(nullptr, [&](const TKey& key) { return key.sign(data.target()); }));
}

Status aKey::verify(aBuf& data, aBuf& signature) const {
    return callForStatus(
        [&](const TKey& key) { return key.verify(data.target(), signature.target()); });
}

aBuf aKey::encrypt(aBuf& plain) const {
    return aBuf(
        callAndAsk<TBuf*>(nullptr, [&](const TKey& key) { return key.encrypt(plain.target()); }));
}

aBuf aKey::decrypt(aBuf& cipher) const {
    return aBuf(
        callAndAsk<TBuf*>(nullptr, [&](const TKey& key) { return key.decrypt(cipher.target()); }));
}

Status aKey::isConsistent(aKey& other, int deep) const {
    return callForStatus([&](const TKey& key) { return key.isConsistent(other.target(), deep); });
}
